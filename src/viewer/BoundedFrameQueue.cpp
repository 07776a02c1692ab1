#include "viewer/BoundedFrameQueue.h"

#include <utility>

namespace kestrune {

BoundedFrameQueue::AppendResult BoundedFrameQueue::append(GatheredBytes data, bool isKeyframe) {
  const auto size = data.size();
  if (size > maxBytes_) return {false, 1};
  frames_.push_back({std::move(data), isKeyframe});
  byteCount_ += size;
  AppendResult result{true, 0};
  while (frames_.size() > maxFrames_ || byteCount_ > maxBytes_) {
    removeFirst();
    ++result.droppedCount;
  }
  return result;
}

std::optional<BoundedFrameQueue::Item> BoundedFrameQueue::removeFirst() {
  if (frames_.empty()) return std::nullopt;
  std::optional<Item> first(std::move(frames_.front()));
  frames_.pop_front();
  byteCount_ -= first->data.size();
  return first;
}

void BoundedFrameQueue::removeAll() {
  frames_.clear();
  byteCount_ = 0;
}

}  // namespace kestrune
