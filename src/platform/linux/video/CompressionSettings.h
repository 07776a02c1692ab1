#pragma once

#include <cstdint>
#include <optional>

#include "platform/CompressionSession.h"

namespace kestrune::linux_platform {

/// What a software session was told by its properties, with what it does when it was told nothing.
///
/// Some properties are true of every software session and can only be confirmed: it works in real time, never
/// reorders, delays no frame, and signals ITU-R BT.709. Asking for what it cannot do gives
/// kPropertyNotSupported and changes nothing.
struct CompressionSettings {
  VideoCodecType codec = VideoCodecType::avc1;
  std::int32_t width = 0;   // pixels, even
  std::int32_t height = 0;  // pixels, even

  std::int64_t averageBitRate = 4'000'000;       // bits per second
  std::int64_t expectedFrameRate = 60;           // frames per second
  std::int64_t maxKeyFrameInterval = 120;        // frames
  std::int64_t maxKeyFrameIntervalDuration = 2;  // seconds
  std::optional<DataRateLimit> dataRateLimit;    // absent: one and a half times the average

  MediaStatus apply(const CompressionProperty& property);

  /// Bits that may go out at once after a pause, on top of the average rate, so that no span of the limit's
  /// length carries more than the limit: what is left of it beside the average. At least 50 ms of the
  /// average.
  std::int64_t burstBits() const;
  /// The rate at which bits come back, in bits per second: the average, or the limit where that is lower.
  std::int64_t sustainedBitRate() const;
  /// The quantizer (0 to 51) below which more bits show nothing more on screen content: finer for a higher
  /// rate.
  double quantizer() const;
};

}  // namespace kestrune::linux_platform
