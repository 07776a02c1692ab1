#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <vector>

#include "platform/PixelBuffer.h"
#include "platform/linux/pixel/PixelKernels.h"

namespace kestrune::linux_platform {

/// Part of a BGRX picture: the pixels of `area`, in the whole picture's coordinates.
struct BgrxView {
  const std::uint8_t* data = nullptr;  // the pixel at area.x, area.y
  std::ptrdiff_t stride = 0;           // bytes from row to row
  PixelRect area;
};

/// Where a picture goes within another.
enum class Placement {
  letterbox,      // aspect preserved, black bars
  letterboxDown,  // the same, but never enlarged
  stretch,        // fills the destination
};

/// The place of a `sourceWidth` x `sourceHeight` picture within the destination. x and y are even; width and
/// height are even or reach the destination's edge.
PixelRect placeContent(int sourceWidth, int sourceHeight, int destinationWidth, int destinationHeight,
                       Placement placement);

/// Fills a "420v" picture with black: luma 16, chroma 128.
void fillBlack(const PixelBuffer& picture);

/// Scales a BGRX picture and converts it to "420v" (4:2:0 bi-planar, video range, matrix of ITU-R BT.709-6,
/// chroma centred between its four pixels) in one pass over the source, whole or in part. Scaling down is by
/// area averages, up by linear interpolation. A part comes out byte for byte as it would in a conversion of
/// the whole. Confined to one thread at a time; sizes from 1 to 16384.
class BgrxToNv12 {
 public:
  BgrxToNv12(int sourceWidth, int sourceHeight, int destinationWidth, int destinationHeight,
             Placement placement, const PixelKernels& kernels = bestKernels());

  /// The part of the destination that is picture; the rest is bars, which convert() does not touch.
  const PixelRect& content() const { return content_; }
  /// What changes in the destination when `source` changes, aligned so that convert() takes it: empty only if
  /// `source` has nothing within the picture.
  PixelRect destinationFor(const PixelRect& source) const;
  /// What convert() reads for `destination`, a result of destinationFor() or a union of such.
  PixelRect sourceFor(const PixelRect& destination) const;
  /// Converts one aligned part (see destinationFor). `source` must cover sourceFor(destination).
  void convert(const BgrxView& source, const PixelRect& destination, const PixelBuffer& picture);

 private:
  /// One direction of luma or chroma.
  struct Axis {
    Axis(double sourceLength, int sourceCount, double outputLength, int outputCount, bool forBlocks);
    int firstOutputFor(int source) const;  // first output that reads at or after `source`
    int outputsBefore(int source) const;   // number of outputs that start reading before `source`
    int sourceEnd(int output) const;       // one behind the last that `output` reads

    int sourceCount;
    int outputCount;
    bool isIdentity;
    ResampleTable table;
  };
  /// Converted source rows that the vertical filter still needs; a row's place is its number modulo the size.
  struct RowRing {
    RowRing(int rowLength, int tapCount);
    std::uint8_t* row(int number) { return bytes.data() + static_cast<std::size_t>(number & mask) * pitch; }
    std::size_t pitch;
    int mask;
    std::vector<std::uint8_t> bytes;
    int next = 0;  // first row that is not converted yet
  };
  struct Span {
    int first;
    int last;  // one behind
  };

  void prepareLuma(const BgrxView& source, Span columns, int rowEnd);
  void prepareChroma(const BgrxView& source, Span columns, int rowEnd);
  std::uint8_t* filterRows(RowRing& ring, const Axis& axis, int output, Span columns,
                           std::vector<std::uint8_t>& scratch);
  void writeLuma(int output, Span columns, Span outputs, std::uint8_t* out);
  void writeChroma(int output, Span columns, Span outputs, std::uint8_t* out);
  const std::uint8_t* resampleRow(const std::uint8_t* row, const Axis& axis, Span outputs, std::uint8_t* out);

  const PixelKernels& kernels_;
  const int sourceWidth_;
  const int sourceHeight_;
  const PixelRect content_;
  const Axis lumaX_;
  const Axis lumaY_;
  const Axis chromaX_;
  const Axis chromaY_;
  RowRing lumaRows_;
  RowRing cbRows_;
  RowRing crRows_;
  std::vector<std::uint8_t> blended_;
  std::vector<std::uint8_t> resampled_;
  std::vector<std::uint8_t> cb_;
  std::vector<std::uint8_t> cr_;
  std::vector<const std::uint8_t*> taps_;
};

}  // namespace kestrune::linux_platform
