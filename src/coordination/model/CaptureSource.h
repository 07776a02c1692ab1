#pragma once

#include <string>

namespace kestrune {

/// What the capture service shows.
struct CaptureSourceDescriptor {
  enum class Kind { display, window, application, unknown };

  std::string title;
  Kind kind = Kind::unknown;
  friend bool operator==(const CaptureSourceDescriptor&, const CaptureSourceDescriptor&) = default;
};

}  // namespace kestrune
