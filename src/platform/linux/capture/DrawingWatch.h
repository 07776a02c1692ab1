#pragma once

#include <algorithm>
#include <optional>

#include "runtime/Clock.h"

namespace kestrune::linux_platform {

/// Learns whether programs draw their pictures in one go or in pieces. A picture in one go is captured at
/// once. Where pieces have kept coming just after a capture, a capture waits until the drawing pauses, so
/// that one picture of a video does not become two to encode. Confined to one thread.
class DrawingWatch {
 public:
  /// Drawing sooner than this after a capture belongs to the picture that was captured.
  static constexpr Duration kPieceWindow = std::chrono::milliseconds(6);
  /// Drawing has paused when nothing came for this long...
  static constexpr Duration kPause = std::chrono::microseconds(1500);
  /// ... and is not waited for longer than this in all.
  static constexpr Duration kPatience = std::chrono::milliseconds(5);

  /// The server has reported more drawing.
  void drawn(Duration now) {
    if (!first_) {
      first_ = now;
      const bool isPiece = lastCapture_ && now - *lastCapture_ < kPieceWindow;
      piecewiseScore_ =
          isPiece ? std::min(piecewiseScore_ + 3, kHighestScore) : std::max(piecewiseScore_ - 1, 0);
    } else if (now - *first_ < kPatience) {
      cameInPieces_ = true;
    }
    last_ = now;
  }

  void captured(Duration now) {
    if (cameInPieces_ && drawsInPieces()) piecewiseScore_ = std::min(piecewiseScore_ + 3, kHighestScore);
    cameInPieces_ = false;
    first_.reset();
    lastCapture_ = now;
  }

  /// Until when a capture should wait for the rest of what is being drawn; nothing: it should not.
  std::optional<Duration> pauseExpectedAt() const {
    if (!first_ || !drawsInPieces()) return std::nullopt;
    return std::min(last_ + kPause, *first_ + kPatience);
  }

 private:
  static constexpr int kHighestScore = 8;
  bool drawsInPieces() const { return piecewiseScore_ >= 2; }

  std::optional<Duration> first_;  // drawing since the last capture
  Duration last_{};
  std::optional<Duration> lastCapture_;
  bool cameInPieces_ = false;
  int piecewiseScore_ = 0;
};

}  // namespace kestrune::linux_platform
