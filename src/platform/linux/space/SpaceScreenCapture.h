#pragma once

#include <memory>

#include "platform/linux/space/DisplaySpace.h"

namespace kestrune::linux_platform {

/// Captures the displays of all servers of a space; identifiers and points are global.
class SpaceScreenCapture final : public ScreenCapture {
 public:
  explicit SpaceScreenCapture(std::shared_ptr<const DisplaySpace> space) : space_(std::move(space)) {}

  /// What all servers have. Fails only where no server answers, with the desktop's failure.
  void shareableContent(bool excludingDesktopWindows, bool onScreenWindowsOnly,
                        ContentCompletion completion) override;
  ContentFilter filterForDisplay(const ShareableDisplay& display) const override;
  /// A SpaceStream.
  std::unique_ptr<ScreenStream> createStream(const ContentFilter& filter,
                                             const ScreenStreamConfiguration& configuration,
                                             ScreenStream::StopHandler onStopped) override;

 private:
  const std::shared_ptr<const DisplaySpace> space_;
};

}  // namespace kestrune::linux_platform
