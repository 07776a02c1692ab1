#pragma once

#include <cstddef>
#include <deque>
#include <optional>

#include "platform/Bytes.h"

namespace kestrune {

/// One whole WebSocket frame on its way to the viewer.
struct OutboundSend {
  GatheredBytes data;
  bool droppable = false;  // video frames only
  bool isKeyframe = false;
  /// A message that only says how something is now: while it waits, a newer one takes its place.
  bool isLatestState = false;
};

/// What may wait for a viewer; sizes count whole WebSocket frames.
struct OutboundBudget {
  std::size_t maxSends;
  std::size_t maxBytes;
};
/// Watching: a stall of a second or two is ridden out.
inline constexpr OutboundBudget kVideoModeBudget{90, 4'194'304};
/// Steering: an old picture is worth nothing.
inline constexpr OutboundBudget kControlModeBudget{4, 1'048'576};

/// What waits for one viewer, first in, first out; what is in flight is not in it. A plain value.
class OutboundQueue {
 public:
  enum class Outcome {
    queued,    // possibly at the cost of droppable sends, possibly of this one
    tooLarge,  // it alone exceeds the byte budget; the queue is unchanged
    overflow,  // over budget with nothing left to drop: the viewer is lost
  };
  struct AppendResult {
    Outcome outcome = Outcome::queued;
    std::size_t dropped = 0;  // droppable sends that went, oldest first
  };

  /// A latest state takes the place of the one that waits, and does not count twice.
  AppendResult append(OutboundSend send, OutboundBudget budget);
  std::optional<OutboundSend> takeFirst();
  /// Removes every droppable send; gives their number. The others keep their order.
  std::size_t purgeDroppable();
  void clear();

  std::size_t droppableCount() const;
  std::size_t count() const { return pendingSends_.size(); }
  std::size_t pendingBytes() const { return pendingBytes_; }

 private:
  void place(OutboundSend send);

  std::deque<OutboundSend> pendingSends_;
  std::size_t pendingBytes_ = 0;
};

}  // namespace kestrune
