#include "server/OutboundLane.h"

#include <utility>

namespace kestrune {

OutboundLane::Cost OutboundLane::append(OutboundSend send, OutboundBudget budget) {
  Cost cost;
  if (!mayFollow(send.kind)) {
    cost.droppedFrames = 1;
    return cost;
  }
  if (send.kind == OutboundKind::keyframe && std::exchange(awaitsKeyframe_, false)) {
    cost.droppedFrames = waiting_.purgeDroppable();
  }
  const bool isDroppable = send.isDroppable();
  const auto result = waiting_.append(std::move(send), budget);
  if (result.outcome == OutboundQueue::Outcome::overflow ||
      (result.outcome == OutboundQueue::Outcome::tooLarge && !isDroppable)) {
    cost.isOverflow = true;
    return cost;
  }
  const auto dropped = result.outcome == OutboundQueue::Outcome::tooLarge ? 1 : result.dropped;
  cost.droppedFrames += dropped;
  cost.wantsKeyframe = dropped > 0 && breakChain();
  return cost;
}

OutboundLane::Cost OutboundLane::lose(std::uint64_t frames) {
  return {frames, frames > 0 && breakChain(), false};
}

OutboundLane::Cost OutboundLane::startOver() {
  const auto dropped = waiting_.purgeDroppable();
  return {dropped, breakChain(), false};
}

std::optional<OutboundSend> OutboundLane::takeNext() {
  if (isSending_) return std::nullopt;
  auto next = waiting_.takeFirst();
  isSending_ = next.has_value();
  return next;
}

bool OutboundLane::breakChain() {
  return !std::exchange(awaitsKeyframe_, true);
}

}  // namespace kestrune
