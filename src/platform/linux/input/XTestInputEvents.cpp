#include "platform/linux/input/XTestInputEvents.h"

#include <xkbcommon/xkbcommon-keysyms.h>

#include <utility>

#include "platform/linux/input/InputInjector.h"

namespace kestrune::linux_platform {
namespace {

constexpr xkb_keysym_t kPlaySymbol = 0x1008FF14;  // XF86AudioPlay
constexpr std::int64_t kPlayKeyType = 16;

/// The key symbol of a virtual key code of the key table.
std::optional<xkb_keysym_t> symbolOfVirtualKey(std::uint16_t code) {
  switch (code) {
    case 3:
      return XKB_KEY_f;
    case 36:
      return XKB_KEY_Return;
    case 48:
      return XKB_KEY_Tab;
    case 49:
      return XKB_KEY_space;
    case 51:
      return XKB_KEY_BackSpace;
    case 53:
      return XKB_KEY_Escape;
    case 123:
      return XKB_KEY_Left;
    case 124:
      return XKB_KEY_Right;
    case 125:
      return XKB_KEY_Down;
    case 126:
      return XKB_KEY_Up;
    default:
      return std::nullopt;
  }
}

class Event final : public InputEvent {
 public:
  Event(std::shared_ptr<InputInjector> injector, QueuedInput input, std::optional<Point> moveTo)
      : injector_(std::move(injector)), input_(std::move(input)), moveTo_(moveTo) {}

  void setUnicodeString(std::u16string_view text) override {
    // The press types the text; its release has nothing more to say.
    const bool isDown = input_.kind == QueuedInput::Kind::press;
    input_.kind = QueuedInput::Kind::other;
    input_.send = [typed = std::u16string(isDown ? text : std::u16string_view())](InputInjector& injector) {
      if (!typed.empty()) injector.type(typed);
    };
  }

  void post() override { injector_->post(input_, moveTo_); }

 private:
  const std::shared_ptr<InputInjector> injector_;
  QueuedInput input_;
  const std::optional<Point> moveTo_;
};

std::unique_ptr<InputEvent> keyEvent(const std::shared_ptr<InputInjector>& injector,
                                     std::optional<xkb_keysym_t> symbol, bool isDown) {
  QueuedInput input;
  input.kind = isDown ? QueuedInput::Kind::press : QueuedInput::Kind::release;
  input.control = symbol.value_or(XKB_KEY_NoSymbol);
  input.send = [symbol, isDown](InputInjector& to) {
    if (symbol) to.key(*symbol, isDown);
  };
  return std::make_unique<Event>(injector, std::move(input), std::nullopt);
}

class Source final : public InputEventSource {
 public:
  explicit Source(std::shared_ptr<InputInjector> injector) : injector_(std::move(injector)) {}

  std::unique_ptr<InputEvent> mouseEvent(MouseEventType type, Point position, MouseButton button) override {
    const std::uint8_t number = button == MouseButton::right ? 3 : 1;
    QueuedInput input;
    input.kind = kindOf(type);
    // Button numbers and key symbols share one space: no key symbol is below 0x20.
    input.control = number;
    input.send = [kind = input.kind, position, number](InputInjector& injector) {
      injector.movePointer(position);
      if (kind != QueuedInput::Kind::move) injector.button(number, kind == QueuedInput::Kind::press);
    };
    return std::make_unique<Event>(injector_, std::move(input), position);
  }

  std::unique_ptr<InputEvent> scrollEvent(std::int32_t wheel1, std::int32_t wheel2) override {
    QueuedInput input;
    input.send = [wheel1, wheel2](InputInjector& injector) {
      injector.scroll(0, wheel1);
      injector.scroll(1, wheel2);
    };
    return std::make_unique<Event>(injector_, std::move(input), std::nullopt);
  }

  std::unique_ptr<InputEvent> keyboardEvent(std::uint16_t keyCode, bool isDown) override {
    const auto symbol = symbolOfVirtualKey(keyCode);
    if (!symbol && keyCode != 0) return nullptr;
    return keyEvent(injector_, symbol, isDown);
  }

 private:
  static QueuedInput::Kind kindOf(MouseEventType type) {
    switch (type) {
      case MouseEventType::leftDown:
      case MouseEventType::rightDown:
        return QueuedInput::Kind::press;
      case MouseEventType::leftUp:
      case MouseEventType::rightUp:
        return QueuedInput::Kind::release;
      default:
        return QueuedInput::Kind::move;
    }
  }

  const std::shared_ptr<InputInjector> injector_;
};

}  // namespace

XTestInputEvents::XTestInputEvents(std::shared_ptr<const X11Server> server,
                                   std::shared_ptr<const Clock> clock)
    : injector_(std::make_shared<InputInjector>(std::move(server), std::move(clock))) {}

XTestInputEvents::~XTestInputEvents() {
  injector_->close();
}

std::unique_ptr<InputEventSource> XTestInputEvents::createSource() {
  return injector_->isReady() ? std::make_unique<Source>(injector_) : nullptr;
}

std::optional<Point> XTestInputEvents::cursorLocation() {
  return injector_->cursorLocation();
}

std::unique_ptr<InputEvent> XTestInputEvents::systemDefinedEvent(const SystemDefinedEvent& description) {
  constexpr std::int64_t kStateDown = 0x0A;
  const bool isPlayKey = description.subtype == 8 && (description.data1 >> 16) == kPlayKeyType;
  if (!isPlayKey || !injector_->isReady()) return nullptr;
  return keyEvent(injector_, kPlaySymbol, ((description.data1 >> 8) & 0xFF) == kStateDown);
}

}  // namespace kestrune::linux_platform
