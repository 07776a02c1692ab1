#include "platform/linux/capture/DirtyRegion.h"

#include <algorithm>
#include <limits>

namespace kestrune::linux_platform {

namespace {

std::int64_t areaOf(const PixelRect& rectangle) {
  return std::int64_t{rectangle.width} * rectangle.height;
}

PixelRect bounding(const PixelRect& a, const PixelRect& b) {
  const int left = std::min(a.x, b.x);
  const int top = std::min(a.y, b.y);
  return {left, top, std::max(a.x + a.width, b.x + b.width) - left,
          std::max(a.y + a.height, b.y + b.height) - top};
}

/// Pixels that a merge adds.
std::int64_t waste(const PixelRect& a, const PixelRect& b) {
  return areaOf(bounding(a, b)) - areaOf(a) - areaOf(b);
}

}  // namespace

void DirtyRegion::add(const PixelRect& rectangle) {
  if (rectangle.width <= 0 || rectangle.height <= 0) return;
  PixelRect merged = rectangle;
  // A merged rectangle may reach others, so start over after each merge; each takes one away.
  for (std::size_t i = 0; i < rectangles_.size();) {
    if (waste(rectangles_[i], merged) >= kRectangleCost) {
      ++i;
      continue;
    }
    merged = bounding(rectangles_[i], merged);
    rectangles_.erase(rectangles_.begin() + static_cast<std::ptrdiff_t>(i));
    i = 0;
  }
  rectangles_.push_back(merged);
  if (rectangles_.size() > kLimit) mergeCheapestPair();
}

void DirtyRegion::mergeCheapestPair() {
  std::size_t first = 0;
  std::size_t second = 1;
  std::int64_t least = std::numeric_limits<std::int64_t>::max();
  for (std::size_t i = 0; i < rectangles_.size(); ++i) {
    for (std::size_t k = i + 1; k < rectangles_.size(); ++k) {
      const std::int64_t cost = waste(rectangles_[i], rectangles_[k]);
      if (cost >= least) continue;
      least = cost;
      first = i;
      second = k;
    }
  }
  const PixelRect merged = bounding(rectangles_[first], rectangles_[second]);
  rectangles_.erase(rectangles_.begin() + static_cast<std::ptrdiff_t>(second));
  rectangles_.erase(rectangles_.begin() + static_cast<std::ptrdiff_t>(first));
  add(merged);
}

std::int64_t DirtyRegion::area() const {
  std::int64_t sum = 0;
  for (const PixelRect& rectangle : rectangles_) sum += areaOf(rectangle);
  return sum;
}

}  // namespace kestrune::linux_platform
