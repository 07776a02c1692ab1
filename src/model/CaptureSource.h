#pragma once

#include <string>
#include <string_view>

namespace kestrune {

/// What the capture service shows.
struct CaptureSourceDescriptor {
  enum class Kind { display, window, application, unknown };

  std::string title;
  Kind kind = Kind::unknown;
  friend bool operator==(const CaptureSourceDescriptor&, const CaptureSourceDescriptor&) = default;
};

/// "display", "window", "application" or "unknown".
constexpr std::string_view rawValue(CaptureSourceDescriptor::Kind kind) {
  switch (kind) {
    case CaptureSourceDescriptor::Kind::display:
      return "display";
    case CaptureSourceDescriptor::Kind::window:
      return "window";
    case CaptureSourceDescriptor::Kind::application:
      return "application";
    case CaptureSourceDescriptor::Kind::unknown:
      break;
  }
  return "unknown";
}

}  // namespace kestrune
