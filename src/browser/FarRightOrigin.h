#pragma once

#include <optional>
#include <vector>

#include "platform/Geometry.h"

namespace kestrune {

/// The top right corner of the rightmost of these displays, of the topmost one among equals; nothing without
/// a display.
std::optional<Point> farRightOrigin(const std::vector<Rect>& frames);

}  // namespace kestrune
