#pragma once

#include <cstdint>

#include "platform/Bytes.h"

namespace kestrune {

/// One access unit in Annex B form. The bytes are shared by all routes and never changed.
struct EncodedVideoPacket {
  SharedBytes payload;
  bool isKeyframe = false;
  std::uint64_t presentationTimeMicroseconds = 0;
};

/// Interleaved signed 16-bit little-endian samples.
struct AudioPCMChunk {
  std::uint64_t captureTimeMicroseconds = 0;  // of the first frame
  std::int64_t sampleRate = 0;
  std::int64_t channels = 0;
  std::int64_t frameCount = 0;
  Bytes pcm;
};

/// One Opus packet.
struct EncodedAudioPacket {
  std::uint64_t captureTimeMicroseconds = 0;  // of the first frame
  std::int64_t sampleRate = 0;
  std::int64_t channels = 0;
  std::int64_t frameCount = 0;  // that the packet decodes to
  Bytes opus;
};

}  // namespace kestrune
