#pragma once

#include <memory>

#include "platform/linux/space/DisplaySpace.h"

namespace kestrune::linux_platform {

/// Input into all servers of a space. Where an event goes is decided when it is posted:
///
/// - a mouse event to the server that shows its point, but to the one of the press while a button is held;
/// - scrolling to the server whose pointer was moved last, by an event or by the user's own hand;
/// - keys and text to the server of the keyboard focus (DisplaySpace), the release of a key to where it was
///   pressed.
class SpaceInputEvents final : public InputEvents {
 public:
  class Router;

  explicit SpaceInputEvents(std::shared_ptr<DisplaySpace> space);

  std::unique_ptr<InputEventSource> createSource() override;
  std::optional<Point> cursorLocation() override;
  std::unique_ptr<InputEvent> systemDefinedEvent(const SystemDefinedEvent& description) override;

 private:
  const std::shared_ptr<Router> router_;
};

}  // namespace kestrune::linux_platform
