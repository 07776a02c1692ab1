#include "capture/PCMConverter.h"

#include <algorithm>
#include <cmath>
#include <new>
#include <utility>

#include "capture/PCMSamples.h"
#include "platform/Bundle.h"

namespace kestrune {
namespace {

/// Status numbers of the buffer list, as the messages show them.
constexpr int kNoBuffers = 0;
constexpr int kInvalidSampleData = -12742;

/// Rates that a resampler is made for; sound servers go up to 384 kHz.
constexpr int kLowestRate = 1000;
constexpr int kHighestRate = 768'000;
/// The most that one conversion gives: 20 seconds. Pieces of a live stream are a thousandth of that.
constexpr std::size_t kMaximumFrames = 20UL * PCMConverter::kSampleRate;
/// A resampler may give a little more than one piece's share, from what it held back.
constexpr std::size_t kSpareFrames = 32;

std::size_t checkedFrames(const AudioSample& sample, const AudioFormat& format) {
  if (sample.frameCount < 0) throw PCMConversionError::audioBufferList(kNoBuffers);
  const auto frames = static_cast<std::size_t>(sample.frameCount);
  const std::size_t frameSize = bytesPerSample(format.encoding) * static_cast<std::size_t>(format.channels);
  if (frames > sample.data.size() / frameSize) throw PCMConversionError::audioBufferList(kInvalidSampleData);
  return frames;
}

/// The first two channels, or the only one.
std::vector<std::vector<float>> readChannels(const AudioSample& sample, const AudioFormat& format,
                                             std::size_t frames) {
  const std::size_t size = bytesPerSample(format.encoding);
  const auto channels = static_cast<std::size_t>(format.channels);
  std::vector<std::vector<float>> result(std::min<std::size_t>(channels, 2));
  for (std::size_t channel = 0; channel < result.size(); ++channel) {
    result[channel].resize(frames);
    const std::size_t offset = channel * size * (format.isInterleaved ? 1 : frames);
    const std::size_t step = size * (format.isInterleaved ? channels : 1);
    readSamples(sample.data.data() + offset, step, format.encoding, format.isBigEndian, result[channel]);
  }
  return result;
}

}  // namespace

PCMConversionError::PCMConversionError(Case value, std::string payload)
    : value_(value), payload_(std::move(payload)), text_(localizedDescription()) {}

PCMConversionError PCMConversionError::audioBufferList(int status) {
  return {Case::audioBufferList, std::to_string(status)};
}

PCMConversionError PCMConversionError::conversionFailed(const std::string& description) {
  return {Case::conversionFailed, description};
}

std::string PCMConversionError::localizedDescription() const {
  switch (value_) {
    case Case::audioBufferList:
      return "Unable to read captured audio samples (OSStatus " + payload_ + ").";
    case Case::conversionFailed:
      return "Audio conversion failed: " + payload_;
    case Case::missingFormat:
      return localized("The captured audio format is unavailable.");
    case Case::unsupportedFormat:
      return localized("The captured audio format is not PCM.");
    case Case::converterUnavailable:
      return localized("Unable to create the 48 kHz audio converter.");
  }
  return {};
}

PCMConverter::PCMConverter(std::shared_ptr<SampleRateConverterFactory> resamplers)
    : resamplers_(std::move(resamplers)) {}

AudioPCMChunk PCMConverter::convert(const AudioSample& sample, AudioChannelMode mode) {
  const std::lock_guard guard(lock_);
  if (!sample.format) throw PCMConversionError(PCMConversionError::Case::missingFormat);
  const AudioFormat& format = *sample.format;
  if (bytesPerSample(format.encoding) == 0 || format.channels <= 0) {
    throw PCMConversionError(PCMConversionError::Case::unsupportedFormat);
  }
  const std::size_t frames = checkedFrames(sample, format);
  const double share = std::ceil(static_cast<double>(kSampleRate) / format.sampleRate * sample.frameCount);
  if (share > static_cast<double>(kMaximumFrames)) {
    throw PCMConversionError(PCMConversionError::Case::converterUnavailable);
  }
  useConverterFor(format);
  Channels channels =
      resampled(readChannels(sample, format, frames), static_cast<std::size_t>(share) + kSpareFrames);

  AudioPCMChunk chunk;
  chunk.captureTimeMicroseconds =
      static_cast<std::uint64_t>(std::max<std::int64_t>(sample.presentationMicroseconds.value_or(0), 0));
  chunk.sampleRate = kSampleRate;
  chunk.channels = channelCount(mode);
  chunk.frameCount = static_cast<std::int64_t>(channels.front().size());
  chunk.pcm = quantize(channels.front(), channels.back(), mode);
  return chunk;
}

void PCMConverter::clearCaches() {
  const std::lock_guard guard(lock_);
  cachedInputFormat_.reset();
  cachedFloatFormat_.reset();
  cachedConverter_.reset();
}

void PCMConverter::useConverterFor(const AudioFormat& format) {
  if (cachedInputFormat_ == format && cachedFloatFormat_) return;
  if (format.sampleRate < kLowestRate || format.sampleRate > kHighestRate) {
    throw PCMConversionError(PCMConversionError::Case::converterUnavailable);
  }
  const FloatFormat floatFormat{std::min(format.channels, 2)};
  std::unique_ptr<SampleRateConverter> converter;
  if (format.sampleRate != kSampleRate) {
    try {
      converter = resamplers_->create(format.sampleRate, kSampleRate, floatFormat.channels);
    } catch (const std::exception&) {
      throw PCMConversionError(PCMConversionError::Case::converterUnavailable);
    }
  }
  cachedInputFormat_ = format;
  cachedFloatFormat_ = floatFormat;
  cachedConverter_ = std::move(converter);
}

PCMConverter::Channels PCMConverter::resampled(Channels inputs, std::size_t capacity) {
  if (!cachedConverter_) return inputs;
  Channels outputs(inputs.size(), std::vector<float>(capacity));
  std::vector<const float*> from;
  std::vector<float*> to;
  for (std::vector<float>& channel : inputs) {
    makeFilterable(channel);
    from.push_back(channel.data());
  }
  for (std::vector<float>& channel : outputs) to.push_back(channel.data());
  std::size_t given = 0;
  try {
    given = cachedConverter_->convert(from, inputs.front().size(), to, capacity);
  } catch (...) {
    throw PCMConversionError::conversionFailed(kestrune::localizedDescription(std::current_exception()));
  }
  for (std::vector<float>& channel : outputs) channel.resize(given);
  return outputs;
}

}  // namespace kestrune
