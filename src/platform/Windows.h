#pragma once

#include <optional>
#include <vector>

#include "platform/Applications.h"
#include "platform/Geometry.h"

namespace kestrune {

struct WindowInfo {
  ProcessID owner = 0;
  int layer = 0;               // 0: an ordinary window; above: docks, menus and the like
  std::optional<Rect> bounds;  // global points; absent where the system does not tell
};

/// The windows of all displays. Main queue only. A call waits for the display server for a fraction of a
/// second at the most; where that does not answer, there are no windows.
class Windows {
 public:
  virtual ~Windows() = default;

  /// What is on screen, without the desktop itself; the topmost first.
  virtual std::vector<WindowInfo> onScreenWindows() = 0;
  /// Gives the first window of a process its place and size, global points, undoing what would hold it
  /// elsewhere (minimized, maximized, full screen), and raises it. True if the window took both the place and
  /// the size; false also without a window.
  virtual bool placeFirstWindow(ProcessID process, const Rect& frame) = 0;
};

}  // namespace kestrune
