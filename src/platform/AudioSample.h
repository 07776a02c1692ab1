#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <vector>

namespace kestrune {

/// How samples stand in memory. Compared by value.
struct AudioFormat {
  enum class Encoding {
    // Linear PCM. Integers are signed unless named otherwise; full scale is the range of the type.
    signed8,
    unsigned8,
    signed16,
    signed24,      // three bytes
    signed24in32,  // the low three of four bytes; the fourth has no meaning
    signed32,
    float32,  // full scale is -1 to 1
    float64,
    // Anything else.
    aLaw,
    muLaw,
    compressed,
  };
  Encoding encoding = Encoding::float32;
  bool isBigEndian = false;
  /// Else each channel's samples stand together, one channel behind the other.
  bool isInterleaved = true;
  int sampleRate = 48000;
  int channels = 2;

  friend bool operator==(const AudioFormat&, const AudioFormat&) = default;
};

/// The bytes of one sample of one channel; 0 for what is not linear PCM.
constexpr std::size_t bytesPerSample(AudioFormat::Encoding encoding) {
  using Encoding = AudioFormat::Encoding;
  switch (encoding) {
    case Encoding::signed8:
    case Encoding::unsigned8:
      return 1;
    case Encoding::signed16:
      return 2;
    case Encoding::signed24:
      return 3;
    case Encoding::signed24in32:
    case Encoding::signed32:
    case Encoding::float32:
      return 4;
    case Encoding::float64:
      return 8;
    case Encoding::aLaw:
    case Encoding::muLaw:
    case Encoding::compressed:
      break;
  }
  return 0;
}

/// One piece of captured sound as the system delivered it.
struct AudioSample {
  std::optional<AudioFormat> format;  // absent: the system did not tell
  int frameCount = 0;
  /// Microseconds on the media clock (CLOCK_MONOTONIC, shared with video) of the first frame; absent:
  /// unknown.
  std::optional<std::int64_t> presentationMicroseconds;
  std::vector<std::uint8_t> data;
};

}  // namespace kestrune
