#include "hosted/OpusAudioEncoder.h"

#include <exception>
#include <iterator>
#include <utility>

#include "platform/Bundle.h"

namespace kestrune {
namespace {

using Case = OpusAudioEncoderError::Case;

constexpr std::int64_t kSampleRate = 48'000;
constexpr std::int64_t kFramesPerPacket = 960;
constexpr std::uint64_t kMicrosecondsPerPacket = 20'000;
constexpr int kBitsPerSecond = 160'000;
constexpr std::int64_t kBytesPerSample = 2;
// A chunk that is further off than this belongs to another stretch of time.
constexpr std::uint64_t kLargestGapMicroseconds = 40'000;

std::string textOf(Case value, const std::string& detail) {
  switch (value) {
    case Case::conversionFailed:
      return "Opus encoding failed: " + detail;
    case Case::invalidPCM:
      return localized("Captured audio could not be prepared for Opus encoding.");
    case Case::unavailable:
      return localized("The native Opus encoder is unavailable.");
  }
  return {};
}

bool isValid(const AudioPCMChunk& chunk) {
  if (chunk.sampleRate != kSampleRate || chunk.channels < 1 || chunk.channels > 2) return false;
  const auto bytesPerFrame = chunk.channels * kBytesPerSample;
  const auto size = std::ssize(chunk.pcm);
  // Divided, for the product could overflow.
  return chunk.frameCount >= 1 && size % bytesPerFrame == 0 && chunk.frameCount == size / bytesPerFrame;
}

std::uint64_t distance(std::uint64_t a, std::uint64_t b) {
  return a > b ? a - b : b - a;
}

}  // namespace

OpusAudioEncoderError::OpusAudioEncoderError(Case value, const std::string& detail)
    : value_(value), text_(textOf(value, detail)) {}

OpusAudioEncoder::OpusAudioEncoder(std::shared_ptr<OpusCompressorFactory> compressors)
    : compressors_(std::move(compressors)) {}

std::vector<EncodedAudioPacket> OpusAudioEncoder::encode(const AudioPCMChunk& chunk) {
  if (!isValid(chunk)) throw OpusAudioEncoderError(Case::invalidPCM);
  const std::lock_guard guard(lock_);
  if (chunk.channels != channels_) configure(chunk.channels);

  if (pendingCaptureTimeMicroseconds_) {
    const auto frames = pendingPCM_.size() / static_cast<std::size_t>(channels_ * kBytesPerSample);
    const auto expected = *pendingCaptureTimeMicroseconds_ + frames * 1'000'000 / kSampleRate;
    if (distance(chunk.captureTimeMicroseconds, expected) > kLargestGapMicroseconds) {
      pendingPCM_.clear();
      pendingCaptureTimeMicroseconds_.reset();
    }
  }
  if (!pendingCaptureTimeMicroseconds_) pendingCaptureTimeMicroseconds_ = chunk.captureTimeMicroseconds;
  pendingPCM_.insert(pendingPCM_.end(), chunk.pcm.begin(), chunk.pcm.end());

  std::vector<EncodedAudioPacket> packets;
  const auto packetSize = channels_ * kFramesPerPacket * kBytesPerSample;
  while (std::ssize(pendingPCM_) >= packetSize) {
    EncodedAudioPacket packet;
    packet.captureTimeMicroseconds = *pendingCaptureTimeMicroseconds_;
    packet.sampleRate = kSampleRate;
    packet.channels = channels_;
    packet.frameCount = kFramesPerPacket;
    packet.opus = compressFirst(static_cast<std::size_t>(packetSize));
    packets.push_back(std::move(packet));
    pendingPCM_.erase(pendingPCM_.begin(), pendingPCM_.begin() + packetSize);
    *pendingCaptureTimeMicroseconds_ += kMicrosecondsPerPacket;
  }
  if (pendingPCM_.empty()) pendingCaptureTimeMicroseconds_.reset();
  return packets;
}

void OpusAudioEncoder::reset() {
  const std::lock_guard guard(lock_);
  clear();
}

void OpusAudioEncoder::clear() {
  compressor_.reset();
  channels_ = 0;
  pendingPCM_.clear();
  pendingCaptureTimeMicroseconds_.reset();
}

void OpusAudioEncoder::configure(std::int64_t channels) {
  clear();
  compressor_ = compressors_->create(static_cast<int>(channels), kBitsPerSecond);
  if (!compressor_) throw OpusAudioEncoderError(Case::unavailable);
  channels_ = channels;
}

Bytes OpusAudioEncoder::compressFirst(std::size_t byteCount) const {
  std::vector<std::int16_t> samples(byteCount / kBytesPerSample);
  for (std::size_t index = 0; index < samples.size(); ++index) {
    const auto low = pendingPCM_[index * 2];
    const auto high = pendingPCM_[index * 2 + 1];
    samples[index] = static_cast<std::int16_t>(low | high << 8);
  }
  Bytes packet;
  try {
    packet = compressor_->compress(samples);
  } catch (const std::exception&) {
    throw OpusAudioEncoderError(Case::conversionFailed, localizedDescription(std::current_exception()));
  }
  if (packet.empty()) throw OpusAudioEncoderError(Case::conversionFailed, "status 0");
  return packet;
}

}  // namespace kestrune
