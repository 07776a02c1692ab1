#pragma once

#include <cstdint>
#include <memory>
#include <span>

#include "platform/Bytes.h"

namespace kestrune {

/// Compresses one continuous signal to Opus (RFC 6716), a packet a call. One caller at a time.
class OpusCompressor {
 public:
  virtual ~OpusCompressor() = default;
  /// `samples`: interleaved, 20 ms. Gives one raw packet, never empty. Throws an Error.
  virtual Bytes compress(std::span<const std::int16_t> samples) = 0;
};

/// Any thread may call.
class OpusCompressorFactory {
 public:
  virtual ~OpusCompressorFactory() = default;
  /// For general audio at 48 kHz with 1 or 2 channels; a variable bit rate held to `bitsPerSecond` on
  /// average. Null if there is no encoder for it.
  virtual std::unique_ptr<OpusCompressor> create(int channels, int bitsPerSecond) = 0;
};

}  // namespace kestrune
