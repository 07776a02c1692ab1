#include "capture/CaptureDimensions.h"

#include <algorithm>
#include <cmath>

namespace kestrune {
namespace {

constexpr CaptureDimensions kFallback{1280, 720};

std::int64_t fittedSide(std::int64_t side, double scale, std::int64_t limit) {
  const auto rounded = static_cast<std::int64_t>(std::llround(scale * static_cast<double>(side)));
  const std::int64_t clamped = std::min(std::max<std::int64_t>(rounded, 2), limit);
  return clamped % 2 == 0 ? clamped : std::max<std::int64_t>(clamped, 3) - 1;
}

}  // namespace

CaptureDimensions CaptureDimensions::fitting(std::int64_t width, std::int64_t height,
                                             std::int64_t longEdgeLimit) {
  if (longEdgeLimit < 1) return kFallback;
  if (width < 1 || height < 1) return fitting(kFallback.width, kFallback.height, longEdgeLimit);
  const double scale =
      std::min(1.0, static_cast<double>(longEdgeLimit) / static_cast<double>(std::max(width, height)));
  return {fittedSide(width, scale, longEdgeLimit), fittedSide(height, scale, longEdgeLimit)};
}

}  // namespace kestrune
