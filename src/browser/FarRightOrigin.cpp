#include "browser/FarRightOrigin.h"

namespace kestrune {

std::optional<Point> farRightOrigin(const std::vector<Rect>& frames) {
  std::optional<Point> best;
  for (const auto& frame : frames) {
    const Point corner{frame.x + frame.width, frame.y};
    if (!best || corner.x > best->x || (corner.x == best->x && corner.y < best->y)) best = corner;
  }
  return best;
}

}  // namespace kestrune
