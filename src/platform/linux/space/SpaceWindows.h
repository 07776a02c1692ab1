#pragma once

#include <memory>

#include "platform/linux/space/DisplaySpace.h"

namespace kestrune::linux_platform {

/// The windows of all servers of a space, in global points. What brings a window to the front moves the
/// keyboard focus of the space to its server. Main queue only; each server is waited for as its own adapter
/// says.
class SpaceWindows final : public Windows {
 public:
  explicit SpaceWindows(std::shared_ptr<DisplaySpace> space) : space_(std::move(space)) {}

  /// The topmost of each server first, server after server.
  std::vector<WindowInfo> onScreenWindows() override;
  /// A window stays on its server: false if the frame's centre lies on another one.
  bool placeFirstWindow(ProcessID process, const Rect& frame) override;

  /// Brings the windows of a process to the front.
  void activate(ProcessID process);
  /// Shows its windows that are hidden or minimized.
  void showHidden(ProcessID process);

 private:
  const std::shared_ptr<DisplaySpace> space_;
};

}  // namespace kestrune::linux_platform
