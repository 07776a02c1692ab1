#pragma once

#include <functional>
#include <memory>
#include <vector>

#include "platform/PixelBuffer.h"
#include "platform/linux/capture/DirtyRegion.h"
#include "platform/linux/pixel/PictureMemory.h"

namespace kestrune::linux_platform {

/// The pictures of a stream, reused once the receiver has released them. Each remembers what has changed
/// since it was current, so that only changes are converted and the rest is carried over from the newest one.
///
/// The receiver can hold `depth` pictures at once; one more is kept here, the newest, to carry over from and
/// to repeat. Confined to one thread but for the release of pictures.
class FramePool {
 public:
  /// `onRelease` is called, on any thread, whenever the receiver releases a picture; it may outlive the
  /// pool.
  FramePool(int width, int height, int depth, std::function<void()> onRelease);
  ~FramePool();

  /// False while the receiver holds as many pictures as it may.
  bool isAvailable() const;
  /// Whether there is a newest picture.
  bool hasPicture() const { return newest_ != nullptr; }

  /// A picture that equals the newest one but for `changes`, which the caller converts next: bars are black.
  /// All of the picture must be in `changes` if there is no newest one. Only when available; null if there is
  /// no memory.
  const PixelBuffer* beginPicture(const std::vector<PixelRect>& changes);
  /// The picture begun becomes the newest one, and is handed out.
  std::shared_ptr<PixelBuffer> finishPicture();
  /// The newest picture once more. Only when available and there is one.
  std::shared_ptr<PixelBuffer> repeatPicture();

 private:
  struct Slot;
  struct Ledger;

  std::shared_ptr<PixelBuffer> lend(Slot& slot);
  void carryOver(Slot& slot, const std::vector<PixelRect>& changes);

  const int width_;
  const int height_;
  const int depth_;
  const std::shared_ptr<Ledger> ledger_;
  std::vector<std::unique_ptr<Slot>> slots_;
  Slot* newest_ = nullptr;
  Slot* begun_ = nullptr;
  std::vector<PixelRect> begunChanges_;
};

}  // namespace kestrune::linux_platform
