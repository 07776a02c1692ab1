#pragma once

#include <memory>

#include "platform/linux/space/DisplaySpace.h"

namespace kestrune::linux_platform {

/// A stream of any display of a space: a stream of that display's server, made at the start. A filter of
/// another server's display starts a stream there with the same outputs and, once that delivers, stops the
/// one before: there is always a picture, never two at once, and a switch that fails leaves what was shown.
/// One switch at a time; calls between its beginning and its end go to the stream that is shown.
class SpaceStream final : public ScreenStream {
 public:
  SpaceStream(std::shared_ptr<const DisplaySpace> space, const ContentFilter& filter,
              const ScreenStreamConfiguration& configuration, StopHandler onStopped);
  /// Ends the server's stream, as that one's own end does it.
  ~SpaceStream() override;

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
