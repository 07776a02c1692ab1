#pragma once

#include <optional>
#include <vector>

#include "platform/Windows.h"

namespace kestrune {

/// Whether a window is large enough, and ordinary enough, to be one that a user browses in.
bool isBrowserWindow(const WindowInfo& window);

/// The bounds of the first such window of a process.
std::optional<Rect> chromeWindowFrame(const std::vector<WindowInfo>& windows, ProcessID process);

/// Whether the middle of a window lies within `frame` or at most two points beside it.
bool isOnTarget(const Rect& window, const Rect& frame);

}  // namespace kestrune
