#include "input/ControlTargetMapping.h"

#include <cmath>

namespace kestrune {
namespace {

bool isEmpty(const Rect& rect) {
  return !(rect.width > 0 && rect.height > 0);
}

}  // namespace

Rect effectiveFrame(const RemoteControlTarget& target, const Displays& displays) {
  if (target.displayID) {
    const Rect bounds = displays.bounds(*target.displayID);
    if (!isEmpty(bounds)) return bounds;
  }
  return target.fallbackFrame;
}

std::optional<Point> normalizedPoint(const RemoteControlTarget& target, const Displays& displays, double x,
                                     double y) {
  // A comparison with a number that is none is false, and infinities fall outside.
  if (!(x >= 0 && x <= 1 && y >= 0 && y <= 1)) return std::nullopt;
  const Rect frame = effectiveFrame(target, displays);
  if (isEmpty(frame)) return std::nullopt;
  return Point{frame.x + x * frame.width, frame.y + y * frame.height};
}

std::optional<Point> displayPoint(const RemoteControlTarget& target, const Displays& displays, double x,
                                  double y) {
  if (!std::isfinite(x) || !std::isfinite(y)) return std::nullopt;
  const Rect frame = effectiveFrame(target, displays);
  if (isEmpty(frame)) return std::nullopt;
  const bool isInside =
      x >= frame.x && x <= frame.x + frame.width && y >= frame.y && y <= frame.y + frame.height;
  if (!isInside) return std::nullopt;
  return Point{(x - frame.x) / frame.width, (y - frame.y) / frame.height};
}

}  // namespace kestrune
