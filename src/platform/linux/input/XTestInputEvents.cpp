#include "platform/linux/input/XTestInputEvents.h"

#define explicit explicit_  // a name in the header of the keyboard extension
#include <xcb/xkb.h>
#undef explicit
#include <xcb/xtest.h>
#include <xkbcommon/xkbcommon-keysyms.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cmath>
#include <cstdlib>
#include <functional>
#include <mutex>
#include <utility>

#include "platform/linux/input/KeyboardMap.h"
#include "platform/linux/input/TextTyper.h"
#include "platform/linux/x11/DisplayLayout.h"
#include "platform/linux/x11/X11Connection.h"
#include "runtime/Log.h"
#include "runtime/ThreadQueue.h"

namespace kestrune::linux_platform {
namespace {

constexpr Logger kLogger("App");
constexpr Duration kLendingTime = std::chrono::seconds(2);
constexpr std::uint8_t kFirstWheelButton = 4;     // 4 up, 5 down, 6 left, 7 right
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

}  // namespace

/// The connection and everything that is sent over it.
class XTestInputEvents::Injector {
 public:
  Injector(std::string displayName, std::shared_ptr<const Clock> clock)
      : displayName_(std::move(displayName)),
        clock_(std::move(clock)),
        queue_(std::make_unique<ThreadQueue>("x11-input", clock_)) {}
  ~Injector() { close(); }

  /// Drops what waits, gives back what was lent and ends the connection. Events that outlive it do nothing.
  /// Not on the queue's thread. Idempotent.
  void close() {
    std::unique_ptr<ThreadQueue> queue;
    {
      std::lock_guard order(orderLock_);
      isClosed_ = true;
    }
    {
      std::lock_guard guard(sendLock_);
      queue = std::move(queue_);
    }
    queue.reset();  // joins; its work touches this object
    std::lock_guard guard(sendLock_);
    map_.reset();
    connection_.reset();
  }

  /// Whether a key may have to wait for a code.
  bool isLentOut() const { return isLentOut_; }

  /// Whether events can be sent; true without a look while some wait.
  bool connect() {
    std::lock_guard order(orderLock_);
    if (isClosed_) return false;
    if (waiting_ > 0) return true;
    std::lock_guard guard(sendLock_);
    return connectLocked();
  }

  /// Runs `send` now if nothing waits, else behind what waits.
  void post(std::function<void(Injector&)> send, bool mayWait) {
    std::lock_guard order(orderLock_);
    if (isClosed_) return;
    if (!mayWait && waiting_ == 0) {
      std::lock_guard guard(sendLock_);
      if (connectLocked()) send(*this);
      return;
    }
    if (waiting_ >= kMostWaiting) {
      kLogger.error("Too much input is waiting; some was dropped");
      return;
    }
    ++waiting_;
    // close() joins the queue before this object ends. It takes the queue away only after it has closed
    // under orderLock_.
    queue_->post([this, send = std::move(send)] { runWaiting(send); });
  }

  std::optional<Point> cursorLocation() {
    std::lock_guard order(orderLock_);
    if (isClosed_ || waiting_ > 0) return std::nullopt;  // what waits may move the pointer yet
    std::lock_guard guard(sendLock_);
    if (!connectLocked()) return std::nullopt;
    const auto reply = waitForReply(*connection_, xcb_query_pointer_reply,
                                    xcb_query_pointer(*connection_, connection_->root()));
    if (!reply) return std::nullopt;
    const auto origin = globalOrigin();
    return Point{reply->root_x - origin.x, reply->root_y - origin.y};
  }

  // Called by what post() runs, under sendLock_.

  void movePointer(Point position) {
    const auto origin = globalOrigin();
    const auto x =
        static_cast<std::int16_t>(std::lround(std::clamp(position.x + origin.x, -32768.0, 32767.0)));
    const auto y =
        static_cast<std::int16_t>(std::lround(std::clamp(position.y + origin.y, -32768.0, 32767.0)));
    xcb_test_fake_input(*connection_, XCB_MOTION_NOTIFY, 0, XCB_CURRENT_TIME, connection_->root(), x, y, 0);
  }

  void button(std::uint8_t number, bool isDown) {
    xcb_test_fake_input(*connection_, isDown ? XCB_BUTTON_PRESS : XCB_BUTTON_RELEASE, number,
                        XCB_CURRENT_TIME, XCB_NONE, 0, 0, 0);
  }

  void scroll(std::size_t axis, std::int32_t pixels) {
    auto& collected = collected_.at(axis);
    if ((pixels > 0 && collected < 0) || (pixels < 0 && collected > 0)) collected = 0;
    collected += pixels;
    const int steps = collected / kPixelsPerStep;
    collected -= steps * kPixelsPerStep;
    const auto number = static_cast<std::uint8_t>(kFirstWheelButton + 2 * axis + (steps < 0 ? 1 : 0));
    for (int step = 0; step < std::abs(steps); ++step) {
      button(number, true);
      button(number, false);
    }
  }

  void key(xkb_keysym_t symbol, bool isDown) {
    if (!map_->refresh()) return;
    auto found = map_->ownKey(symbol);
    if (!found || found->needsShift) found = map_->anyKey(symbol);
    if (!found) return;
    sendKey(*connection_, found->code, isDown);
    noteLending();
  }

  void type(const std::u16string& text) {
    TextTyper(*connection_, *map_).type(text);
    noteLending();
  }

  void flush() { xcb_flush(*connection_); }

 private:
  void runWaiting(const std::function<void(Injector&)>& send) {
    if (!isClosed_) {
      std::lock_guard guard(sendLock_);
      if (connectLocked()) send(*this);
    }
    std::lock_guard order(orderLock_);
    --waiting_;
  }

  bool connectLocked() {
    if (connection_ && !connection_->isBroken()) {
      // Nobody else reads this connection's events; notices about mappings would pile up.
      while (const XcbOwned<xcb_generic_event_t> event{xcb_poll_for_event(*connection_)}) continue;
      return !connection_->isBroken();
    }
    map_.reset();
    isLentOut_ = false;
    connection_.reset();
    try {
      auto connection = X11Connection::open(displayName_);
      if (!connection->extension(xcb_test_id) || !connection->extension(xcb_xkb_id)) return false;
      waitForReply(*connection, xcb_xkb_use_extension_reply, xcb_xkb_use_extension(*connection, 1, 0));
      connection_ = std::move(connection);
      map_ = std::make_unique<KeyboardMap>(*connection_, clock_);
      collected_ = {};
      return true;
    } catch (const X11Error&) {
      return false;  // the caller's event fails, and the viewer is told
    }
  }

  Point globalOrigin() const { return readDisplayLayout(*connection_).globalOrigin(); }

  void noteLending() {
    isLentOut_ = map_->isLentOut();
    if (map_->hasLent()) scheduleGiveBack();
  }

  void scheduleGiveBack() {
    giveBack_.cancel();
    if (!queue_) return;  // closing gives back everything
    giveBack_ = queue_->postAfter(kLendingTime, [this] {
      std::lock_guard guard(sendLock_);
      if (!map_) return;
      map_->giveBack(kLendingTime);
      noteLending();
    });
  }

  const std::string displayName_;
  const std::shared_ptr<const Clock> clock_;
  // Typing holds sendLock_ for long; who holds orderLock_ takes sendLock_ only while nothing waits, so that
  // nobody but the typing thread ever waits for a key code.
  std::mutex orderLock_;               // guards waiting_; taken before sendLock_
  int waiting_ = 0;                    // events on the queue, or being sent from it
  std::atomic<bool> isClosed_{false};  // written under orderLock_
  std::mutex sendLock_;                // guards the connection and what belongs to it
  std::unique_ptr<X11Connection> connection_;
  std::unique_ptr<KeyboardMap> map_;    // of connection_
  std::array<int, 2> collected_{};      // pixels of a wheel that do not make a step yet: vertical, horizontal
  std::atomic<bool> isLentOut_{false};  // what map_ says, written under sendLock_
  DelayedWork giveBack_;
  std::unique_ptr<ThreadQueue> queue_;  // taken away by close(), under sendLock_
};

namespace {

using Injector = XTestInputEvents::Injector;

class Event final : public InputEvent {
 public:
  using Send = std::function<void(Injector&)>;
  enum class Kind { pointer, keyDown, keyUp };
  Event(std::shared_ptr<Injector> injector, Kind kind, Send send)
      : injector_(std::move(injector)), kind_(kind), send_(std::move(send)) {}

  void setUnicodeString(std::u16string_view text) override {
    hasText_ = true;
    // The press types the text; its release has nothing more to say.
    send_ = [typed =
                 std::u16string(kind_ == Kind::keyDown ? text : std::u16string_view())](Injector& injector) {
      if (!typed.empty()) injector.type(typed);
    };
  }

  void post() override {
    const bool mayWait = hasText_ || (kind_ != Kind::pointer && injector_->isLentOut());
    injector_->post(
        [send = send_](Injector& injector) {
          send(injector);
          injector.flush();
        },
        mayWait);
  }

 private:
  const std::shared_ptr<Injector> injector_;
  const Kind kind_;
  Send send_;
  bool hasText_ = false;
};

class Source final : public InputEventSource {
 public:
  explicit Source(std::shared_ptr<Injector> injector) : injector_(std::move(injector)) {}

  std::unique_ptr<InputEvent> mouseEvent(MouseEventType type, Point position, MouseButton button) override {
    const std::uint8_t number = button == MouseButton::right ? 3 : 1;
    return make([type, position, number](Injector& injector) {
      injector.movePointer(position);
      switch (type) {
        case MouseEventType::leftDown:
        case MouseEventType::rightDown:
          injector.button(number, true);
          break;
        case MouseEventType::leftUp:
        case MouseEventType::rightUp:
          injector.button(number, false);
          break;
        case MouseEventType::moved:
        case MouseEventType::leftDragged:
          break;
      }
    });
  }

  std::unique_ptr<InputEvent> scrollEvent(std::int32_t wheel1, std::int32_t wheel2) override {
    return make([wheel1, wheel2](Injector& injector) {
      injector.scroll(0, wheel1);
      injector.scroll(1, wheel2);
    });
  }

  std::unique_ptr<InputEvent> keyboardEvent(std::uint16_t keyCode, bool isDown) override {
    const auto symbol = symbolOfVirtualKey(keyCode);
    if (!symbol && keyCode != 0) return nullptr;
    return std::make_unique<Event>(injector_, isDown ? Event::Kind::keyDown : Event::Kind::keyUp,
                                   [symbol, isDown](Injector& injector) {
                                     if (symbol) injector.key(*symbol, isDown);
                                   });
  }

 private:
  std::unique_ptr<InputEvent> make(Event::Send send) {
    return std::make_unique<Event>(injector_, Event::Kind::pointer, std::move(send));
  }

  const std::shared_ptr<Injector> injector_;
};

}  // namespace

XTestInputEvents::XTestInputEvents(std::string displayName, std::shared_ptr<const Clock> clock)
    : injector_(std::make_shared<Injector>(std::move(displayName), std::move(clock))) {}

XTestInputEvents::~XTestInputEvents() {
  injector_->close();
}

std::unique_ptr<InputEventSource> XTestInputEvents::createSource() {
  return injector_->connect() ? std::make_unique<Source>(injector_) : nullptr;
}

std::optional<Point> XTestInputEvents::cursorLocation() {
  return injector_->cursorLocation();
}

std::unique_ptr<InputEvent> XTestInputEvents::systemDefinedEvent(const SystemDefinedEvent& description) {
  constexpr std::int64_t kStateDown = 0x0A;
  const bool isPlayKey = description.subtype == 8 && (description.data1 >> 16) == kPlayKeyType;
  if (!isPlayKey || !injector_->connect()) return nullptr;
  const bool isDown = ((description.data1 >> 8) & 0xFF) == kStateDown;
  return std::make_unique<Event>(injector_, isDown ? Event::Kind::keyDown : Event::Kind::keyUp,
                                 [isDown](Injector& injector) { injector.key(kPlaySymbol, isDown); });
}

}  // namespace kestrune::linux_platform
