#pragma once

#include <array>
#include <memory>
#include <utility>
#include <vector>

#include "platform/PixelTransfer.h"

namespace kestrune {

/// A picture of one grey value with memory of its own.
inline std::shared_ptr<PixelBuffer> makePixelBuffer(int width, int height,
                                                    PixelFormat format = PixelFormat::biPlanar420VideoRange,
                                                    std::uint8_t value = 128) {
  const bool isBiPlanar = format == PixelFormat::biPlanar420VideoRange;
  const auto stride = static_cast<std::ptrdiff_t>(isBiPlanar ? (width + 1) / 2 * 2 : width * 4);
  const auto lumaBytes = stride * height;
  auto memory = std::make_shared<std::vector<std::uint8_t>>(
      static_cast<std::size_t>(lumaBytes * 3 / 2 + stride), value);
  const std::array<PixelBuffer::Plane, 2> planes{
      PixelBuffer::Plane{memory->data(), stride},
      PixelBuffer::Plane{isBiPlanar ? memory->data() + lumaBytes : nullptr, isBiPlanar ? stride : 0}};
  return std::make_shared<PixelBuffer>(width, height, format, planes, memory);
}

/// Scaling that does nothing but note what it was asked for.
class FakePixelTransferFactory final : public PixelTransferFactory {
 public:
  struct Transfer {
    int sourceWidth = 0, sourceHeight = 0, destinationWidth = 0, destinationHeight = 0;
    friend bool operator==(const Transfer&, const Transfer&) = default;
  };

  std::int32_t poolStatus = 0;
  std::vector<std::pair<int, int>> pools;
  std::vector<Transfer> transfers;

  std::unique_ptr<PixelTransferSession> createSession() override { return std::make_unique<Session>(*this); }
  std::unique_ptr<PixelBufferPool> createPool(int width, int height) override {
    pools.emplace_back(width, height);
    return std::make_unique<Pool>(*this, width, height);
  }
  std::shared_ptr<PixelBuffer> createBuffer(int width, int height) override {
    return makePixelBuffer(width, height);
  }

 private:
  class Session final : public PixelTransferSession {
   public:
    explicit Session(FakePixelTransferFactory& factory) : factory_(factory) {}
    std::int32_t transfer(const PixelBuffer& source, PixelBuffer& destination) override {
      factory_.transfers.push_back(
          {source.width(), source.height(), destination.width(), destination.height()});
      return 0;
    }

   private:
    FakePixelTransferFactory& factory_;
  };

  class Pool final : public PixelBufferPool {
   public:
    Pool(FakePixelTransferFactory& factory, int width, int height)
        : factory_(factory), buffer_(makePixelBuffer(width, height)) {}
    Result createBuffer() override {
      if (factory_.poolStatus != 0) return {factory_.poolStatus, nullptr};
      return {0, buffer_};  // one buffer again and again, as a pool would
    }

   private:
    FakePixelTransferFactory& factory_;
    std::shared_ptr<PixelBuffer> buffer_;
  };
};

}  // namespace kestrune
