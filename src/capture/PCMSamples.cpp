#include "capture/PCMSamples.h"

#include <algorithm>
#include <array>
#include <bit>
#include <cstring>
#include <limits>

// The loops here are written for the vectorizer: no branches, no calls, one simple step.

namespace kestrune {
namespace {

template <class Integer>
Integer load(const std::uint8_t* bytes) {
  Integer value;
  std::memcpy(&value, bytes, sizeof value);
  return value;
}

template <class Integer>
constexpr Integer swapped(Integer value) {
  if constexpr (sizeof value == 1) return value;
  if constexpr (sizeof value == 2) return __builtin_bswap16(value);
  if constexpr (sizeof value == 4) return __builtin_bswap32(value);
  if constexpr (sizeof value == 8) return __builtin_bswap64(value);
}

template <class Integer, bool isForeign>
Integer loadOrdered(const std::uint8_t* bytes) {
  const auto value = load<Integer>(bytes);
  return isForeign ? swapped(value) : value;
}

/// Converts at a step known to the compiler where that is the usual one, else at any.
template <std::size_t size, class Convert>
void eachSample(const std::uint8_t* first, std::size_t step, std::span<float> result, Convert convert) {
  const std::size_t count = result.size();
  float* out = result.data();
  if (step == size) {
    for (std::size_t i = 0; i < count; ++i) out[i] = convert(first + i * size);
  } else if (step == 2 * size) {
    for (std::size_t i = 0; i < count; ++i) out[i] = convert(first + i * 2 * size);
  } else {
    for (std::size_t i = 0; i < count; ++i) out[i] = convert(first + i * step);
  }
}

template <bool isForeign>
void readOrdered(const std::uint8_t* first, std::size_t step, AudioFormat::Encoding encoding,
                 std::span<float> result) {
  using Encoding = AudioFormat::Encoding;
  constexpr float k8Bit = 1.0F / 128;
  constexpr float k16Bit = 1.0F / 32768;
  constexpr float k32Bit = 1.0F / 2147483648.0F;
  // 24 bits are moved to the top of 32, so that the sign and the scale are those of 32 bits.
  const auto from32 = [](std::uint32_t value) {
    return static_cast<float>(static_cast<std::int32_t>(value)) * k32Bit;
  };
  switch (encoding) {
    case Encoding::signed8:
      eachSample<1>(first, step, result, [](const std::uint8_t* bytes) {
        return static_cast<float>(static_cast<std::int8_t>(*bytes)) * k8Bit;
      });
      break;
    case Encoding::unsigned8:
      eachSample<1>(first, step, result, [](const std::uint8_t* bytes) {
        return static_cast<float>(static_cast<int>(*bytes) - 128) * k8Bit;
      });
      break;
    case Encoding::signed16:
      eachSample<2>(first, step, result, [](const std::uint8_t* bytes) {
        const auto value = loadOrdered<std::uint16_t, isForeign>(bytes);
        return static_cast<float>(static_cast<std::int16_t>(value)) * k16Bit;
      });
      break;
    case Encoding::signed24: {
      constexpr bool isBig = (std::endian::native == std::endian::big) != isForeign;
      eachSample<3>(first, step, result, [from32](const std::uint8_t* bytes) {
        const std::uint32_t low = bytes[isBig ? 2 : 0];
        const std::uint32_t middle = bytes[1];
        const std::uint32_t high = bytes[isBig ? 0 : 2];
        return from32(high << 24 | middle << 16 | low << 8);
      });
      break;
    }
    case Encoding::signed24in32:
      eachSample<4>(first, step, result, [from32](const std::uint8_t* bytes) {
        return from32(loadOrdered<std::uint32_t, isForeign>(bytes) << 8);
      });
      break;
    case Encoding::signed32:
      eachSample<4>(first, step, result, [from32](const std::uint8_t* bytes) {
        return from32(loadOrdered<std::uint32_t, isForeign>(bytes));
      });
      break;
    case Encoding::float32:
      eachSample<4>(first, step, result, [](const std::uint8_t* bytes) {
        return std::bit_cast<float>(loadOrdered<std::uint32_t, isForeign>(bytes));
      });
      break;
    case Encoding::float64:
      eachSample<8>(first, step, result, [](const std::uint8_t* bytes) {
        return static_cast<float>(std::bit_cast<double>(loadOrdered<std::uint64_t, isForeign>(bytes)));
      });
      break;
    case Encoding::aLaw:
    case Encoding::muLaw:
    case Encoding::compressed:
      break;
  }
}

std::int16_t quantized(float value) {
  // A value that is not a number fails the comparison and becomes -1.
  float limited = value > -1.0F ? value : -1.0F;
  limited = limited < 1.0F ? limited : 1.0F;
  const float scaled = limited * 32767.0F;
  // Adding 0.5 before cutting off would round the float below 0.5 up; the rest after the cut is exact.
  const auto whole = static_cast<std::int32_t>(scaled);
  const float rest = scaled - static_cast<float>(whole);
  const std::int32_t rounded = whole + (rest >= 0.5F ? 1 : 0) - (rest <= -0.5F ? 1 : 0);
  return static_cast<std::int16_t>(limited <= -1.0F ? -32768 : rounded);
}

std::int16_t littleEndian(std::int16_t value) {
  if constexpr (std::endian::native == std::endian::little) return value;
  return static_cast<std::int16_t>(swapped(static_cast<std::uint16_t>(value)));
}

}  // namespace

void readSamples(const std::uint8_t* first, std::size_t step, AudioFormat::Encoding encoding,
                 bool isBigEndian, std::span<float> result) {
  if (isBigEndian == (std::endian::native == std::endian::big)) {
    readOrdered<false>(first, step, encoding, result);
  } else {
    readOrdered<true>(first, step, encoding, result);
  }
}

void makeFilterable(std::span<float> samples) {
  constexpr float kLimit = 64.0F;
  for (float& sample : samples) {
    const float limited = std::min(std::max(sample, -kLimit), kLimit);
    // x - x is NaN for NaN and for the infinities (IEEE 754 §7.2).
    sample = sample - sample == 0.0F ? limited : 0.0F;
  }
}

Bytes quantize(std::span<const float> left, std::span<const float> right, AudioChannelMode mode) {
  // By way of a piece that stays in the first-level cache: bytes have no type that the vectorizer knows.
  constexpr std::size_t kPieceFrames = 512;
  alignas(64) std::array<std::int16_t, kPieceFrames * 2> piece;
  const auto channels = static_cast<std::size_t>(channelCount(mode));
  const std::size_t frames = std::min(left.size(), right.size());
  Bytes result(frames * channels * sizeof(std::int16_t));
  for (std::size_t done = 0; done < frames; done += kPieceFrames) {
    const std::size_t count = std::min(kPieceFrames, frames - done);
    const float* l = left.data() + done;
    const float* r = right.data() + done;
    if (mode == AudioChannelMode::mono) {
      for (std::size_t i = 0; i < count; ++i) piece[i] = littleEndian(quantized((l[i] + r[i]) * 0.5F));
    } else {
      for (std::size_t i = 0; i < count; ++i) {
        piece[2 * i] = littleEndian(quantized(l[i]));
        piece[2 * i + 1] = littleEndian(quantized(r[i]));
      }
    }
    std::memcpy(result.data() + done * channels * sizeof(std::int16_t), piece.data(),
                count * channels * sizeof(std::int16_t));
  }
  return result;
}

}  // namespace kestrune
