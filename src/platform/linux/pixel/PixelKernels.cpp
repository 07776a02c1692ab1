#include "platform/linux/pixel/PixelKernels.h"

#include <cstddef>

namespace kestrune::linux_platform {

namespace {

constexpr int kRound = ResampleTable::kWeightSum / 2;
constexpr int kShift = 7;
static_assert(1 << kShift == ResampleTable::kWeightSum);

std::uint8_t average(std::uint8_t a, std::uint8_t b) {
  return static_cast<std::uint8_t>((a + b + 1) >> 1);
}

void luma(const std::uint8_t* bgrx, std::uint8_t* y, int count) {
  for (int i = 0; i < count; ++i, bgrx += 4) {
    const int sum = bt709::kLumaB * bgrx[0] + bt709::kLumaG * bgrx[1] + bt709::kLumaR * bgrx[2];
    y[i] = static_cast<std::uint8_t>((sum + (16 << 8) + 128) >> 8);
  }
}

void chroma(const std::uint8_t* upper, const std::uint8_t* lower, std::uint8_t* cb, std::uint8_t* cr,
            int count) {
  for (int i = 0; i < count; ++i, upper += 8, lower += 8) {
    int pixel[3];
    for (int c = 0; c < 3; ++c) {
      pixel[c] = average(average(upper[c], lower[c]), average(upper[c + 4], lower[c + 4]));
    }
    const int sumCb = bt709::kCbB * pixel[0] + bt709::kCbG * pixel[1] + bt709::kCbR * pixel[2];
    const int sumCr = bt709::kCrB * pixel[0] + bt709::kCrG * pixel[1] + bt709::kCrR * pixel[2];
    cb[i] = static_cast<std::uint8_t>((sumCb + (128 << 8) + 128) >> 8);
    cr[i] = static_cast<std::uint8_t>((sumCr + (128 << 8) + 128) >> 8);
  }
}

void blend(const std::uint8_t* const* rows, const std::uint8_t* weights, int tapCount, std::uint8_t* out,
           int count) {
  for (int i = 0; i < count; ++i) {
    int sum = kRound;
    for (int tap = 0; tap < tapCount; ++tap) sum += rows[tap][i] * weights[tap];
    out[i] = static_cast<std::uint8_t>(sum >> kShift);
  }
}

void resample(const std::uint8_t* row, const ResampleTable& table, int first, int count, std::uint8_t* out) {
  const std::uint8_t* weights = table.weights.data() + std::ptrdiff_t{first} * table.tapCount;
  for (int i = 0; i < count; ++i, weights += table.tapCount) {
    const std::uint8_t* source =
        row + table.starts[static_cast<std::size_t>(first) + static_cast<std::size_t>(i)];
    int sum = kRound;
    for (int tap = 0; tap < table.tapCount; ++tap) sum += source[tap] * weights[tap];
    out[i] = static_cast<std::uint8_t>(sum >> kShift);
  }
}

void interleave(const std::uint8_t* cb, const std::uint8_t* cr, std::uint8_t* cbcr, int count) {
  for (std::ptrdiff_t i = 0; i < count; ++i) {
    cbcr[2 * i] = cb[i];
    cbcr[2 * i + 1] = cr[i];
  }
}

}  // namespace

const PixelKernels& portableKernels() {
  static constexpr PixelKernels kKernels{luma, chroma, blend, resample, interleave};
  return kKernels;
}

const PixelKernels& bestKernels() {
  static const PixelKernels* const best = avx2Kernels() != nullptr ? avx2Kernels() : &portableKernels();
  return *best;
}

}  // namespace kestrune::linux_platform
