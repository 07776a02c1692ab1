#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>

#include "viewer/OutboundQueue.h"

namespace kestrune {

/// The outbound half of one WebSocket connection: what waits, whether a send is in flight, and whether a
/// frame that later ones refer to was lost. No delta frame is taken in behind such a loss; a keyframe
/// replaces the video that still waits, and ends that. It sends nothing itself and calls no one. A plain
/// value of its connection's queue.
///
/// It begins with a send in flight: the answer to the handshake.
class OutboundLane {
 public:
  /// What an operation has cost, for the owner of the connection to act on.
  struct Cost {
    std::uint64_t droppedFrames = 0;
    bool wantsKeyframe = false;  // the loss is new: a keyframe is to be asked for, once
    bool isOverflow = false;     // the peer takes too little and is to be closed
  };

  /// Whether a frame of this kind may follow what went before; asked before one is built.
  bool mayFollow(OutboundKind kind) const { return !awaitsKeyframe_ || kind != OutboundKind::deltaFrame; }
  Cost append(OutboundSend send, OutboundBudget budget);
  /// `frames` were lost before they came here.
  Cost lose(std::uint64_t frames);
  /// Drops the video that waits; the peer goes on at a keyframe.
  Cost startOver();

  /// The next to send, which is in flight from then on; nothing while another is.
  std::optional<OutboundSend> takeNext();
  void finishSend() { isSending_ = false; }
  bool isSending() const { return isSending_; }

  std::size_t waitingFrames() const { return waiting_.droppableCount(); }

 private:
  /// Whether it was whole before.
  bool breakChain();

  OutboundQueue waiting_;
  bool isSending_ = true;
  bool awaitsKeyframe_ = false;
};

}  // namespace kestrune
