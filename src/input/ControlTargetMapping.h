#pragma once

#include <optional>

#include "model/RemoteControl.h"
#include "platform/Displays.h"

namespace kestrune {

/// The rectangle that a target covers now, in global display points: the bounds of its display while they are
/// not empty, else its fallback frame. Asked anew at each use, so that a moved or resized display is
/// followed.
Rect effectiveFrame(const RemoteControlTarget& target, const Displays& displays);

/// From (x, y) normalized to the target, both in the closed range 0 to 1, to global display points; no
/// clamping: x = 1 gives the right edge itself. Nothing for other numbers or an empty frame.
std::optional<Point> normalizedPoint(const RemoteControlTarget& target, const Displays& displays, double x,
                                     double y);

/// From global display points to (x, y) normalized to the target, edges included. Nothing for a point outside
/// the frame, numbers that are not finite, or an empty frame.
std::optional<Point> displayPoint(const RemoteControlTarget& target, const Displays& displays, double x,
                                  double y);

}  // namespace kestrune
