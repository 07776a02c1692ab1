#pragma once

#include <memory>
#include <stdexcept>
#include <vector>

#include "platform/OpusCompressor.h"

namespace kestrune {

/// Makes packets of two bytes, the first sample of the 20 ms, and notes for which channels it was asked. Has
/// no encoder, or fails a packet, on command.
class FakeOpus final : public OpusCompressorFactory, public std::enable_shared_from_this<FakeOpus> {
 public:
  static std::shared_ptr<FakeOpus> make() { return std::make_shared<FakeOpus>(); }

  bool isAvailable = true;
  int packetsBeforeFailure = -1;  // -1: never fails
  std::vector<int> configuredChannels;

  std::unique_ptr<OpusCompressor> create(int channels, int bitsPerSecond) override {
    if (!isAvailable || bitsPerSecond != 160'000) return nullptr;
    configuredChannels.push_back(channels);
    return std::make_unique<Compressor>(shared_from_this());
  }

 private:
  struct Compressor final : OpusCompressor {
    explicit Compressor(std::shared_ptr<FakeOpus> owner) : fake(std::move(owner)) {}
    Bytes compress(std::span<const std::int16_t> samples) override {
      if (samples.size() != 960U * static_cast<std::size_t>(fake->configuredChannels.back())) return {};
      if (fake->packetsBeforeFailure == 0) throw std::runtime_error("no bits left");
      if (fake->packetsBeforeFailure > 0) --fake->packetsBeforeFailure;
      return {static_cast<std::uint8_t>(samples[0] & 0xFF), static_cast<std::uint8_t>(samples[0] >> 8)};
    }
    std::shared_ptr<FakeOpus> fake;
  };
};

}  // namespace kestrune
