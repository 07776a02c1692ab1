#pragma once

#include <memory>
#include <mutex>
#include <string>

#include "platform/Displays.h"
#include "platform/linux/x11/DisplayLayout.h"

namespace kestrune::linux_platform {

/// The displays of an X server over RandR. A display's identifier is that of its RandR output and stays the
/// same while the server runs. One point is one pixel. Keeps one connection, opened when first asked and
/// again after the server went away. Any thread may call.
class X11Displays final : public Displays {
 public:
  /// An empty name means the DISPLAY of the environment.
  explicit X11Displays(std::string displayName = {});
  ~X11Displays() override;

  std::optional<DisplayID> mainDisplay() const override;
  std::vector<DisplayID> activeDisplays() const override;
  Rect bounds(DisplayID display) const override;

 private:
  DisplayLayout layout() const;

  const std::string displayName_;
  mutable std::mutex lock_;  // guards connection_
  mutable std::unique_ptr<X11Connection> connection_;
};

}  // namespace kestrune::linux_platform
