#pragma once

#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "capture/AudioSampleConverter.h"
#include "platform/SampleRateConverter.h"
#include "runtime/Error.h"

namespace kestrune {

/// Why one piece of sound could not be converted.
class PCMConversionError final : public Error {
 public:
  enum class Case {
    audioBufferList,
    conversionFailed,
    missingFormat,
    unsupportedFormat,
    converterUnavailable
  };

  /// For the cases without a payload.
  explicit PCMConversionError(Case value) : PCMConversionError(value, {}) {}
  static PCMConversionError audioBufferList(int status);
  static PCMConversionError conversionFailed(const std::string& description);

  Case value() const { return value_; }
  std::string localizedDescription() const override;
  const char* what() const noexcept override { return text_.c_str(); }

 private:
  PCMConversionError(Case value, std::string payload);

  Case value_;
  std::string payload_;
  std::string text_;
};

/// Turns linear PCM of any format into signed 16-bit little-endian samples at 48000 Hz, in the channel
/// count that is asked for. Only the first two channels are heard. The resampler lives from sample to sample
/// as long as the format stays; a failure leaves it as it was. Any thread may call.
class PCMConverter final : public AudioSampleConverter {
 public:
  static constexpr int kSampleRate = 48000;

  explicit PCMConverter(std::shared_ptr<SampleRateConverterFactory> resamplers);

  /// Throws a PCMConversionError.
  AudioPCMChunk convert(const AudioSample& sample, AudioChannelMode mode) override;
  void clearCaches() override;

 private:
  /// What a resampler was made for, beside its input: 32-bit float, one array for each channel, 48000 Hz.
  struct FloatFormat {
    int channels = 0;
  };
  using Channels = std::vector<std::vector<float>>;

  void useConverterFor(const AudioFormat& format);
  Channels resampled(Channels inputs, std::size_t capacity);

  const std::shared_ptr<SampleRateConverterFactory> resamplers_;
  std::mutex lock_;  // guards everything below
  std::optional<AudioFormat> cachedInputFormat_;
  std::optional<FloatFormat> cachedFloatFormat_;
  /// Null where the input has the output's rate already.
  std::unique_ptr<SampleRateConverter> cachedConverter_;
};

}  // namespace kestrune
