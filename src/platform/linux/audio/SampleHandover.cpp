#include "platform/linux/audio/SampleHandover.h"

#include <utility>

namespace kestrune::linux_platform {

SampleHandover::SampleHandover(std::shared_ptr<SerialQueue> queue, Output output)
    : queue_(std::move(queue)), output_(std::move(output)) {}

void SampleHandover::push(AudioSample sample) {
  {
    const std::lock_guard guard(lock_);
    if (isClosed_) return;
    waiting_.push_back(std::move(sample));
    if (waiting_.size() > kMaximumWaiting) {
      waiting_.pop_front();
      return;
    }
  }
  queue_->post([self = shared_from_this()] { self->deliverOldest(); });
}

void SampleHandover::close() {
  const std::lock_guard guard(lock_);
  isClosed_ = true;
  waiting_.clear();
}

void SampleHandover::deliverOldest() {
  AudioSample sample;
  {
    const std::lock_guard guard(lock_);
    if (waiting_.empty()) return;
    sample = std::move(waiting_.front());
    waiting_.pop_front();
  }
  output_(std::move(sample));
}

}  // namespace kestrune::linux_platform
