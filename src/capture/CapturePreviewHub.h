#pragma once

#include <array>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>

#include "platform/PixelBuffer.h"
#include "runtime/SerialQueue.h"

namespace kestrune {

/// Hands the newest captured frame to a preview at the machine, without ever slowing the capture: only
/// the latest frame is kept, and at most one delivery is on its way to the main queue, so that frames which
/// come faster than it takes them replace each other.
///
/// Must be owned by a shared_ptr. Any thread may call any operation; observers are called on the main queue,
/// never under the lock, so that they may add and remove observers.
class CapturePreviewHub final : public std::enable_shared_from_this<CapturePreviewHub> {
 public:
  using ObserverID = std::array<std::uint8_t, 16>;  // a UUID
  /// Gets the newest frame, or nothing when there is no picture any more.
  using Observer = std::function<void(const std::optional<VideoSample>& frame)>;

  explicit CapturePreviewHub(std::shared_ptr<SerialQueue> mainQueue) : mainQueue_(std::move(mainQueue)) {}

  /// Costs the caller one lock and a swap of references. On the main queue itself the frame is delivered
  /// before this returns, unless a delivery is on its way already.
  void publish(const VideoSample& frame) { replaceLatest(frame); }
  /// The capture has ended; observers take the picture away.
  void clear() { replaceLatest(std::nullopt); }

  /// Replaces an observer of the same identifier. A stored frame is delivered to the new observer, and to no
  /// other: before this returns if the caller is on the main queue.
  void addObserver(const ObserverID& identifier, Observer observer);
  /// An observer that is removed while a delivery runs may hear of that delivery still.
  void removeObserver(const ObserverID& identifier);

 private:
  void replaceLatest(std::optional<VideoSample> frame);
  void deliver();
  void deliverTo(const ObserverID& identifier);

  const std::shared_ptr<SerialQueue> mainQueue_;

  std::mutex lock_;
  // Guarded by lock_:
  std::map<ObserverID, std::shared_ptr<const Observer>> observers_;
  std::optional<VideoSample> latestSampleBuffer_;
  bool deliveryScheduled_ = false;
};

}  // namespace kestrune
