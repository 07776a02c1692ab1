#include "platform/linux/input/InputInjector.h"

#define explicit explicit_  // a name in the header of the keyboard extension
#include <xcb/xkb.h>
#undef explicit
#include <xcb/xtest.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <utility>

#include "platform/linux/input/TextTyper.h"
#include "platform/linux/input/XTestInputEvents.h"
#include "runtime/Log.h"

namespace kestrune::linux_platform {
namespace {

constexpr Logger kLogger("App");
constexpr Duration kRetryDelay = std::chrono::seconds(1);
constexpr Duration kBorrowingTime = std::chrono::seconds(2);
/// Events are drained this often, or the notices of key mappings, which every connection gets, pile up.
constexpr Duration kReadPeriod = std::chrono::minutes(1);
constexpr std::uint8_t kFirstWheelButton = 4;  // 4 up, 5 down, 6 left, 7 right

std::int16_t coordinate(double value) {
  return static_cast<std::int16_t>(std::lround(std::clamp(value, -32768.0, 32767.0)));
}

}  // namespace

InputInjector::InputInjector(std::shared_ptr<const X11Server> server, std::shared_ptr<const Clock> clock)
    : server_(std::move(server)),
      clock_(std::move(clock)),
      queue_(std::make_unique<ThreadQueue>("x11-input", clock_)) {
  const std::lock_guard guard(lock_);
  requestConnection(Duration::zero());
  queue_->post([this] { readRegularly(); });
}

void InputInjector::close() {
  const auto isFinished = [this] { return isFinished_; };
  std::unique_lock guard(lock_);
  if (state_ != State::closed) {
    state_ = State::closed;
    backlog_.clear();
    queue_->post([this] { finish(); });
  }
  if (closed_.wait_for(guard, kCloseLimit, isFinished)) return;
  // A server that does not answer keeps what it has; the journal is there for the next start.
  interrupt_->interrupt();
  closed_.wait(guard, isFinished);
}

bool InputInjector::isReady() {
  const std::lock_guard guard(lock_);
  return state_ == State::connecting || state_ == State::connected;
}

void InputInjector::post(QueuedInput input, std::optional<Point> moveTo) {
  const std::lock_guard guard(lock_);
  if (state_ == State::lost || state_ == State::closed) return;
  if (!backlog_.push(std::move(input)) && lost_++ == 0) {
    kLogger.error("The X display does not keep up with the input; some is dropped");
  }
  if (moveTo) {
    const Point origin = server_->state()->layout.globalOrigin();
    pointer_ = Point{moveTo->x + origin.x, moveTo->y + origin.y};
    ++moves_;
  }
  if (!std::exchange(isSending_, true)) queue_->post([this] { sendWaiting(); });
}

std::optional<Point> InputInjector::cursorLocation() {
  const std::lock_guard guard(lock_);
  if (state_ == State::lost || state_ == State::closed) return std::nullopt;
  if (!std::exchange(isPointerAsked_, true)) queue_->post([this] { askForPointer(); });
  if (!pointer_) return std::nullopt;
  const Point origin = server_->state()->layout.globalOrigin();
  return Point{std::round(pointer_->x) - origin.x, std::round(pointer_->y) - origin.y};
}

void InputInjector::requestConnection(Duration delay) {
  if (std::exchange(isConnectionAwaited_, true)) return;
  queue_->postAfter(delay, [this] { connect(); });
}

void InputInjector::connect() {
  bool isConnected = true;
  try {
    openConnection();
  } catch (const X11Error&) {
    isConnected = false;  // the X11Server says why
    connection_.reset();
    isReplacement_ = false;
  }
  {
    const std::lock_guard guard(lock_);
    isConnectionAwaited_ = false;
    if (state_ == State::closed) return;
    state_ = isConnected ? State::connected : State::lost;
    if (!isConnected) {
      backlog_.clear();
      requestConnection(kRetryDelay);
      return;
    }
    if (!backlog_.isEmpty() && !std::exchange(isSending_, true)) queue_->post([this] { sendWaiting(); });
  }
  askForPointer();
}

void InputInjector::openConnection() {
  auto connection = X11Connection::open(server_->address(), interrupt_);
  if (!connection->extension(xcb_test_id) || !connection->extension(xcb_xkb_id)) {
    throw X11Error("The X display lacks the XTEST or XKEYBOARD extension.");
  }
  waitForReply(*connection, xcb_xkb_use_extension_reply, xcb_xkb_use_extension(*connection, 1, 0));
  connection_ = std::move(connection);
  journal_ = std::make_unique<InputJournal>(*connection_, std::exchange(journalWindow_, XCB_NONE));
  journalWindow_ = journal_->window();
  // What a process that died held, and what this one did when it lost the connection before.
  for (const InputJournal::Held& left : journal_->readHeld()) held_.insert(left);
  releaseAll();
  map_ = std::make_unique<KeyboardMap>(*connection_, *journal_, clock_);
  collected_ = {};
  connection_->flush();
  checkConnection();
  if (!connection_) throw X11Error("The connection to the X display was lost.");
}

void InputInjector::sendWaiting() {
  if (replaceEndedConnection()) return;
  for (;;) {
    std::optional<QueuedInput> next;
    {
      const std::lock_guard guard(lock_);
      if (connection_) next = backlog_.pop();
      if (!next) {
        // Without a connection, connect() goes on.
        isSending_ = false;
        lost_ = 0;
        return;
      }
    }
    next->send(*this);
    connection_->flush();
    readEvents();
    checkConnection();
    isReplacement_ = false;
  }
}

/// The server may have ended and come back while there was nothing to send: what waits is for the new one.
/// Once, so that a server that ends every connection is left alone for a while.
bool InputInjector::replaceEndedConnection() {
  if (connection_) readEvents();
  if (!connection_ || !connection_->isBroken() || std::exchange(isReplacement_, true)) {
    checkConnection();
    return false;
  }
  closeConnection();
  const std::lock_guard guard(lock_);
  isSending_ = false;
  if (state_ == State::closed) return true;
  state_ = State::connecting;
  requestConnection(Duration::zero());
  return true;
}

void InputInjector::readEvents() {
  while (const XcbOwned<xcb_generic_event_t> event{xcb_poll_for_event(*connection_)}) continue;
}

void InputInjector::readRegularly() {
  if (connection_) readEvents();
  checkConnection();
  queue_->postAfter(kReadPeriod, [this] { readRegularly(); });
}

void InputInjector::askForPointer() {
  std::uint64_t moves = 0;
  bool isLater = false;
  {
    const std::lock_guard guard(lock_);
    isPointerAsked_ = false;
    moves = moves_;
    isLater = !backlog_.isEmpty();  // what waits may move the pointer yet
  }
  if (!connection_ || isLater) return;
  readEvents();
  const auto reply = waitForReply(*connection_, xcb_query_pointer_reply,
                                  xcb_query_pointer(*connection_, connection_->root()));
  checkConnection();
  if (!reply) return;
  const std::lock_guard guard(lock_);
  if (moves_ == moves) {
    pointer_ = Point{static_cast<double>(reply->root_x), static_cast<double>(reply->root_y)};
  }
}

void InputInjector::checkConnection() {
  if (connection_ && connection_->isBroken()) dropConnection();
}

void InputInjector::closeConnection() {
  map_.reset();
  journal_.reset();
  connection_.reset();
  giveBack_.cancel();
}

void InputInjector::dropConnection() {
  closeConnection();
  const std::lock_guard guard(lock_);
  backlog_.clear();
  pointer_.reset();
  if (state_ == State::closed) return;
  state_ = State::lost;
  requestConnection(kRetryDelay);
}

void InputInjector::movePointer(Point position) {
  const Point origin = server_->state()->layout.globalOrigin();
  xcb_test_fake_input(*connection_, XCB_MOTION_NOTIFY, 0, XCB_CURRENT_TIME, connection_->root(),
                      coordinate(position.x + origin.x), coordinate(position.y + origin.y), 0);
}

void InputInjector::button(std::uint8_t number, bool isDown) {
  hold({true, number}, isDown);
}

/// Journals before the press and erases after the release, so that the journal never misses what is held.
void InputInjector::hold(InputJournal::Held control, bool isDown) {
  if (isDown && held_.insert(control).second) journal_->noteHeld(held_);
  if (control.isButton) {
    fake(isDown ? XCB_BUTTON_PRESS : XCB_BUTTON_RELEASE, control.code);
  } else {
    sendKey(*connection_, control.code, isDown);
  }
  if (!isDown && held_.erase(control) != 0) journal_->noteHeld(held_);
}

void InputInjector::releaseAll() {
  for (const InputJournal::Held& control : std::set(held_)) hold(control, false);
}

void InputInjector::fake(int type, std::uint8_t code) {
  xcb_test_fake_input(*connection_, static_cast<std::uint8_t>(type), code, XCB_CURRENT_TIME, XCB_NONE, 0, 0,
                      0);
}

void InputInjector::scroll(std::size_t axis, std::int32_t pixels) {
  auto& collected = collected_.at(axis);
  if ((pixels > 0 && collected < 0) || (pixels < 0 && collected > 0)) collected = 0;
  collected += pixels;
  const int steps = collected / XTestInputEvents::kPixelsPerStep;
  collected -= steps * XTestInputEvents::kPixelsPerStep;
  const auto number = static_cast<std::uint8_t>(kFirstWheelButton + 2 * axis + (steps < 0 ? 1 : 0));
  for (int step = 0; step < std::abs(steps); ++step) {
    fake(XCB_BUTTON_PRESS, number);
    fake(XCB_BUTTON_RELEASE, number);
  }
}

void InputInjector::key(xkb_keysym_t symbol, bool isDown) {
  if (!map_->refresh()) return;
  auto found = map_->ownKey(symbol);
  if (!found || found->needsShift) found = map_->anyKey(symbol);
  if (!found) return;
  hold({false, found->code}, isDown);
  scheduleGiveBack();
}

void InputInjector::type(const std::u16string& text) {
  TextTyper(*connection_, *map_).type(text);
  scheduleGiveBack();
}

void InputInjector::scheduleGiveBack() {
  if (!map_->hasBorrowed()) return;
  giveBack_.cancel();
  giveBack_ = queue_->postAfter(kBorrowingTime, [this] {
    if (!map_) return;
    map_->giveBack(kBorrowingTime);
    connection_->flush();
    scheduleGiveBack();
    checkConnection();
  });
}

void InputInjector::finish() {
  if (connection_) {
    releaseAll();
    map_.reset();
    connection_->flush();
    // Answered when the server has handled all of it.
    connection_->roundTrip();
    journal_.reset();
    connection_.reset();
  }
  const std::lock_guard guard(lock_);
  isFinished_ = true;
  closed_.notify_all();
}

}  // namespace kestrune::linux_platform
