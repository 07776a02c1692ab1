#pragma once

#include <cstdint>
#include <optional>
#include <vector>

#include "platform/Geometry.h"

namespace kestrune {

/// One mode of one display.
struct DisplayMode {
  std::uint32_t id = 0;  // the system's name for it
  int width = 0;         // points
  int height = 0;
  double refreshRate = 0;  // Hz; 0 where the display does not tell
  bool isUsableForDesktop = false;
  friend bool operator==(const DisplayMode&, const DisplayMode&) = default;
};

/// The modes of real displays. Main queue only; a call may wait for the display server, for a few seconds at
/// the most.
///
/// A mode that setMode() has left is put back at the next start of the program if the program ended without
/// doing so itself.
class DisplayModes {
 public:
  virtual ~DisplayModes() = default;

  /// Nothing for a display that is not active or has no modes.
  virtual std::optional<DisplayMode> currentMode(DisplayID display) const = 0;
  /// Nothing where they cannot be had.
  virtual std::optional<std::vector<DisplayMode>> allModes(DisplayID display) const = 0;
  /// False if the system refuses; the display then shows what it showed.
  virtual bool setMode(DisplayID display, const DisplayMode& mode) = 0;
};

}  // namespace kestrune
