#include "platform/linux/space/SpaceInputEvents.h"

#include <cmath>
#include <map>
#include <mutex>
#include <string>
#include <utility>

namespace kestrune::linux_platform {
namespace {

/// A key or a button, so that its release finds the server of its press.
struct Control {
  enum class Kind { button, key, mediaKey } kind;
  std::int64_t code;
  friend bool operator==(const Control&, const Control&) = default;
  friend bool operator<(const Control& a, const Control& b) {
    return std::pair(a.kind, a.code) < std::pair(b.kind, b.code);
  }
};

/// An event before it is known which server gets it.
struct Description {
  enum class Target { pointer, scroll, keyboard } target = Target::pointer;
  Point position;                  // of a mouse event; global
  std::optional<Control> control;  // that is pressed or released
  bool isDown = false;
  /// Makes the server's own event; null where it refuses. `at` is the position in its terms.
  std::function<std::unique_ptr<InputEvent>(InputEvents& server, Point at)> make;
};

/// A pointer that seems to have moved by less stands where it was put: servers round.
constexpr double kSmallestMove = 1.5;

bool isSamePlace(Point a, Point b) {
  return std::abs(a.x - b.x) < kSmallestMove && std::abs(a.y - b.y) < kSmallestMove;
}

std::optional<Control> buttonOf(MouseEventType type, MouseButton button) {
  if (type == MouseEventType::moved || type == MouseEventType::leftDragged) return std::nullopt;
  return Control{Control::Kind::button, static_cast<std::int64_t>(button)};
}

}  // namespace

class SpaceInputEvents::Router {
 public:
  explicit Router(std::shared_ptr<DisplaySpace> space) : space_(std::move(space)) {}

  const DisplaySpace& space() const { return *space_; }

  /// Where an event would go now.
  SharedRegion regionFor(const Description& event) const {
    DisplayID held = 0;
    DisplayID pointer = 0;
    bool isHeld = false;
    {
      const std::lock_guard guard(lock_);
      pointer = pointer_;
      for (const auto& [control, region] : held_) {
        const bool decides = event.target == Description::Target::keyboard
                                 ? event.control == control && !event.isDown
                                 : control.kind == Control::Kind::button;
        if (!decides) continue;
        isHeld = true;
        held = region;
      }
    }
    SharedRegion found;
    if (isHeld) {
      found = space_->region(held);
    } else if (event.target == Description::Target::keyboard) {
      found = space_->region(space_->keyboardFocus());
      // Keys have no use on a desktop that is not there.
      if (found && found->displays().empty()) found = nullptr;
    } else if (event.target == Description::Target::pointer) {
      found = space_->regionAt(event.position);
    }
    if (!found) found = space_->region(pointer);
    return found && !found->displays().empty() ? found : space_->mainRegion();
  }

  std::unique_ptr<InputEvent> make(const Description& event, const Region& region) const {
    return event.make(*region.ports.inputEvents, region.toLocal(region.nearest(event.position)));
  }

  void post(const Description& event, const std::optional<std::u16string>& text) {
    const SharedRegion region = regionFor(event);
    const auto own = make(event, *region);
    if (!own) return;
    if (text) own->setUnicodeString(*text);
    const bool isMouse = event.target == Description::Target::pointer;
    if (isMouse && event.control && event.isDown) space_->setKeyboardFocus(region->id);
    {
      const std::lock_guard guard(lock_);
      if (event.control && event.isDown) held_[*event.control] = region->id;
      if (event.control && !event.isDown) held_.erase(*event.control);
      if (isMouse) {
        pointer_ = region->id;
        seen_[region->id] = region->toLocal(region->nearest(event.position));
      }
    }
    own->post();
  }

  std::optional<Point> cursorLocation() {
    std::map<DisplayID, Point> now;  // in each server's terms
    const auto regions = space_->regions();
    for (const SharedRegion& region : regions) {
      if (const auto place = region->ports.inputEvents->cursorLocation()) now[region->id] = *place;
    }
    DisplayID moved = 0;
    {
      const std::lock_guard guard(lock_);
      std::erase_if(seen_, [&](const auto& entry) { return !now.contains(entry.first); });
      for (const auto& [id, place] : now) {
        const auto [entry, isNew] = seen_.try_emplace(id, place);
        if (isNew || isSamePlace(entry->second, place)) continue;
        entry->second = place;
        pointer_ = id;
      }
      if (!now.contains(pointer_) && !now.empty()) pointer_ = now.begin()->first;
      moved = pointer_;
    }
    for (const SharedRegion& region : regions) {
      if (region->id == moved && now.contains(moved)) return region->toGlobal(now[moved]);
    }
    return std::nullopt;
  }

 private:
  const std::shared_ptr<DisplaySpace> space_;
  mutable std::mutex lock_;            // guards the rest
  DisplayID pointer_ = 0;              // the region whose pointer was moved last
  std::map<Control, DisplayID> held_;  // what was pressed, and in which region; as many as there are keys
  std::map<DisplayID, Point> seen_;    // where each region's pointer was at the last look, or was put since
};

namespace {

class RoutedEvent final : public InputEvent {
 public:
  RoutedEvent(std::shared_ptr<SpaceInputEvents::Router> router, Description event)
      : router_(std::move(router)), event_(std::move(event)) {}

  void setUnicodeString(std::u16string_view text) override {
    text_ = text;
    // A text is not held: its release says nothing.
    event_.control.reset();
  }
  void post() override { router_->post(event_, text_); }

 private:
  const std::shared_ptr<SpaceInputEvents::Router> router_;
  Description event_;
  std::optional<std::u16string> text_;
};

/// Null where the server that would get it now refuses.
std::unique_ptr<InputEvent> route(const std::shared_ptr<SpaceInputEvents::Router>& router,
                                  Description event) {
  if (!router->make(event, *router->regionFor(event))) return nullptr;
  return std::make_unique<RoutedEvent>(router, std::move(event));
}

/// `make` of a description by a source of the server's.
template <class Make>
auto bySource(Make make) {
  return [make](InputEvents& server, Point at) -> std::unique_ptr<InputEvent> {
    const auto source = server.createSource();
    return source ? make(*source, at) : nullptr;
  };
}

class Source final : public InputEventSource {
 public:
  explicit Source(std::shared_ptr<SpaceInputEvents::Router> router) : router_(std::move(router)) {}

  std::unique_ptr<InputEvent> mouseEvent(MouseEventType type, Point position, MouseButton button) override {
    Description event;
    event.position = position;
    event.control = buttonOf(type, button);
    event.isDown = type == MouseEventType::leftDown || type == MouseEventType::rightDown;
    event.make = bySource(
        [type, button](InputEventSource& source, Point at) { return source.mouseEvent(type, at, button); });
    return route(router_, std::move(event));
  }

  std::unique_ptr<InputEvent> scrollEvent(std::int32_t wheel1, std::int32_t wheel2) override {
    Description event;
    event.target = Description::Target::scroll;
    event.make = bySource([wheel1, wheel2](InputEventSource& source, Point /*at*/) {
      return source.scrollEvent(wheel1, wheel2);
    });
    return route(router_, std::move(event));
  }

  std::unique_ptr<InputEvent> keyboardEvent(std::uint16_t keyCode, bool isDown) override {
    Description event;
    event.target = Description::Target::keyboard;
    event.control = Control{Control::Kind::key, keyCode};
    event.isDown = isDown;
    event.make = bySource([keyCode, isDown](InputEventSource& source, Point /*at*/) {
      return source.keyboardEvent(keyCode, isDown);
    });
    return route(router_, std::move(event));
  }

 private:
  const std::shared_ptr<SpaceInputEvents::Router> router_;
};

}  // namespace

SpaceInputEvents::SpaceInputEvents(std::shared_ptr<DisplaySpace> space)
    : router_(std::make_shared<Router>(std::move(space))) {}

std::unique_ptr<InputEventSource> SpaceInputEvents::createSource() {
  for (const SharedRegion& region : router_->space().regions()) {
    if (region->ports.inputEvents->createSource()) return std::make_unique<Source>(router_);
  }
  return nullptr;
}

std::optional<Point> SpaceInputEvents::cursorLocation() {
  return router_->cursorLocation();
}

std::unique_ptr<InputEvent> SpaceInputEvents::systemDefinedEvent(const SystemDefinedEvent& description) {
  constexpr std::int64_t kStateDown = 0x0A;  // in the second byte of data1, below the key
  Description event;
  event.target = Description::Target::keyboard;
  event.control = Control{Control::Kind::mediaKey, description.data1 >> 16};
  event.isDown = ((description.data1 >> 8) & 0xFF) == kStateDown;
  event.make = [description](InputEvents& server, Point /*at*/) {
    return server.systemDefinedEvent(description);
  };
  return route(router_, std::move(event));
}

}  // namespace kestrune::linux_platform
