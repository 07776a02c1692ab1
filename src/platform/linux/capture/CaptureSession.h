#pragma once

#include <functional>
#include <optional>
#include <utility>
#include <vector>

#include "platform/ScreenStream.h"
#include "platform/linux/capture/DrawingWatch.h"
#include "platform/linux/capture/FramePacer.h"
#include "platform/linux/capture/FramePool.h"
#include "platform/linux/capture/ScreenReader.h"
#include "platform/linux/pixel/BgrxToNv12.h"

namespace kestrune::linux_platform {

/// What a running stream does, without its thread: decides when a picture is due and makes it. Times are of
/// CLOCK_MONOTONIC. Confined to the stream's thread. Throws an X11Error when the display is gone.
class CaptureSession {
 public:
  /// `onRelease` is called on any thread when the receiver releases a picture. `interrupt` ends waits for
  /// the server.
  CaptureSession(const X11Address& address, const ContentFilter& filter,
                 const ScreenStreamConfiguration& configuration, std::function<void()> onRelease,
                 std::shared_ptr<X11Interrupt> interrupt);

  /// Both throw an X11Error and change nothing if they cannot be served. The next picture is whole.
  void setConfiguration(const ScreenStreamConfiguration& configuration);
  void setFilter(const ContentFilter& filter);

  /// The picture that is due at `now`, if one is. `isRequested`: the present picture is wanted even if
  /// nothing changed.
  std::optional<VideoSample> next(Duration now, bool isRequested);

  struct Wait {
    std::optional<Duration> until;  // call next() again then; nothing: not before an event
    bool listensToServer = true;    // false: what the server tells can wait until then
  };
  /// What to wait for after next() gave nothing. The release of a picture always ends the wait.
  Wait wait(bool isRequested) const;
  int fd() const { return reader_.fd(); }
  /// Takes in what the server has told along with its answers; whether it was anything.
  bool readQueuedEvents() { return reader_.readQueuedEvents(); }
  /// Whether the display has had another place or size since the last call.
  bool takeContentChange() { return std::exchange(hasContentChanged_, false); }

 private:
  struct Part {
    PixelRect destination;
    PixelRect source;  // pixels of the display
  };

  void followLayout(Duration now);
  void takeArea(const PixelRect& area);
  void rebuild();
  bool isChangePending() const;
  std::optional<Duration> drawingPause(bool isRequested) const;
  bool isPointerCheckDue(Duration now) const;
  void collectChanges(Duration now);
  std::optional<VideoSample> capture(Duration now);
  std::vector<Part> partsOf(const std::vector<PixelRect>& changes) const;
  VideoSample makeSample(std::shared_ptr<PixelBuffer> picture, std::vector<PixelRect> changes, Duration now);

  ScreenReader reader_;
  const std::function<void()> onRelease_;
  ScreenStreamConfiguration configuration_;
  DisplayID display_ = 0;
  PixelRect area_;  // of the display in the root window
  bool mustReadLayout_ = false;
  bool hasContentChanged_ = false;
  std::optional<Duration> missingSince_;  // the display is not there
  FramePacer pacer_;
  DrawingWatch drawing_;
  std::uint64_t seenDamageReports_ = 0;
  std::optional<FramePool> pool_;
  std::optional<BgrxToNv12> converter_;
  bool isWholeDirty_ = true;
  DirtyRegion dirty_;  // pixels of the display, beyond what the reader's damage tells
  Duration nextPointerCheck_{};
  int failedReads_ = 0;
  std::uint64_t sequence_ = 0;
};

}  // namespace kestrune::linux_platform
