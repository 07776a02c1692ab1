#include "platform/linux/pixel/BgrxToNv12.h"

#include <algorithm>
#include <bit>
#include <cmath>
#include <cstring>
#include <numeric>

#include "platform/linux/pixel/PixelRects.h"

namespace kestrune::linux_platform {

namespace {

/// Destination parts begin and end at multiples of this (columns, relative to the content), so that parts and
/// whole go through the same groups of the kernels.
constexpr int kColumnAlignment = 16;

int roundDown(int value, int step) {
  return value / step * step;
}
int roundUp(int value, int step) {
  return (value + step - 1) / step * step;
}

/// What one output takes from which source samples, before it is made whole numbers.
struct Weighting {
  int start = 0;
  std::vector<double> shares;  // sum 1
};

Weighting areaAverage(double from, double to, int sourceCount) {
  Weighting result;
  result.start = std::min(static_cast<int>(from), sourceCount - 1);
  const int end = std::clamp(static_cast<int>(std::ceil(to - 1e-9)), result.start + 1, sourceCount);
  for (int i = result.start; i < end; ++i) {
    result.shares.push_back(std::max(0.0, std::min(to, i + 1.0) - std::max(from, static_cast<double>(i))));
  }
  const double sum = std::accumulate(result.shares.begin(), result.shares.end(), 0.0);
  for (double& share : result.shares)
    share = sum > 0 ? share / sum : 1.0 / static_cast<double>(end - result.start);
  return result;
}

Weighting linear(double centre, int sourceCount) {
  const double at = std::clamp(centre, 0.0, sourceCount - 1.0);
  const int start = static_cast<int>(at);
  const double fraction = at - start;
  return {start, {1 - fraction, fraction}};
}

/// Whole numbers with the sum kWeightSum, none above 127: what is cut off goes to the next tap.
void quantise(const std::vector<double>& shares, std::uint8_t* weights) {
  double exact = 0;
  int given = 0;
  for (std::size_t i = 0; i < shares.size(); ++i) {
    exact += shares[i] * ResampleTable::kWeightSum;
    const int upToHere = static_cast<int>(std::lround(exact));
    weights[i] = static_cast<std::uint8_t>(upToHere - given);
    given = upToHere;
  }
  for (std::size_t i = 0; i < shares.size(); ++i) {
    if (weights[i] < ResampleTable::kWeightSum) continue;
    weights[i] = ResampleTable::kWeightSum - 1;
    weights[i + 1] = 1;
  }
}

/// Arranges the taps for byte shuffles with `outputs` per block; false if a block's taps do not fit into 16
/// bytes.
bool arrangeBlocks(ResampleTable& table, int outputs) {
  const int tapsPerOutput = 16 / outputs;
  if (table.tapCount > tapsPerOutput) return false;
  const int total = static_cast<int>(table.starts.size());
  for (int first = 0; first < total; first += outputs) {
    const int blockStart = table.starts[static_cast<std::size_t>(first)];
    table.blockStarts.push_back(blockStart);
    for (int k = 0; k < outputs; ++k) {
      const auto output = static_cast<std::size_t>(first) + static_cast<std::size_t>(k);
      for (int tap = 0; tap < tapsPerOutput; ++tap) {
        const int weight = tap < table.tapCount
                               ? table.weights[output * static_cast<std::size_t>(table.tapCount) +
                                               static_cast<std::size_t>(tap)]
                               : 0;
        const int offset = table.starts[output] - blockStart + tap;
        if (weight != 0 && offset > 15) return false;
        table.blockShuffle.push_back(static_cast<std::uint8_t>(weight != 0 ? offset : 0x80));
        table.blockWeights.push_back(static_cast<std::int8_t>(weight));
      }
    }
  }
  table.blockOutputs = outputs;
  return true;
}

void clearBlocks(ResampleTable& table) {
  table.blockOutputs = 0;
  table.blockStarts.clear();
  table.blockShuffle.clear();
  table.blockWeights.clear();
}

}  // namespace

PixelRect placeContent(int sourceWidth, int sourceHeight, int destinationWidth, int destinationHeight,
                       Placement placement) {
  const PixelRect whole{0, 0, destinationWidth, destinationHeight};
  if (placement == Placement::stretch) return whole;
  double scale = std::min(static_cast<double>(destinationWidth) / sourceWidth,
                          static_cast<double>(destinationHeight) / sourceHeight);
  if (placement == Placement::letterboxDown) scale = std::min(scale, 1.0);
  const auto fit = [scale](int length, int room) {
    const double exact = length * scale;
    // Half a pixel short of the edge is no bar.
    if (exact >= room - 1) return room;
    return std::max(2, static_cast<int>(std::lround(exact / 2)) * 2);
  };
  PixelRect content;
  content.width = std::min(fit(sourceWidth, destinationWidth), destinationWidth);
  content.height = std::min(fit(sourceHeight, destinationHeight), destinationHeight);
  content.x = roundDown((destinationWidth - content.width) / 2, 2);
  content.y = roundDown((destinationHeight - content.height) / 2, 2);
  return content;
}

void fillBlack(const PixelBuffer& picture) {
  for (int y = 0; y < picture.height(); ++y) {
    std::memset(picture.plane(0).data + y * picture.plane(0).stride, 16,
                static_cast<std::size_t>(picture.width()));
  }
  for (int y = 0; y < (picture.height() + 1) / 2; ++y) {
    std::memset(picture.plane(1).data + y * picture.plane(1).stride, 128,
                static_cast<std::size_t>(roundUp(picture.width(), 2)));
  }
}

BgrxToNv12::Axis::Axis(double sourceLength, int sourceSamples, double outputLength, int outputs,
                       bool forBlocks)
    : sourceCount(sourceSamples), outputCount(outputs), isIdentity(sourceLength == outputLength) {
  const double step = sourceLength / outputLength;
  std::vector<Weighting> weightings;
  std::size_t tapCount = 2;
  for (int i = 0; i < outputs; ++i) {
    weightings.push_back(step > 1
                             ? areaAverage(i * step, std::min((i + 1) * step, sourceLength), sourceSamples)
                             : linear((i + 0.5) * step - 0.5, sourceSamples));
    tapCount = std::max(tapCount, weightings.back().shares.size());
  }
  tapCount = (tapCount + 1) / 2 * 2;
  const int padded = roundUp(outputs, ResampleTable::kGroup) + 2 * ResampleTable::kGroup;
  table.tapCount = static_cast<int>(tapCount);
  table.starts.resize(static_cast<std::size_t>(padded));
  table.weights.resize(static_cast<std::size_t>(padded) * tapCount);
  for (std::size_t i = 0; i < static_cast<std::size_t>(padded); ++i) {
    const Weighting& weighting = weightings[std::min(i, weightings.size() - 1)];
    table.starts[i] = weighting.start;
    quantise(weighting.shares, &table.weights[i * tapCount]);
  }
  if (!forBlocks || isIdentity) return;
  for (const int perBlock : {4, 2}) {
    if (arrangeBlocks(table, perBlock)) return;
    clearBlocks(table);
  }
}

int BgrxToNv12::Axis::sourceEnd(int output) const {
  return std::min(table.starts[static_cast<std::size_t>(output)] + table.tapCount, sourceCount);
}

int BgrxToNv12::Axis::firstOutputFor(int source) const {
  const auto begin = table.starts.begin();
  return static_cast<int>(std::upper_bound(begin, begin + outputCount, source - table.tapCount) - begin);
}

int BgrxToNv12::Axis::outputsBefore(int source) const {
  const auto begin = table.starts.begin();
  return static_cast<int>(std::lower_bound(begin, begin + outputCount, source) - begin);
}

BgrxToNv12::RowRing::RowRing(int rowLength, int tapCount)
    : pitch(static_cast<std::size_t>(roundUp(rowLength + PixelKernels::kReadAhead, 64))),
      mask(static_cast<int>(std::bit_ceil(static_cast<unsigned>(tapCount))) - 1),
      bytes(pitch * static_cast<std::size_t>(mask + 1)) {}

BgrxToNv12::BgrxToNv12(int sourceWidth, int sourceHeight, int destinationWidth, int destinationHeight,
                       Placement placement, const PixelKernels& kernels)
    : kernels_(kernels),
      sourceWidth_(sourceWidth),
      sourceHeight_(sourceHeight),
      content_(placeContent(sourceWidth, sourceHeight, destinationWidth, destinationHeight, placement)),
      lumaX_(sourceWidth, sourceWidth, content_.width, content_.width, true),
      lumaY_(sourceHeight, sourceHeight, content_.height, content_.height, false),
      chromaX_(sourceWidth / 2.0, (sourceWidth + 1) / 2, content_.width / 2.0, (content_.width + 1) / 2,
               true),
      chromaY_(sourceHeight / 2.0, (sourceHeight + 1) / 2, content_.height / 2.0, (content_.height + 1) / 2,
               false),
      lumaRows_(sourceWidth, lumaY_.table.tapCount),
      cbRows_((sourceWidth + 1) / 2, chromaY_.table.tapCount),
      crRows_((sourceWidth + 1) / 2, chromaY_.table.tapCount),
      blended_(lumaRows_.pitch),
      resampled_(lumaX_.table.starts.size()),
      cb_(chromaX_.table.starts.size()),
      cr_(chromaX_.table.starts.size()),
      taps_(static_cast<std::size_t>(std::max(lumaY_.table.tapCount, chromaY_.table.tapCount))) {}

PixelRect BgrxToNv12::destinationFor(const PixelRect& source) const {
  const PixelRect part = intersection(source, {0, 0, sourceWidth_, sourceHeight_});
  if (part.width == 0) return {};
  const auto cover = [](const Axis& luma, const Axis& chroma, int from, int to, int alignment) {
    const int first = std::min(luma.firstOutputFor(from), 2 * chroma.firstOutputFor(from / 2));
    const int last = std::max(luma.outputsBefore(to), 2 * chroma.outputsBefore((to + 1) / 2));
    const int aligned = roundDown(first, alignment);
    return Span{aligned, std::min(roundUp(std::max(last, aligned + 1), alignment), luma.outputCount)};
  };
  const Span x = cover(lumaX_, chromaX_, part.x, part.x + part.width, kColumnAlignment);
  const Span y = cover(lumaY_, chromaY_, part.y, part.y + part.height, 2);
  return {content_.x + x.first, content_.y + y.first, x.last - x.first, y.last - y.first};
}

PixelRect BgrxToNv12::sourceFor(const PixelRect& destination) const {
  const auto cover = [](const Axis& luma, const Axis& chroma, int from, int to, int sourceLength) {
    const auto start = [](const Axis& axis, int output) {
      return axis.table.starts[static_cast<std::size_t>(output)];
    };
    const int first = std::min(start(luma, from), 2 * start(chroma, from / 2));
    const int last = std::max(luma.sourceEnd(to - 1), 2 * chroma.sourceEnd((to + 1) / 2 - 1));
    return Span{first, std::min(last, sourceLength)};
  };
  const int left = destination.x - content_.x;
  const int top = destination.y - content_.y;
  const Span x = cover(lumaX_, chromaX_, left, left + destination.width, sourceWidth_);
  const Span y = cover(lumaY_, chromaY_, top, top + destination.height, sourceHeight_);
  return {x.first, y.first, x.last - x.first, y.last - y.first};
}

void BgrxToNv12::prepareLuma(const BgrxView& source, Span columns, int rowEnd) {
  for (; lumaRows_.next < rowEnd; ++lumaRows_.next) {
    const std::uint8_t* from = source.data + (lumaRows_.next - source.area.y) * source.stride +
                               std::ptrdiff_t{4} * (columns.first - source.area.x);
    kernels_.luma(from, lumaRows_.row(lumaRows_.next) + columns.first, columns.last - columns.first);
  }
}

void BgrxToNv12::prepareChroma(const BgrxView& source, Span columns, int rowEnd) {
  for (; cbRows_.next < rowEnd; ++cbRows_.next) {
    const int upperRow = 2 * cbRows_.next;
    const int lowerRow = std::min(upperRow + 1, sourceHeight_ - 1);
    const std::ptrdiff_t offset = std::ptrdiff_t{4} * (2 * columns.first - source.area.x);
    const std::uint8_t* upper = source.data + (upperRow - source.area.y) * source.stride + offset;
    const std::uint8_t* lower = source.data + (lowerRow - source.area.y) * source.stride + offset;
    std::uint8_t* cb = cbRows_.row(cbRows_.next) + columns.first;
    std::uint8_t* cr = crRows_.row(cbRows_.next) + columns.first;
    const int whole = std::min(columns.last, sourceWidth_ / 2) - columns.first;
    kernels_.chroma(upper, lower, cb, cr, whole);
    if (columns.first + whole == columns.last) continue;
    // The last column of an odd width has no partner but itself.
    std::array<std::uint8_t, 8> pairs[2];
    for (int i = 0; i < 8; ++i) {
      pairs[0][static_cast<std::size_t>(i)] = upper[8 * whole + i % 4];
      pairs[1][static_cast<std::size_t>(i)] = lower[8 * whole + i % 4];
    }
    portableKernels().chroma(pairs[0].data(), pairs[1].data(), cb + whole, cr + whole, 1);
  }
}

std::uint8_t* BgrxToNv12::filterRows(RowRing& ring, const Axis& axis, int output, Span columns,
                                     std::vector<std::uint8_t>& scratch) {
  if (axis.isIdentity) return ring.row(output);
  int tapCount = axis.table.tapCount;
  const int start = axis.table.starts[static_cast<std::size_t>(output)];
  const std::uint8_t* weights =
      &axis.table.weights[static_cast<std::size_t>(output) * static_cast<std::size_t>(tapCount)];
  // Most outputs need fewer rows than the widest.
  while (tapCount > 2 && weights[tapCount - 1] == 0 && weights[tapCount - 2] == 0) tapCount -= 2;
  for (int tap = 0; tap < tapCount; ++tap) {
    taps_[static_cast<std::size_t>(tap)] =
        ring.row(std::min(start + tap, axis.sourceCount - 1)) + columns.first;
  }
  kernels_.blend(taps_.data(), weights, tapCount, scratch.data() + columns.first,
                 columns.last - columns.first);
  return scratch.data();
}

const std::uint8_t* BgrxToNv12::resampleRow(const std::uint8_t* row, const Axis& axis, Span outputs,
                                            std::uint8_t* out) {
  if (axis.isIdentity) return row + outputs.first;
  kernels_.resample(row, axis.table, outputs.first, outputs.last - outputs.first, out);
  return out;
}

void BgrxToNv12::convert(const BgrxView& source, const PixelRect& destination, const PixelBuffer& picture) {
  const Span x{destination.x - content_.x, destination.x - content_.x + destination.width};
  const Span y{destination.y - content_.y, destination.y - content_.y + destination.height};
  const Span chromaX{x.first / 2, (x.last + 1) / 2};
  const Span chromaY{y.first / 2, (y.last + 1) / 2};
  const auto reads = [](const Axis& axis, Span outputs) {
    return Span{axis.table.starts[static_cast<std::size_t>(outputs.first)], axis.sourceEnd(outputs.last - 1)};
  };
  const Span lumaColumns = reads(lumaX_, x);
  const Span chromaColumns = reads(chromaX_, chromaX);
  lumaRows_.next = lumaY_.table.starts[static_cast<std::size_t>(y.first)];
  cbRows_.next = chromaY_.table.starts[static_cast<std::size_t>(chromaY.first)];

  const auto& [lumaData, lumaStride] = picture.plane(0);
  const auto& [chromaData, chromaStride] = picture.plane(1);
  for (int line = chromaY.first; line < chromaY.last; ++line) {
    for (int output = 2 * line; output < std::min(2 * line + 2, y.last); ++output) {
      prepareLuma(source, lumaColumns, lumaY_.isIdentity ? output + 1 : lumaY_.sourceEnd(output));
      writeLuma(output, lumaColumns, x, lumaData + (content_.y + output) * lumaStride + content_.x + x.first);
    }
    prepareChroma(source, chromaColumns, chromaY_.isIdentity ? line + 1 : chromaY_.sourceEnd(line));
    writeChroma(
        line, chromaColumns, chromaX,
        chromaData + (content_.y / 2 + line) * chromaStride + content_.x + std::ptrdiff_t{2} * chromaX.first);
  }
}

void BgrxToNv12::writeLuma(int output, Span columns, Span outputs, std::uint8_t* out) {
  std::uint8_t* row = filterRows(lumaRows_, lumaY_, output, columns, blended_);
  if (columns.last == lumaX_.sourceCount) {
    // Enlarging may take a trace of what would stand behind the last column.
    row[columns.last] = row[columns.last - 1];
  }
  const int count = outputs.last - outputs.first;
  const bool isDirect = count % ResampleTable::kGroup == 0 && !lumaX_.isIdentity;
  const std::uint8_t* done = resampleRow(row, lumaX_, outputs, isDirect ? out : resampled_.data());
  if (!isDirect) std::memcpy(out, done, static_cast<std::size_t>(count));
}

void BgrxToNv12::writeChroma(int output, Span columns, Span outputs, std::uint8_t* out) {
  const auto filter = [&](RowRing& ring, std::vector<std::uint8_t>& result) {
    std::uint8_t* row = filterRows(ring, chromaY_, output, columns, blended_);
    if (columns.last == chromaX_.sourceCount) {
      row[columns.last] = row[columns.last - 1];
    }
    return resampleRow(row, chromaX_, outputs, result.data());
  };
  const std::uint8_t* cb = filter(cbRows_, cb_);
  const std::uint8_t* cr = filter(crRows_, cr_);
  kernels_.interleave(cb, cr, out, outputs.last - outputs.first);
}

}  // namespace kestrune::linux_platform
