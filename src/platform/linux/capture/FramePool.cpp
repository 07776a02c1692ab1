#include "platform/linux/capture/FramePool.h"

#include <algorithm>
#include <cstring>
#include <mutex>

#include "platform/linux/pixel/BgrxToNv12.h"

namespace kestrune::linux_platform {

struct FramePool::Slot {
  std::size_t index = 0;
  std::unique_ptr<PixelBuffer> picture;
  std::shared_ptr<void> memory;
  DirtyRegion stale;    // what differs from the newest picture
  bool isBlank = true;  // was never a picture: all of it is stale
};

/// Shared with the pictures that are out.
struct FramePool::Ledger {
  std::mutex lock;         // guards the two counts
  std::vector<int> inUse;  // per slot
  int totalLent = 0;
  std::function<void()> onRelease;
};

namespace {

void copyPart(const PixelBuffer& from, const PixelBuffer& to, const PixelRect& part) {
  const auto copyRows = [&](std::size_t plane, int top, int bottom, int left, int bytes) {
    for (int y = top; y < bottom; ++y) {
      std::memcpy(to.plane(plane).data + y * to.plane(plane).stride + left,
                  from.plane(plane).data + y * from.plane(plane).stride + left,
                  static_cast<std::size_t>(bytes));
    }
  };
  copyRows(0, part.y, part.y + part.height, part.x, part.width);
  copyRows(1, part.y / 2, (part.y + part.height + 1) / 2, part.x, (part.width + 1) / 2 * 2);
}

}  // namespace

FramePool::FramePool(int width, int height, int depth, std::function<void()> onRelease)
    : width_(width), height_(height), depth_(depth), ledger_(std::make_shared<Ledger>()) {
  ledger_->onRelease = std::move(onRelease);
  ledger_->inUse.resize(static_cast<std::size_t>(depth) + 1);
}

FramePool::~FramePool() = default;

bool FramePool::isAvailable() const {
  const std::lock_guard guard(ledger_->lock);
  return ledger_->totalLent < depth_;
}

const PixelBuffer* FramePool::beginPicture(const std::vector<PixelRect>& changes) {
  Slot* chosen = nullptr;
  {
    const std::lock_guard guard(ledger_->lock);
    for (const auto& slot : slots_) {
      const bool isFree = slot.get() != newest_ && ledger_->inUse[slot->index] == 0;
      if (isFree && (chosen == nullptr || slot->stale.area() < chosen->stale.area())) chosen = slot.get();
    }
  }
  if (chosen == nullptr) {
    if (slots_.size() > static_cast<std::size_t>(depth_)) return nullptr;
    PictureMemory memory = allocatePicture(width_, height_);
    if (!memory.memory) return nullptr;
    auto slot = std::make_unique<Slot>();
    slot->index = slots_.size();
    slot->memory = memory.memory;
    slot->picture = std::make_unique<PixelBuffer>(width_, height_, PixelFormat::biPlanar420VideoRange,
                                                  memory.planes, memory.memory);
    fillBlack(*slot->picture);
    chosen = slot.get();
    slots_.push_back(std::move(slot));
  }
  carryOver(*chosen, changes);
  // Should the picture never be finished, this much of it is not to be relied on.
  chosen->stale.clear();
  for (const PixelRect& change : changes) chosen->stale.add(change);
  begun_ = chosen;
  begunChanges_ = changes;
  return chosen->picture.get();
}

void FramePool::carryOver(Slot& slot, const std::vector<PixelRect>& changes) {
  if (newest_ == nullptr) return;
  if (slot.isBlank) {
    slot.stale.clear();
    slot.stale.add({0, 0, width_, height_});
  }
  for (const PixelRect& part : slot.stale.rectangles()) {
    const bool isConvertedAnyway = std::any_of(
        changes.begin(), changes.end(), [&part](const PixelRect& change) { return contains(change, part); });
    if (!isConvertedAnyway) copyPart(*newest_->picture, *slot.picture, part);
  }
  slot.isBlank = false;
}

std::shared_ptr<PixelBuffer> FramePool::finishPicture() {
  for (const auto& slot : slots_) {
    for (const PixelRect& change : begunChanges_) slot->stale.add(change);
  }
  begun_->stale.clear();
  begun_->isBlank = false;
  newest_ = begun_;
  begun_ = nullptr;
  return lend(*newest_);
}

std::shared_ptr<PixelBuffer> FramePool::repeatPicture() {
  return lend(*newest_);
}

std::shared_ptr<PixelBuffer> FramePool::lend(Slot& slot) {
  {
    const std::lock_guard guard(ledger_->lock);
    ++ledger_->inUse[slot.index];
    ++ledger_->totalLent;
  }
  std::shared_ptr<void> lease(slot.memory.get(),
                              [ledger = ledger_, memory = slot.memory, index = slot.index](void*) {
                                {
                                  const std::lock_guard guard(ledger->lock);
                                  --ledger->inUse[index];
                                  --ledger->totalLent;
                                }
                                ledger->onRelease();
                              });
  const std::array<PixelBuffer::Plane, 2> planes{slot.picture->plane(0), slot.picture->plane(1)};
  return std::make_shared<PixelBuffer>(width_, height_, PixelFormat::biPlanar420VideoRange, planes,
                                       std::move(lease));
}

}  // namespace kestrune::linux_platform
