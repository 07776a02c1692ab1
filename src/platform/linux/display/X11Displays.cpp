#include "platform/linux/display/X11Displays.h"

namespace kestrune::linux_platform {

X11Displays::X11Displays(std::string displayName) : displayName_(std::move(displayName)) {}

X11Displays::~X11Displays() = default;

DisplayLayout X11Displays::layout() const {
  const std::lock_guard guard(lock_);
  try {
    if (connection_) {
      DisplayLayout present = readDisplayLayout(*connection_);
      if (!connection_->isBroken()) return present;
    }
    connection_ = X11Connection::open(displayName_);
    return readDisplayLayout(*connection_);
  } catch (const X11Error&) {
    connection_.reset();
    return {};
  }
}

std::optional<DisplayID> X11Displays::mainDisplay() const {
  const DisplayLayout present = layout();
  if (present.displays.empty()) return std::nullopt;
  return present.displays.front().id;
}

std::vector<DisplayID> X11Displays::activeDisplays() const {
  std::vector<DisplayID> identifiers;
  for (const X11Display& display : layout().displays) identifiers.push_back(display.id);
  return identifiers;
}

Rect X11Displays::bounds(DisplayID display) const {
  const DisplayLayout present = layout();
  const X11Display* found = present.find(display);
  return found != nullptr ? present.bounds(*found) : Rect{};
}

}  // namespace kestrune::linux_platform
