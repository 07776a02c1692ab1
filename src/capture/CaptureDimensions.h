#pragma once

#include <cstdint>

namespace kestrune {

/// A size in pixels. The size rule is shared by capture and encoder, so that in the steady state the encoder
/// gets its pictures at the size that it encodes.
struct CaptureDimensions {
  std::int64_t width = 0;
  std::int64_t height = 0;

  /// The size at which a source of `width` by `height` pixels is shown: the longer side at most
  /// `longEdgeLimit`, the aspect kept, never enlarged, both sides even and at least 2. A source without an
  /// area is taken for 1280 by 720; a limit below 1 gives 1280 by 720.
  static CaptureDimensions fitting(std::int64_t width, std::int64_t height, std::int64_t longEdgeLimit);

  friend bool operator==(const CaptureDimensions&, const CaptureDimensions&) = default;
};

}  // namespace kestrune
