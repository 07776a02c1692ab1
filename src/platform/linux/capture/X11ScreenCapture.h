#pragma once

#include <memory>
#include <string>

#include "platform/ScreenStream.h"

namespace kestrune {
class ThreadQueue;
}

namespace kestrune::linux_platform {

/// Captures displays of an X server. Whole displays only: X shows windows, but a stream of one is refused.
class X11ScreenCapture final : public ScreenCapture {
 public:
  /// An empty name means the DISPLAY of the environment.
  explicit X11ScreenCapture(std::string displayName = {});
  ~X11ScreenCapture() override;

  /// Completes on a thread of its own. X knows no desktop windows apart from the display, so the two flags
  /// change nothing.
  void shareableContent(bool excludingDesktopWindows, bool onScreenWindowsOnly,
                        ContentCompletion completion) override;
  ContentFilter filterForDisplay(const ShareableDisplay& display) const override;
  /// An X11CaptureStream. A filter or configuration that it cannot serve fails its start.
  std::unique_ptr<ScreenStream> createStream(const ContentFilter& filter,
                                             const ScreenStreamConfiguration& configuration,
                                             ScreenStream::StopHandler onStopped) override;

 private:
  const std::string displayName_;
  const std::unique_ptr<ThreadQueue> queue_;  // "x11-content"
};

}  // namespace kestrune::linux_platform
