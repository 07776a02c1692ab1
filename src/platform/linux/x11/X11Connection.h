#pragma once

#include <xcb/xcb.h>

#include <condition_variable>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "platform/linux/x11/X11Watchdog.h"
#include "runtime/Error.h"

namespace kestrune::linux_platform {

/// A failure at the X server, with a text for a person.
class X11Error final : public Error {
 public:
  explicit X11Error(std::string text) : text_(std::move(text)) {}
  std::string localizedDescription() const override { return text_; }
  const char* what() const noexcept override { return text_.c_str(); }

 private:
  std::string text_;
};

/// Where an X server is, and how to be let in.
struct X11Address {
  // An address is often just a name.
  // NOLINTNEXTLINE(google-explicit-constructor)
  X11Address(std::string displayName = {}, std::string key = {})
      : name(std::move(displayName)), cookie(std::move(key)) {}

  std::string name;    // such as ":1"; empty: the DISPLAY of the environment
  std::string cookie;  // the server's MIT-MAGIC-COOKIE-1; empty: what the environment's authority file holds
};

/// What xcb hands out with malloc: replies, errors and events.
struct FreeDeleter {
  void operator()(void* memory) const { std::free(memory); }
};
template <class T>
using XcbOwned = std::unique_ptr<T, FreeDeleter>;

/// Ends another thread's use of an X server: what is being opened with it fails, and connections that were
/// opened with it break. Any thread may call.
class X11Interrupt {
 public:
  void interrupt();
  bool isInterrupted() const;

 private:
  friend class X11Connection;

  mutable std::mutex lock_;  // guards everything below, and the state of attempts to connect
  std::condition_variable changed_;
  bool isInterrupted_ = false;
  std::vector<int> descriptors_;  // of open connections
};

/// A connection to an X server, closed at the end. xcb itself may be called from any thread; the object's own
/// members do not change after open().
///
/// Another client's grab of the server does not hold it up (XTestGrabControl), where the server has XTEST. No
/// wait for the server lasts longer than X11Watchdog::kAnswerLimit if it goes through the members and
/// functions here; the connection is broken then, and isHung().
class X11Connection {
 public:
  /// Throws an X11Error that names the display, also if it does not answer in time, or if `interrupt` ends
  /// the wait.
  static std::unique_ptr<X11Connection> open(const X11Address& address = {},
                                             std::shared_ptr<X11Interrupt> interrupt = nullptr);
  ~X11Connection();
  X11Connection(const X11Connection&) = delete;
  X11Connection& operator=(const X11Connection&) = delete;

  xcb_connection_t* get() const { return connection_; }
  operator xcb_connection_t*() const { return connection_; }
  int descriptor() const { return xcb_get_file_descriptor(connection_); }
  /// The screen that the display's name chose. Its size is that of the moment of connecting: ask
  /// xcb_get_geometry or the display layout for the present one.
  const xcb_screen_t& screen() const { return *screen_; }
  xcb_window_t root() const { return screen_->root; }
  /// True once the server has gone away or broken the protocol; every later call then fails at once. Noticed
  /// at the next read or write only.
  bool isBroken() const { return xcb_connection_has_error(connection_) != 0; }
  /// Whether it broke because the server did not answer in time.
  bool isHung() const { return line_->isHung(); }
  /// Throws the X11Error of a connection that broke.
  [[noreturn]] void failLost() const;

  struct Extension {
    std::uint8_t majorOpcode = 0;
    std::uint8_t firstEvent = 0;
  };
  /// Asks the server (once per connection and extension); nothing if it does not have the extension.
  std::optional<Extension> extension(xcb_extension_t& id) const;
  /// Writes what was requested.
  void flush() const;
  /// Waits until a checked request has been carried out; the error that it met, if any.
  XcbOwned<xcb_generic_error_t> check(xcb_void_cookie_t request) const;
  /// One exchange with the server. False if the connection is broken.
  bool roundTrip() const;

  /// Limits the time of the xcb calls made while it lives, as one. May be nested.
  class LimitedWait {
   public:
    explicit LimitedWait(const X11Connection& connection)
        : line_(*connection.line_), isOutermost_(X11Watchdog::beginWait(line_)) {}
    ~LimitedWait() {
      if (isOutermost_) X11Watchdog::endWait(line_);
    }
    LimitedWait(const LimitedWait&) = delete;
    LimitedWait& operator=(const LimitedWait&) = delete;

   private:
    X11Watchdog::Line& line_;
    const bool isOutermost_;
  };

 private:
  class Attempt;
  X11Connection(xcb_connection_t* connection, xcb_screen_t* screen, std::string name,
                std::shared_ptr<X11Interrupt> interrupt);

  xcb_connection_t* const connection_;
  xcb_screen_t* const screen_;
  const std::string name_;
  const std::shared_ptr<X11Watchdog> watchdog_;
  const std::shared_ptr<X11Watchdog::Line> line_;
  const std::shared_ptr<X11Interrupt> interrupt_;
};

/// "BadMatch (8), request 130.4" for logs and for the detail of an X11Error; "no answer" for null.
std::string describe(const xcb_generic_error_t* error);

/// Calls an xcb request that has a reply and waits: `reply(connection, xcb_x_reply, xcb_x(connection, ...))`.
/// Null if the server answered with an error, which is then in `failure` if given, or if the connection is
/// broken.
template <class Reply, class Cookie>
XcbOwned<Reply> waitForReply(const X11Connection& connection,
                             Reply* (*function)(xcb_connection_t*, Cookie, xcb_generic_error_t**),
                             Cookie cookie, XcbOwned<xcb_generic_error_t>* failure = nullptr) {
  const X11Connection::LimitedWait wait(connection);
  xcb_generic_error_t* error = nullptr;
  XcbOwned<Reply> reply(function(connection.get(), cookie, &error));
  XcbOwned<xcb_generic_error_t> owned(error);
  if (failure != nullptr) *failure = std::move(owned);
  return reply;
}

}  // namespace kestrune::linux_platform
