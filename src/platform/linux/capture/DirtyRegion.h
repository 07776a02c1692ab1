#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "platform/linux/pixel/PixelRects.h"

namespace kestrune::linux_platform {

/// What has changed, as a few rectangles that cover it and may overlap. Rectangles are merged when handling
/// the pixels between them costs less than handling one rectangle more, and whenever there would be more than
/// kLimit.
class DirtyRegion {
 public:
  static constexpr std::size_t kLimit = 16;
  /// What one more rectangle costs (a request, a reply and the set-up of a conversion), in pixels.
  static constexpr std::int64_t kRectangleCost = 8192;

  /// A rectangle without area adds nothing.
  void add(const PixelRect& rectangle);
  void clear() { rectangles_.clear(); }
  bool isEmpty() const { return rectangles_.empty(); }
  const std::vector<PixelRect>& rectangles() const { return rectangles_; }
  /// The sum over the rectangles.
  std::int64_t area() const;

 private:
  void mergeCheapestPair();

  std::vector<PixelRect> rectangles_;
};

}  // namespace kestrune::linux_platform
