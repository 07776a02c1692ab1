#pragma once

#include <cstddef>
#include <cstdint>

#include "model/MediaPackets.h"

namespace kestrune {

/// The bytes of a media frame, the same on every route. Numbers are big-endian.

/// flags (1 byte: 1 for a keyframe, else 0), presentation time in microseconds (8), then `payload`, shared.
inline constexpr std::size_t kVideoFrameHeaderSize = 9;
GatheredBytes encodeVideoFrame(SharedBytes payload, bool isKeyframe,
                               std::uint64_t presentationTimeMicroseconds);

/// Capture time in microseconds (8), sample rate (4), channels with the top bit set (1), frame count (4),
/// then the Opus packet. Numbers out of the range of their field are clamped to it.
inline constexpr std::size_t kAudioFrameHeaderSize = 17;
Bytes encodeAudioFrame(const EncodedAudioPacket& packet);

}  // namespace kestrune
