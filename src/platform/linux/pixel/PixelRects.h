#pragma once

#include <algorithm>

#include "platform/Geometry.h"

namespace kestrune::linux_platform {

/// Empty (all zero) where the two have nothing in common.
inline PixelRect intersection(const PixelRect& a, const PixelRect& b) {
  const int left = std::max(a.x, b.x);
  const int top = std::max(a.y, b.y);
  const int right = std::min(a.x + a.width, b.x + b.width);
  const int bottom = std::min(a.y + a.height, b.y + b.height);
  if (right <= left || bottom <= top) return {};
  return {left, top, right - left, bottom - top};
}

inline bool contains(const PixelRect& outer, const PixelRect& inner) {
  return intersection(outer, inner) == inner;
}

}  // namespace kestrune::linux_platform
