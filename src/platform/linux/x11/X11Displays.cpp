#include "platform/linux/x11/X11Displays.h"

#include <utility>

namespace kestrune::linux_platform {

X11Displays::X11Displays(std::shared_ptr<const X11Server> server) : server_(std::move(server)) {}

std::optional<DisplayID> X11Displays::mainDisplay() const {
  const auto state = server_->state();
  if (state->layout.displays.empty()) return std::nullopt;
  return state->layout.displays.front().id;
}

std::vector<DisplayID> X11Displays::activeDisplays() const {
  const auto state = server_->state();
  std::vector<DisplayID> identifiers;
  for (const X11Display& display : state->layout.displays) identifiers.push_back(display.id);
  return identifiers;
}

Rect X11Displays::bounds(DisplayID display) const {
  const auto state = server_->state();
  const X11Display* found = state->layout.find(display);
  return found != nullptr ? state->layout.bounds(*found) : Rect{};
}

Rect X11Displays::visibleBounds(DisplayID display) const {
  const auto state = server_->state();
  const X11Display* found = state->layout.find(display);
  return found != nullptr ? state->layout.visibleBounds(*found) : Rect{};
}

}  // namespace kestrune::linux_platform
