#include "platform/linux/pixel/PixelKernels.h"

#if defined(__x86_64__)

#include <immintrin.h>

#include <cstddef>

// Only the functions marked with this may use AVX2: the file is built like any other, so that nothing inline
// from a header is compiled for a processor that may not be there.
#define KESTRUNE_AVX2 __attribute__((target("avx2")))

namespace kestrune::linux_platform {

namespace {

KESTRUNE_AVX2 inline __m256i load(const std::uint8_t* from) {
  return _mm256_loadu_si256(reinterpret_cast<const __m256i*>(from));
}

KESTRUNE_AVX2 inline __m128i load16(const std::uint8_t* from) {
  return _mm_loadu_si128(reinterpret_cast<const __m128i*>(from));
}

/// Four bytes repeated over the register.
KESTRUNE_AVX2 inline __m256i pattern(int b, int g, int r) {
  return _mm256_set1_epi32((b & 0xff) | (g & 0xff) << 8 | (r & 0xff) << 16);
}

/// Puts the dwords that horizontal additions and packing have left as 0 2 4 6 | 1 3 5 7 in order.
KESTRUNE_AVX2 inline __m256i unzip(__m256i value) {
  return _mm256_permutevar8x32_epi32(value, _mm256_setr_epi32(0, 4, 1, 5, 2, 6, 3, 7));
}

KESTRUNE_AVX2 void luma(const std::uint8_t* bgrx, std::uint8_t* y, int count) {
  // maddubs takes one signed side. The coefficients need all 8 bits, so the pixels are moved to -128..127 and
  // what that takes away comes back with the offset.
  const __m256i coefficients = pattern(bt709::kLumaB, bt709::kLumaG, bt709::kLumaR);
  const __m256i flip = _mm256_set1_epi8(-128);
  constexpr int kOffset = (16 << 8) + 128 + 128 * (bt709::kLumaB + bt709::kLumaG + bt709::kLumaR);
  const __m256i offset = _mm256_set1_epi16(static_cast<short>(kOffset));
  const auto block = [&](std::ptrdiff_t at) KESTRUNE_AVX2 {
    __m256i sums[4];
    for (int part = 0; part < 4; ++part) {
      const __m256i pixels = _mm256_xor_si256(load(bgrx + 4 * (at + std::ptrdiff_t{8} * part)), flip);
      sums[part] = _mm256_maddubs_epi16(coefficients, pixels);
    }
    const __m256i low = _mm256_srli_epi16(_mm256_add_epi16(_mm256_hadd_epi16(sums[0], sums[1]), offset), 8);
    const __m256i high = _mm256_srli_epi16(_mm256_add_epi16(_mm256_hadd_epi16(sums[2], sums[3]), offset), 8);
    _mm256_storeu_si256(reinterpret_cast<__m256i*>(y + at), unzip(_mm256_packus_epi16(low, high)));
  };
  if (count < 32) return portableKernels().luma(bgrx, y, count);
  int i = 0;
  for (; i + 32 <= count; i += 32) block(i);
  if (i < count) block(count - 32);  // once more over what is done already
}

/// The means of the 2x2 pixels of 16 pixels of two rows: 8 pixels.
KESTRUNE_AVX2 inline __m256i halve(const std::uint8_t* upper, const std::uint8_t* lower) {
  const __m256i left = _mm256_avg_epu8(load(upper), load(lower));
  const __m256i right = _mm256_avg_epu8(load(upper + 32), load(lower + 32));
  const __m256 l = _mm256_castsi256_ps(left);
  const __m256 r = _mm256_castsi256_ps(right);
  const __m256i even = _mm256_castps_si256(_mm256_shuffle_ps(l, r, 0x88));
  const __m256i odd = _mm256_castps_si256(_mm256_shuffle_ps(l, r, 0xdd));
  return _mm256_permute4x64_epi64(_mm256_avg_epu8(even, odd), 0xd8);
}

KESTRUNE_AVX2 void chroma(const std::uint8_t* upper, const std::uint8_t* lower, std::uint8_t* cb,
                          std::uint8_t* cr, int count) {
  const __m256i forCb = pattern(bt709::kCbB, bt709::kCbG, bt709::kCbR);
  const __m256i forCr = pattern(bt709::kCrB, bt709::kCrG, bt709::kCrR);
  const __m256i offset = _mm256_set1_epi16(static_cast<short>((128 << 8) + 128));
  const auto block = [&](std::ptrdiff_t at) KESTRUNE_AVX2 {
    const __m256i first = halve(upper + 8 * at, lower + 8 * at);
    const __m256i second = halve(upper + 8 * at + 64, lower + 8 * at + 64);
    const __m256i sumCb =
        _mm256_hadd_epi16(_mm256_maddubs_epi16(first, forCb), _mm256_maddubs_epi16(second, forCb));
    const __m256i sumCr =
        _mm256_hadd_epi16(_mm256_maddubs_epi16(first, forCr), _mm256_maddubs_epi16(second, forCr));
    const __m256i both = unzip(_mm256_packus_epi16(_mm256_srli_epi16(_mm256_add_epi16(sumCb, offset), 8),
                                                   _mm256_srli_epi16(_mm256_add_epi16(sumCr, offset), 8)));
    _mm_storeu_si128(reinterpret_cast<__m128i*>(cb + at), _mm256_castsi256_si128(both));
    _mm_storeu_si128(reinterpret_cast<__m128i*>(cr + at), _mm256_extracti128_si256(both, 1));
  };
  if (count < 16) return portableKernels().chroma(upper, lower, cb, cr, count);
  int i = 0;
  for (; i + 16 <= count; i += 16) block(i);
  if (i < count) block(count - 16);
}

KESTRUNE_AVX2 void blend(const std::uint8_t* const* rows, const std::uint8_t* weights, int tapCount,
                         std::uint8_t* out, int count) {
  const __m256i round = _mm256_set1_epi16(ResampleTable::kWeightSum / 2);
  const auto block = [&](std::ptrdiff_t at) KESTRUNE_AVX2 {
    __m256i low = round;
    __m256i high = round;
    for (int tap = 0; tap < tapCount; tap += 2) {
      const __m256i a = load(rows[tap] + at);
      const __m256i b = load(rows[tap + 1] + at);
      const __m256i pair = _mm256_set1_epi16(static_cast<short>(weights[tap] | weights[tap + 1] << 8));
      low = _mm256_add_epi16(low, _mm256_maddubs_epi16(_mm256_unpacklo_epi8(a, b), pair));
      high = _mm256_add_epi16(high, _mm256_maddubs_epi16(_mm256_unpackhi_epi8(a, b), pair));
    }
    _mm256_storeu_si256(reinterpret_cast<__m256i*>(out + at),
                        _mm256_packus_epi16(_mm256_srli_epi16(low, 7), _mm256_srli_epi16(high, 7)));
  };
  if (count < 32) return portableKernels().blend(rows, weights, tapCount, out, count);
  int i = 0;
  for (; i + 32 <= count; i += 32) block(i);
  if (i < count) block(count - 32);
}

/// Two blocks, one in each half.
KESTRUNE_AVX2 inline __m256i weigh(const std::uint8_t* row, const ResampleTable& table, int left, int right) {
  const auto at = [](int block) { return static_cast<std::size_t>(block); };
  const auto bytes = [](int block) { return static_cast<std::size_t>(block) * 16; };
  const __m256i source =
      _mm256_inserti128_si256(_mm256_castsi128_si256(load16(row + table.blockStarts[at(left)])),
                              load16(row + table.blockStarts[at(right)]), 1);
  const __m256i shuffle =
      _mm256_inserti128_si256(_mm256_castsi128_si256(load16(&table.blockShuffle[bytes(left)])),
                              load16(&table.blockShuffle[bytes(right)]), 1);
  const auto* weights = reinterpret_cast<const std::uint8_t*>(table.blockWeights.data());
  const __m256i weight = _mm256_inserti128_si256(_mm256_castsi128_si256(load16(weights + bytes(left))),
                                                 load16(weights + bytes(right)), 1);
  return _mm256_maddubs_epi16(_mm256_shuffle_epi8(source, shuffle), weight);
}

KESTRUNE_AVX2 void resample(const std::uint8_t* row, const ResampleTable& table, int first, int count,
                            std::uint8_t* out) {
  if (table.blockOutputs == 0) return portableKernels().resample(row, table, first, count, out);
  const __m256i round = _mm256_set1_epi16(ResampleTable::kWeightSum / 2);
  int block = first / table.blockOutputs;
  for (int i = 0; i < count; i += ResampleTable::kGroup) {
    __m256i sums;
    if (table.blockOutputs == 4) {
      sums = _mm256_hadd_epi16(weigh(row, table, block, block + 2), weigh(row, table, block + 1, block + 3));
      block += 4;
    } else {
      const __m256i a =
          _mm256_hadd_epi16(weigh(row, table, block, block + 4), weigh(row, table, block + 1, block + 5));
      const __m256i b =
          _mm256_hadd_epi16(weigh(row, table, block + 2, block + 6), weigh(row, table, block + 3, block + 7));
      sums = _mm256_hadd_epi16(a, b);
      block += 8;
    }
    sums = _mm256_srli_epi16(_mm256_add_epi16(sums, round), 7);
    const __m256i packed = _mm256_permute4x64_epi64(_mm256_packus_epi16(sums, sums), 0x08);
    _mm_storeu_si128(reinterpret_cast<__m128i*>(out + i), _mm256_castsi256_si128(packed));
  }
}

KESTRUNE_AVX2 void interleave(const std::uint8_t* cb, const std::uint8_t* cr, std::uint8_t* cbcr, int count) {
  std::ptrdiff_t i = 0;
  for (; i + 16 <= count; i += 16) {
    const __m128i b = load16(cb + i);
    const __m128i r = load16(cr + i);
    _mm_storeu_si128(reinterpret_cast<__m128i*>(cbcr + 2 * i), _mm_unpacklo_epi8(b, r));
    _mm_storeu_si128(reinterpret_cast<__m128i*>(cbcr + 2 * i + 16), _mm_unpackhi_epi8(b, r));
  }
  portableKernels().interleave(cb + i, cr + i, cbcr + 2 * i, count - static_cast<int>(i));
}

}  // namespace

const PixelKernels* avx2Kernels() {
  static constexpr PixelKernels kKernels{luma, chroma, blend, resample, interleave};
  static const bool isSupported = __builtin_cpu_supports("avx2") != 0;
  return isSupported ? &kKernels : nullptr;
}

}  // namespace kestrune::linux_platform

#else

namespace kestrune::linux_platform {
const PixelKernels* avx2Kernels() {
  return nullptr;
}
}  // namespace kestrune::linux_platform

#endif
