#pragma once

#include <xkbcommon/xkbcommon.h>

#include <array>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>

#include "platform/Geometry.h"
#include "platform/linux/input/InputBacklog.h"
#include "platform/linux/input/InputJournal.h"
#include "platform/linux/input/KeyboardMap.h"
#include "platform/linux/x11/X11Server.h"
#include "runtime/Clock.h"
#include "runtime/ThreadQueue.h"

namespace kestrune::linux_platform {

/// Sends events over XTEST from a thread of its own ("x11-input"), which has the connection and alone waits
/// for the server. It connects at once, at once again where an event finds the connection ended, and a second
/// after a failure; what waits when the connection is lost is dropped, since it was meant for a moment that
/// has passed, and what was held is released with the next one.
class InputInjector {
 public:
  InputInjector(std::shared_ptr<const X11Server> server, std::shared_ptr<const Clock> clock);
  ~InputInjector() { close(); }
  InputInjector(const InputInjector&) = delete;
  InputInjector& operator=(const InputInjector&) = delete;

  // Any thread; none of them waits for the server but close().

  /// Whether events can be sent, or may be once the first connection is there.
  bool isReady();
  /// `moveTo`: where the event puts the pointer, in global points.
  void post(QueuedInput input, std::optional<Point> moveTo);
  /// The newest known position in global points; asks for a newer one.
  std::optional<Point> cursorLocation();
  /// Drops what waits, releases what is held, gives key codes back and ends the connection, within
  /// kCloseLimit. Later events do nothing. Not on the thread of this object. Idempotent.
  void close();
  static constexpr std::chrono::seconds kCloseLimit{2};

  // For what post() runs, on the thread of this object.

  void movePointer(Point position);
  void button(std::uint8_t number, bool isDown);
  /// A key of the layout, or a borrowed code, that gives `symbol`.
  void key(xkb_keysym_t symbol, bool isDown);
  void type(const std::u16string& text);
  /// Pixels collect until they make a step of the wheel (XTestInputEvents::kPixelsPerStep).
  void scroll(std::size_t axis, std::int32_t pixels);

 private:
  enum class State { connecting, connected, lost, closed };

  // On the thread.
  void connect();
  void openConnection();
  void sendWaiting();
  void readEvents();
  void readRegularly();
  void askForPointer();
  void checkConnection();
  bool replaceEndedConnection();
  void closeConnection();
  void dropConnection();
  void hold(InputJournal::Held control, bool isDown);
  void releaseAll();
  void fake(int type, std::uint8_t code);
  void scheduleGiveBack();
  void finish();

  /// Under lock_.
  void requestConnection(Duration delay);

  const std::shared_ptr<const X11Server> server_;
  const std::shared_ptr<const Clock> clock_;
  const std::shared_ptr<X11Interrupt> interrupt_ = std::make_shared<X11Interrupt>();

  std::mutex lock_;  // guards everything down to closed_
  State state_ = State::connecting;
  InputBacklog backlog_;
  bool isSending_ = false;            // sendWaiting() is on the queue or runs
  bool isPointerAsked_ = false;       // askForPointer() is on the queue or runs
  bool isConnectionAwaited_ = false;  // connect() is on the queue, or later
  std::optional<Point> pointer_;      // newest known, in pixels of the root window
  std::uint64_t moves_ = 0;           // how often post() has moved it
  std::uint64_t lost_ = 0;            // events that found no room
  bool isFinished_ = false;
  std::condition_variable closed_;

  // The thread's.
  std::unique_ptr<X11Connection> connection_;
  std::unique_ptr<InputJournal> journal_;  // of connection_
  std::unique_ptr<KeyboardMap> map_;       // of connection_
  xcb_window_t journalWindow_ = XCB_NONE;  // of the last connection
  bool isReplacement_ = false;             // the connection is one, and nothing was sent over it yet
  std::set<InputJournal::Held> held_;
  std::array<int, 2> collected_{};  // pixels of a wheel that do not make a step yet: vertical, horizontal
  DelayedWork giveBack_;

  const std::unique_ptr<ThreadQueue> queue_;  // "x11-input"; last, since its work uses the rest
};

}  // namespace kestrune::linux_platform
