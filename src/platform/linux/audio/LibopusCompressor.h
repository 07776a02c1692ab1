#pragma once

#include "platform/OpusCompressor.h"

namespace kestrune::linux_platform {

/// Encoders of libopus: constrained variable bit rate, application "audio". The decoder's output lies 6.5 ms
/// (312 frames) behind the input.
class LibopusCompressorFactory final : public OpusCompressorFactory {
 public:
  std::unique_ptr<OpusCompressor> create(int channels, int bitsPerSecond) override;
};

}  // namespace kestrune::linux_platform
