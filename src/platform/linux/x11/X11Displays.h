#pragma once

#include <memory>

#include "platform/Displays.h"
#include "platform/linux/x11/X11Server.h"

namespace kestrune::linux_platform {

/// The displays of an X server as it last announced them (X11Server). A display's identifier is that of its
/// RandR output and stays the same while the server runs. One point is one pixel.
class X11Displays final : public Displays {
 public:
  explicit X11Displays(std::shared_ptr<const X11Server> server);

  std::optional<DisplayID> mainDisplay() const override;
  std::vector<DisplayID> activeDisplays() const override;
  Rect bounds(DisplayID display) const override;
  Rect visibleBounds(DisplayID display) const override;

 private:
  const std::shared_ptr<const X11Server> server_;
};

}  // namespace kestrune::linux_platform
