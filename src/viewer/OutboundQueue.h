#pragma once

#include <cstddef>
#include <deque>
#include <optional>

#include "platform/Bytes.h"

namespace kestrune {

/// What a send is to the queue.
enum class OutboundKind {
  message,  // goes out, in its order
  // Only the newest of each matters: while one waits, a newer one replaces it.
  cursorState,
  hostDiagnostics,
  pong,
  // Video may be dropped.
  deltaFrame,
  keyframe,
};

/// One whole WebSocket frame on its way to the viewer.
struct OutboundSend {
  GatheredBytes data;
  OutboundKind kind = OutboundKind::message;

  bool isDroppable() const { return kind == OutboundKind::deltaFrame || kind == OutboundKind::keyframe; }
  bool isReplaceable() const {
    return kind == OutboundKind::cursorState || kind == OutboundKind::hostDiagnostics ||
           kind == OutboundKind::pong;
  }
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

  /// A replaceable send takes the place of the waiting one of its kind, and does not count twice.
  AppendResult append(OutboundSend send, OutboundBudget budget);
  std::optional<OutboundSend> takeFirst();
  /// Removes every droppable send; gives their number. The others keep their order.
  std::size_t purgeDroppable();
  void clear();

  std::size_t droppableCount() const;
  std::size_t count() const { return pendingSends_.size(); }

 private:
  void appendOrReplace(OutboundSend send);

  std::deque<OutboundSend> pendingSends_;
  std::size_t pendingBytes_ = 0;
};

}  // namespace kestrune
