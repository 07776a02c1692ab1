#pragma once

#include <memory>

#include "platform/ScreenStream.h"
#include "platform/linux/x11/X11Server.h"

namespace kestrune::linux_platform {

/// Captures displays of an X server. Whole displays only: X shows windows, but a stream of one is refused.
class X11ScreenCapture final : public ScreenCapture {
 public:
  explicit X11ScreenCapture(std::shared_ptr<X11Server> server);

  /// Completes on the server's thread. X knows no desktop windows apart from the display, so the two flags
  /// change nothing.
  void shareableContent(bool excludingDesktopWindows, bool onScreenWindowsOnly,
                        ContentCompletion completion) override;
  ContentFilter filterForDisplay(const ShareableDisplay& display) const override;
  /// An X11CaptureStream. A filter or configuration that it cannot serve fails its start.
  std::unique_ptr<ScreenStream> createStream(const ContentFilter& filter,
                                             const ScreenStreamConfiguration& configuration,
                                             ScreenStream::StopHandler onStopped) override;

 private:
  const std::shared_ptr<X11Server> server_;
};

}  // namespace kestrune::linux_platform
