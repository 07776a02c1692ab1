#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>

#include "platform/Bytes.h"

namespace kestrune {

enum class HostedRelayMediaKind { video, audio };

/// What stands in front of a frame body on the sockets of the relay. Big-endian: "KSTV" for video or "KSTA"
/// for audio (4 bytes), the identifier of the frame (4), 0 (2), 1 (2).
struct RelayEnvelope {
  HostedRelayMediaKind kind = HostedRelayMediaKind::video;
  /// Counts the frames of both kinds together, in the order in which they are sent; never 0.
  std::uint32_t frameID = 1;
  friend bool operator==(const RelayEnvelope&, const RelayEnvelope&) = default;
};
inline constexpr std::size_t kRelayEnvelopeSize = 12;

/// After the largest number it goes on at 1.
std::uint32_t nextRelayFrameID(std::uint32_t frameID);

/// `frameBody` behind its envelope, which is put into `head`. The body stays shared.
GatheredBytes wrapRelayFrame(RelayEnvelope envelope, GatheredBytes frameBody);
/// Nothing if `message` does not begin with an envelope.
std::optional<RelayEnvelope> parseRelayEnvelope(ByteView message);

}  // namespace kestrune
