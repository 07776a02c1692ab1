#include "viewer/MediaFrames.h"

#include <algorithm>
#include <limits>
#include <utility>

#include "viewer/BigEndian.h"

namespace kestrune {
namespace {

constexpr std::uint8_t kOpusChannelsFlag = 0x80;
// Room in front of the frame for the header of the longest WebSocket frame, which is put there later.
constexpr std::size_t kTransportHeaderRoom = 10;

template <class Number>
Number clampedTo(std::int64_t value) {
  return static_cast<Number>(
      std::clamp<std::int64_t>(value, 0, std::int64_t{std::numeric_limits<Number>::max()}));
}

}  // namespace

GatheredBytes encodeVideoFrame(SharedBytes payload, bool isKeyframe,
                               std::uint64_t presentationTimeMicroseconds) {
  GatheredBytes frame;
  frame.head.reserve(kVideoFrameHeaderSize + kTransportHeaderRoom);
  frame.head.resize(kVideoFrameHeaderSize);
  frame.head[0] = isKeyframe ? 1 : 0;
  writeBigEndian(frame.head.data() + 1, presentationTimeMicroseconds);
  frame.body = std::move(payload);
  return frame;
}

Bytes encodeAudioFrame(const EncodedAudioPacket& packet) {
  Bytes frame;
  frame.reserve(kAudioFrameHeaderSize + packet.opus.size());
  frame.resize(kAudioFrameHeaderSize);
  writeBigEndian(frame.data(), packet.captureTimeMicroseconds);
  writeBigEndian(frame.data() + 8, clampedTo<std::uint32_t>(packet.sampleRate));
  frame[12] = static_cast<std::uint8_t>(clampedTo<std::uint8_t>(packet.channels) | kOpusChannelsFlag);
  writeBigEndian(frame.data() + 13, clampedTo<std::uint32_t>(packet.frameCount));
  frame.insert(frame.end(), packet.opus.begin(), packet.opus.end());
  return frame;
}

}  // namespace kestrune
