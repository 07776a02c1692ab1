#include "capture/CapturePreviewHub.h"

#include <utility>
#include <vector>

namespace kestrune {

void CapturePreviewHub::replaceLatest(std::optional<VideoSample> frame) {
  {
    const std::lock_guard guard(lock_);
    latestSampleBuffer_.swap(frame);  // the old frame is let go after the lock
    if (std::exchange(deliveryScheduled_, true)) return;
  }
  if (mainQueue_->isCurrent()) {
    deliver();
    return;
  }
  mainQueue_->post([weak = weak_from_this()] {
    if (const auto self = weak.lock()) self->deliver();
  });
}

void CapturePreviewHub::deliver() {
  std::optional<VideoSample> frame;
  std::vector<std::shared_ptr<const Observer>> observers;
  {
    const std::lock_guard guard(lock_);
    frame = latestSampleBuffer_;
    for (const auto& [identifier, observer] : observers_) observers.push_back(observer);
    deliveryScheduled_ = false;
  }
  for (const auto& observer : observers) (*observer)(frame);
}

void CapturePreviewHub::addObserver(const ObserverID& identifier, Observer observer) {
  auto added = std::make_shared<const Observer>(std::move(observer));
  {
    const std::lock_guard guard(lock_);
    observers_[identifier].swap(added);  // one that it replaces is let go after the lock
    if (!latestSampleBuffer_) return;
  }
  if (mainQueue_->isCurrent()) {
    deliverTo(identifier);
    return;
  }
  mainQueue_->post([weak = weak_from_this(), identifier] {
    if (const auto self = weak.lock()) self->deliverTo(identifier);
  });
}

void CapturePreviewHub::deliverTo(const ObserverID& identifier) {
  std::optional<VideoSample> frame;
  std::shared_ptr<const Observer> observer;
  {
    const std::lock_guard guard(lock_);
    const auto found = observers_.find(identifier);
    if (found == observers_.end()) return;  // removed before its turn
    observer = found->second;
    frame = latestSampleBuffer_;
  }
  (*observer)(frame);
}

void CapturePreviewHub::removeObserver(const ObserverID& identifier) {
  std::shared_ptr<const Observer> removed;
  const std::lock_guard guard(lock_);
  if (const auto found = observers_.find(identifier); found != observers_.end()) {
    removed = std::move(found->second);
    observers_.erase(found);
  }
}

}  // namespace kestrune
