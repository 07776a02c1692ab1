#include "platform/linux/pixel/LibyuvPixelTransfer.h"

#include <libyuv/scale.h>
#include <libyuv/scale_uv.h>

#include <array>
#include <mutex>
#include <optional>
#include <vector>

#include "platform/linux/pixel/BgrxToNv12.h"
#include "platform/linux/pixel/PictureMemory.h"

namespace kestrune::linux_platform {

namespace {

using Factory = LibyuvPixelTransferFactory;

bool isAllowedSize(int width, int height) {
  return width >= 1 && height >= 1 && width <= Factory::kMaximumSide && height <= Factory::kMaximumSide;
}

class TransferSession final : public PixelTransferSession {
 public:
  std::int32_t transfer(const PixelBuffer& source, PixelBuffer& destination) override {
    if (destination.format() != PixelFormat::biPlanar420VideoRange ||
        !isAllowedSize(source.width(), source.height()) ||
        !isAllowedSize(destination.width(), destination.height())) {
      return Factory::kPixelFormatNotSupported;
    }
    const PixelRect content = placeContent(source.width(), source.height(), destination.width(),
                                           destination.height(), Placement::letterbox);
    if (content.width != destination.width() || content.height != destination.height())
      fillBlack(destination);
    return source.format() == PixelFormat::bgrx ? convert(source, destination)
                                                : scale(source, destination, content);
  }

 private:
  std::int32_t convert(const PixelBuffer& source, PixelBuffer& destination) {
    const std::array<int, 4> sizes{source.width(), source.height(), destination.width(),
                                   destination.height()};
    if (!converter_ || sizes != converterSizes_) {
      converter_.emplace(sizes[0], sizes[1], sizes[2], sizes[3], Placement::letterbox);
      converterSizes_ = sizes;
    }
    const BgrxView view{
        source.plane(0).data, source.plane(0).stride, {0, 0, source.width(), source.height()}};
    converter_->convert(view, converter_->content(), destination);
    return Factory::kSuccess;
  }

  static std::int32_t scale(const PixelBuffer& source, PixelBuffer& destination, const PixelRect& content) {
    const auto stride = [](const PixelBuffer::Plane& plane) { return static_cast<int>(plane.stride); };
    const auto& luma = destination.plane(0);
    const auto& chroma = destination.plane(1);
    libyuv::ScalePlane(source.plane(0).data, stride(source.plane(0)), source.width(), source.height(),
                       luma.data + content.y * luma.stride + content.x, stride(luma), content.width,
                       content.height, libyuv::kFilterBox);
    const int failure = libyuv::UVScale(
        source.plane(1).data, stride(source.plane(1)), (source.width() + 1) / 2, (source.height() + 1) / 2,
        chroma.data + content.y / 2 * chroma.stride + content.x, stride(chroma), (content.width + 1) / 2,
        (content.height + 1) / 2, libyuv::kFilterBox);
    return failure == 0 ? Factory::kSuccess : Factory::kPixelFormatNotSupported;
  }

  std::optional<BgrxToNv12> converter_;  // for the sizes seen last
  std::array<int, 4> converterSizes_{};
};

class Pool final : public PixelBufferPool {
 public:
  Pool(int width, int height) : width_(width), height_(height), free_(std::make_shared<FreeList>()) {}

  Result createBuffer() override {
    PictureMemory memory;
    {
      const std::lock_guard guard(free_->lock);
      if (free_->inUse >= Factory::kPoolLimit) return {Factory::kWouldExceedThreshold, nullptr};
      if (!free_->pictures.empty()) {
        memory = std::move(free_->pictures.back());
        free_->pictures.pop_back();
      }
      ++free_->inUse;
    }
    if (!memory.memory) memory = allocatePicture(width_, height_);
    if (!memory.memory) {
      const std::lock_guard guard(free_->lock);
      --free_->inUse;
      return {Factory::kAllocationFailed, nullptr};
    }
    const auto planes = memory.planes;
    // Comes back to the list, which lives as long as any of its pictures, with the buffer's last user.
    std::shared_ptr<void> lease(memory.memory.get(), [free = free_, memory](void*) mutable {
      const std::lock_guard guard(free->lock);
      --free->inUse;
      free->pictures.push_back(std::move(memory));
    });
    return {Factory::kSuccess,
            std::make_shared<PixelBuffer>(width_, height_, PixelFormat::biPlanar420VideoRange, planes,
                                          std::move(lease))};
  }

 private:
  struct FreeList {
    std::mutex lock;  // guards the rest
    std::vector<PictureMemory> pictures;
    int inUse = 0;
  };

  const int width_;
  const int height_;
  const std::shared_ptr<FreeList> free_;
};

}  // namespace

std::unique_ptr<PixelTransferSession> LibyuvPixelTransferFactory::createSession() {
  return std::make_unique<TransferSession>();
}

std::unique_ptr<PixelBufferPool> LibyuvPixelTransferFactory::createPool(int width, int height) {
  if (!isAllowedSize(width, height)) return nullptr;
  return std::make_unique<Pool>(width, height);
}

std::shared_ptr<PixelBuffer> LibyuvPixelTransferFactory::createBuffer(int width, int height) {
  if (!isAllowedSize(width, height)) return nullptr;
  PictureMemory memory = allocatePicture(width, height);
  if (!memory.memory) return nullptr;
  auto buffer = std::make_shared<PixelBuffer>(width, height, PixelFormat::biPlanar420VideoRange,
                                              memory.planes, memory.memory);
  fillBlack(*buffer);
  return buffer;
}

}  // namespace kestrune::linux_platform
