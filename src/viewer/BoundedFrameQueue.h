#pragma once

#include <cstddef>
#include <deque>
#include <optional>

#include "platform/Bytes.h"

namespace kestrune {

/// Frames that wait for a slow route, bounded in frames and in bytes. A plain value: its owner serialises
/// access. The oldest frame goes first, a keyframe too; a caller reads a positive count of drops as the
/// signal to resynchronise.
class BoundedFrameQueue {
 public:
  struct Item {
    GatheredBytes data;
    bool isKeyframe = false;
  };
  struct AppendResult {
    bool accepted = false;
    std::size_t droppedCount = 0;
    friend bool operator==(const AppendResult&, const AppendResult&) = default;
  };

  BoundedFrameQueue(std::size_t maxFrames, std::size_t maxBytes)
      : maxFrames_(maxFrames), maxBytes_(maxBytes) {}

  /// Refuses, as one drop, a frame that alone is larger than the queue.
  AppendResult append(GatheredBytes data, bool isKeyframe);
  std::optional<Item> removeFirst();
  void removeAll();

  const std::deque<Item>& frames() const { return frames_; }
  std::size_t byteCount() const { return byteCount_; }

 private:
  std::size_t maxFrames_;
  std::size_t maxBytes_;
  std::deque<Item> frames_;
  std::size_t byteCount_ = 0;
};

}  // namespace kestrune
