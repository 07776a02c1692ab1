#include "platform/linux/input/InputBacklog.h"

#include <algorithm>
#include <utility>

namespace kestrune::linux_platform {

bool InputBacklog::push(QueuedInput input) {
  using Kind = QueuedInput::Kind;
  const bool isFull = waiting_.size() >= kMostWaiting;
  const bool isNeeded = input.kind == Kind::release && pressed_.contains(input.control);
  if (isFull && !evictMove() && !isNeeded) return false;
  if (input.kind == Kind::press) pressed_.insert(input.control);
  if (input.kind == Kind::release) pressed_.erase(input.control);
  waiting_.push_back(std::move(input));
  return !isFull;
}

bool InputBacklog::evictMove() {
  const auto oldest = std::find_if(waiting_.begin(), waiting_.end(), [](const QueuedInput& each) {
    return each.kind == QueuedInput::Kind::move;
  });
  if (oldest == waiting_.end()) return false;
  waiting_.erase(oldest);
  return true;
}

std::optional<QueuedInput> InputBacklog::pop() {
  if (waiting_.empty()) return std::nullopt;
  std::optional<QueuedInput> next = std::move(waiting_.front());
  waiting_.pop_front();
  return next;
}

void InputBacklog::clear() {
  waiting_.clear();
  pressed_.clear();
}

}  // namespace kestrune::linux_platform
