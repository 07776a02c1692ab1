#pragma once

#include <cstdint>
#include <vector>

namespace kestrune::linux_platform {

/// How one row is resampled: output i is the sum of taps[i * count .. ] times the source from starts[i] on,
/// divided by kWeightSum and rounded. Weights are whole numbers and sum to kWeightSum exactly, so that a flat
/// area stays flat.
struct ResampleTable {
  static constexpr int kWeightSum = 128;
  /// Outputs are computed in groups of this many; the tables go on for two more groups than there are
  /// outputs.
  static constexpr int kGroup = 16;

  int tapCount = 0;
  std::vector<std::int32_t> starts;   // ascending
  std::vector<std::uint8_t> weights;  // tapCount per output, each at most 127

  /// For byte shuffles: a block is 16 source bytes from blockStarts[] on, out of which blockOutputs outputs
  /// of 16 / blockOutputs taps each are picked. 0 where the taps lie too far apart for that.
  int blockOutputs = 0;
  std::vector<std::int32_t> blockStarts;
  std::vector<std::uint8_t> blockShuffle;  // 16 per block
  std::vector<std::int8_t> blockWeights;   // 16 per block
};

/// The inner loops of the conversion from BGRX to bi-planar 4:2:0, video range, with the matrix of ITU-R
/// BT.709-6 in 8-bit fixed point. Every implementation gives the same bytes. Rows that are resampled must be
/// readable for kReadAhead bytes behind their last pixel.
struct PixelKernels {
  static constexpr int kReadAhead = 32;

  /// `count` pixels to luma.
  void (*luma)(const std::uint8_t* bgrx, std::uint8_t* y, int count);
  /// 2x2 pixels each of two rows, `count` times, to one Cb and one Cr.
  void (*chroma)(const std::uint8_t* upper, const std::uint8_t* lower, std::uint8_t* cb, std::uint8_t* cr,
                 int count);
  /// The weighted sum of `tapCount` (even) rows.
  void (*blend)(const std::uint8_t* const* rows, const std::uint8_t* weights, int tapCount, std::uint8_t* out,
                int count);
  /// Outputs from `first` (a multiple of 4) on; `count` is rounded up to whole groups, and so is what is
  /// written.
  void (*resample)(const std::uint8_t* row, const ResampleTable& table, int first, int count,
                   std::uint8_t* out);
  void (*interleave)(const std::uint8_t* cb, const std::uint8_t* cr, std::uint8_t* cbcr, int count);
};

const PixelKernels& portableKernels();
/// Null where the processor does not have AVX2.
const PixelKernels* avx2Kernels();
/// The fastest that this processor can run.
const PixelKernels& bestKernels();

/// Fixed-point coefficients in 1/256 for B, G, R. Luma: white is 235, greys are off by less than 0.15; the
/// sums of the chroma rows are zero, so that greys have no colour.
namespace bt709 {
inline constexpr int kLumaB = 16, kLumaG = 157, kLumaR = 47;
inline constexpr int kCbB = 112, kCbG = -86, kCbR = -26;
inline constexpr int kCrB = -10, kCrG = -102, kCrR = 112;
}  // namespace bt709

}  // namespace kestrune::linux_platform
