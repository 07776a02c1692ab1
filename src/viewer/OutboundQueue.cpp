#include "viewer/OutboundQueue.h"

#include <algorithm>
#include <utility>

namespace kestrune {
namespace {

bool isDroppable(const OutboundSend& send) {
  return send.isDroppable();
}

}  // namespace

OutboundQueue::AppendResult OutboundQueue::append(OutboundSend send, OutboundBudget budget) {
  AppendResult result;
  const auto size = send.data.size();
  if (size > budget.maxBytes) {
    result.outcome = Outcome::tooLarge;
    return result;
  }
  appendOrReplace(std::move(send));
  while (pendingSends_.size() > budget.maxSends || pendingBytes_ > budget.maxBytes) {
    const auto oldest = std::find_if(pendingSends_.begin(), pendingSends_.end(), isDroppable);
    if (oldest == pendingSends_.end()) {
      result.outcome = Outcome::overflow;
      return result;
    }
    pendingBytes_ -= oldest->data.size();
    pendingSends_.erase(oldest);
    ++result.dropped;
  }
  return result;
}

void OutboundQueue::appendOrReplace(OutboundSend send) {
  pendingBytes_ += send.data.size();
  const auto isOlder = [kind = send.kind](const OutboundSend& waiting) { return waiting.kind == kind; };
  const auto older = send.isReplaceable() ? std::find_if(pendingSends_.begin(), pendingSends_.end(), isOlder)
                                          : pendingSends_.end();
  if (older == pendingSends_.end()) {
    pendingSends_.push_back(std::move(send));
  } else {
    pendingBytes_ -= older->data.size();
    *older = std::move(send);
  }
}

std::optional<OutboundSend> OutboundQueue::takeFirst() {
  if (pendingSends_.empty()) return std::nullopt;
  std::optional<OutboundSend> first(std::move(pendingSends_.front()));
  pendingSends_.pop_front();
  pendingBytes_ -= first->data.size();
  return first;
}

std::size_t OutboundQueue::purgeDroppable() {
  const auto before = pendingSends_.size();
  std::erase_if(pendingSends_, [this](const OutboundSend& send) {
    if (send.isDroppable()) pendingBytes_ -= send.data.size();
    return send.isDroppable();
  });
  return before - pendingSends_.size();
}

void OutboundQueue::clear() {
  pendingSends_.clear();
  pendingBytes_ = 0;
}

std::size_t OutboundQueue::droppableCount() const {
  return static_cast<std::size_t>(std::count_if(pendingSends_.begin(), pendingSends_.end(), isDroppable));
}

}  // namespace kestrune
