#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <vector>

#include "platform/Geometry.h"

namespace kestrune {

enum class PixelFormat {
  /// "420v": 8-bit 4:2:0 bi-planar, video range, ITU-R BT.709. Plane 0 is luma, plane 1 interleaved Cb Cr of
  /// half the width and height.
  biPlanar420VideoRange,
  /// One plane, bytes B G R X.
  bgrx,
};

/// What is known of a picture in relation to the one before it from the same producer, so that unchanged
/// parts need neither conversion nor coding. Producers stamp every picture with a sequence that goes up by
/// one; a consumer that did not see `sequence - 1` must take the whole picture as changed.
struct PictureChanges {
  std::uint64_t sequence = 0;
  /// Changed parts in this picture's pixels, within its bounds, possibly overlapping; empty for an unchanged
  /// picture.
  std::vector<PixelRect> rectangles;
};

/// One picture in memory. The memory lives as long as the buffer; a buffer that was handed on is read only.
class PixelBuffer {
 public:
  struct Plane {
    std::uint8_t* data = nullptr;
    std::ptrdiff_t stride = 0;  // bytes from row to row
  };

  PixelBuffer(int width, int height, PixelFormat format, std::array<Plane, 2> planes,
              std::shared_ptr<void> memory)
      : width_(width), height_(height), format_(format), planes_(planes), memory_(std::move(memory)) {}

  int width() const { return width_; }
  int height() const { return height_; }
  PixelFormat format() const { return format_; }
  /// Index 0, and 1 for a bi-planar format.
  const Plane& plane(std::size_t index) const { return planes_.at(index); }

  /// Set by the producer before the buffer is handed on; absent: the whole picture may have changed.
  std::optional<PictureChanges> changes;

 private:
  int width_;
  int height_;
  PixelFormat format_;
  std::array<Plane, 2> planes_;
  std::shared_ptr<void> memory_;
};

using SharedPixelBuffer = std::shared_ptr<const PixelBuffer>;

/// One captured frame on its way to the preview and the encoder.
struct VideoSample {
  bool isValid = true;
  bool isDataReady = true;
  SharedPixelBuffer image;  // may be null
  /// Microseconds on the media clock (CLOCK_MONOTONIC, shared with audio); absent: unknown.
  std::optional<std::int64_t> presentationMicroseconds;
  std::int64_t durationMicroseconds = 0;
};

}  // namespace kestrune
