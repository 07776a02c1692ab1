#pragma once

#include <memory>

#include "platform/ScreenStream.h"
#include "platform/linux/x11/X11Server.h"

namespace kestrune::linux_platform {

/// A stream of one display over MIT-SHM, DAMAGE and XFIXES. It has one thread ("x11-capture"), which sleeps
/// until the screen changes and reads, scales and converts only what did; completions and the stop handler
/// come on it. The news of a mode switch of the display comes on the thread of the X11Server once that knows
/// the new layout, too. The audio output is kept and gets no samples.
///
/// Fails with an X11Error: its start if the server or the display cannot be captured or the configuration is
/// out of range (sides 1 to 16384, 1 to 240 frames per second, a depth of 1 to 8, "420v"), and later when the
/// server or the display goes away, or the server has not answered for X11Watchdog::kAnswerLimit. A stop does
/// not wait for the server. Runs once: it cannot be started again after its end.
class X11CaptureStream final : public ScreenStream {
 public:
  X11CaptureStream(std::shared_ptr<X11Server> server, const ContentFilter& filter,
                   const ScreenStreamConfiguration& configuration, StopHandler onStopped);
  /// Stops the capture without calling anyone, and waits for the thread unless it is the caller.
  ~X11CaptureStream() override;

  void addVideoOutput(std::shared_ptr<SerialQueue> queue, VideoOutput output) override;
  void addAudioOutput(std::shared_ptr<SerialQueue> queue, AudioOutput output) override;
  void setContentChangeHandler(ContentChangeHandler handler) override;
  void startCapture(StreamCompletion completion) override;
  void stopCapture(StreamCompletion completion) override;
  void updateConfiguration(const ScreenStreamConfiguration& configuration,
                           StreamCompletion completion) override;
  void updateContentFilter(const ContentFilter& filter, StreamCompletion completion) override;
  void requestFrame() override;

 private:
  class Core;
  const std::shared_ptr<Core> core_;
};

}  // namespace kestrune::linux_platform
