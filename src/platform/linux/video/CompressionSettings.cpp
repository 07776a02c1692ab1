#include "platform/linux/video/CompressionSettings.h"

#include <algorithm>
#include <variant>

#include "platform/linux/video/VideoStatus.h"

namespace kestrune::linux_platform {
namespace {

constexpr std::int64_t kMaximumBitRate = 200'000'000;
constexpr std::int64_t kMaximumFrameRate = 240;
constexpr std::int64_t kMaximumKeyFrameInterval = 1'000'000;
constexpr std::int64_t kMaximumSeconds = 86'400;

MediaStatus store(std::int64_t& field, const CompressionProperty& property, std::int64_t maximum) {
  const auto* value = std::get_if<std::int64_t>(&property.value);
  if (value == nullptr || *value < 1 || *value > maximum) return kParameterError;
  field = *value;
  return 0;
}

/// For what cannot be chosen: only the one value that holds is accepted.
template <class Value>
MediaStatus confirm(const CompressionProperty& property, Value only) {
  const auto* value = std::get_if<Value>(&property.value);
  if (value == nullptr) return kParameterError;
  return *value == only ? 0 : kPropertyNotSupported;
}

}  // namespace

MediaStatus CompressionSettings::apply(const CompressionProperty& property) {
  using Key = CompressionPropertyKey;
  switch (property.key) {
    case Key::realTime:
      return confirm(property, true);
    case Key::allowFrameReordering:
      return confirm(property, false);
    case Key::maxFrameDelayCount: {
      // No frame is ever held back, which any allowance includes.
      const auto* value = std::get_if<std::int64_t>(&property.value);
      return value != nullptr && *value >= 0 ? 0 : kParameterError;
    }
    case Key::profileLevel:
      return confirm(property, codec == VideoCodecType::avc1 ? ProfileLevel::h264BaselineAuto
                                                             : ProfileLevel::hevcMainAuto);
    case Key::averageBitRate:
      return store(averageBitRate, property, kMaximumBitRate);
    case Key::expectedFrameRate:
      return store(expectedFrameRate, property, kMaximumFrameRate);
    case Key::maxKeyFrameInterval:
      return store(maxKeyFrameInterval, property, kMaximumKeyFrameInterval);
    case Key::maxKeyFrameIntervalDuration:
      return store(maxKeyFrameIntervalDuration, property, kMaximumSeconds);
    case Key::dataRateLimits: {
      const auto* value = std::get_if<DataRateLimit>(&property.value);
      if (value == nullptr || value->bytes < 1 || value->bytes > kMaximumBitRate || value->seconds < 1 ||
          value->seconds > kMaximumSeconds) {
        return kParameterError;
      }
      dataRateLimit = *value;
      return 0;
    }
    case Key::colorPrimaries:
    case Key::transferFunction:
    case Key::yCbCrMatrix:
      return confirm(property, ColorStandard::itu709);
  }
  return kPropertyNotSupported;
}

std::int64_t CompressionSettings::sustainedBitRate() const {
  if (!dataRateLimit) return averageBitRate;
  return std::min(averageBitRate, dataRateLimit->bytes * 8 / dataRateLimit->seconds);
}

std::int64_t CompressionSettings::burstBits() const {
  const std::int64_t rate = sustainedBitRate();
  const std::int64_t burst =
      dataRateLimit ? dataRateLimit->bytes * 8 - rate * dataRateLimit->seconds : averageBitRate / 2;
  return std::max(burst, rate / 20);
}

double CompressionSettings::quantizer() const {
  return std::clamp(26.0 - static_cast<double>(averageBitRate) / 1'000'000, 18.0, 26.0);
}

}  // namespace kestrune::linux_platform
