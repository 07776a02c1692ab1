#pragma once

#include <memory>
#include <string>

#include "platform/ScreenStream.h"

namespace kestrune::linux_platform {

/// Adds the system's sound to the streams of a capture that delivers pictures alone. Sound never holds up or
/// fails a stream: without a sound server the stream has no audio samples until there is one. Sound starts
/// when the picture has started, if the configuration asks for it and there is an output for it, and ends
/// with it.
class SystemScreenCapture final : public ScreenCapture {
 public:
  /// An empty sound server is the one of the environment.
  explicit SystemScreenCapture(std::shared_ptr<ScreenCapture> pictures, std::string soundServer = {});

  void shareableContent(bool excludingDesktopWindows, bool onScreenWindowsOnly,
                        ContentCompletion completion) override;
  ContentFilter filterForDisplay(const ShareableDisplay& display) const override;
  std::unique_ptr<ScreenStream> createStream(const ContentFilter& filter,
                                             const ScreenStreamConfiguration& configuration,
                                             ScreenStream::StopHandler onStopped) override;

 private:
  const std::shared_ptr<ScreenCapture> pictures_;
  const std::string soundServer_;
};

}  // namespace kestrune::linux_platform
