#include "viewer/RelayEnvelope.h"

#include <algorithm>
#include <array>
#include <utility>

#include "viewer/BigEndian.h"

namespace kestrune {
namespace {

using Magic = std::array<std::uint8_t, 4>;
constexpr Magic kVideoMagic{'K', 'S', 'T', 'V'};
constexpr Magic kAudioMagic{'K', 'S', 'T', 'A'};
constexpr std::uint16_t kFragmentIndex = 0;  // a frame is never divided: the first
constexpr std::uint16_t kFragmentCount = 1;  // of one

}  // namespace

std::uint32_t nextRelayFrameID(std::uint32_t frameID) {
  const std::uint32_t next = frameID + 1;
  return next == 0 ? 1 : next;
}

GatheredBytes wrapRelayFrame(RelayEnvelope envelope, GatheredBytes frameBody) {
  const Magic& magic = envelope.kind == HostedRelayMediaKind::video ? kVideoMagic : kAudioMagic;
  std::array<std::uint8_t, kRelayEnvelopeSize> head{};
  std::copy(magic.begin(), magic.end(), head.begin());
  writeBigEndian(head.data() + 4, envelope.frameID);
  writeBigEndian(head.data() + 8, kFragmentIndex);
  writeBigEndian(head.data() + 10, kFragmentCount);
  frameBody.head.insert(frameBody.head.begin(), head.begin(), head.end());
  return frameBody;
}

std::optional<RelayEnvelope> parseRelayEnvelope(ByteView message) {
  if (message.size() < kRelayEnvelopeSize) return std::nullopt;
  RelayEnvelope envelope;
  if (std::equal(kAudioMagic.begin(), kAudioMagic.end(), message.begin())) {
    envelope.kind = HostedRelayMediaKind::audio;
  } else if (!std::equal(kVideoMagic.begin(), kVideoMagic.end(), message.begin())) {
    return std::nullopt;
  }
  envelope.frameID = readBigEndian<std::uint32_t>(message.data() + 4);
  const bool isWhole = readBigEndian<std::uint16_t>(message.data() + 8) == kFragmentIndex &&
                       readBigEndian<std::uint16_t>(message.data() + 10) == kFragmentCount;
  if (envelope.frameID == 0 || !isWhole) return std::nullopt;
  return envelope;
}

}  // namespace kestrune
