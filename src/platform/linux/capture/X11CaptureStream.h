#pragma once

#include <memory>
#include <string>

#include "platform/ScreenStream.h"

namespace kestrune::linux_platform {

/// A stream of one display over MIT-SHM, DAMAGE and XFIXES. It has one thread ("x11-capture"), which sleeps
/// until the screen changes and reads, scales and converts only what did; completions and the stop handler
/// come on it, as does the news of a mode switch of the display. The audio output is kept and gets no
/// samples.
///
/// Fails with an X11Error: its start if the server or the display cannot be captured or the configuration is
/// out of range (sides 1 to 16384, 1 to 240 frames per second, a depth of 1 to 8, "420v"), and later when the
/// server or the display goes away. Runs once: it cannot be started again after its end.
class X11CaptureStream final : public ScreenStream {
 public:
  /// An empty name means the DISPLAY of the environment.
  X11CaptureStream(std::string displayName, const ContentFilter& filter,
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
