#pragma once

#include <xcb/xcb.h>

#include <cstdint>
#include <cstdlib>
#include <memory>
#include <optional>
#include <string>

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

/// What xcb hands out with malloc: replies, errors and events.
struct FreeDeleter {
  void operator()(void* memory) const { std::free(memory); }
};
template <class T>
using XcbOwned = std::unique_ptr<T, FreeDeleter>;

/// A connection to an X server, closed at the end. xcb itself may be called from any thread; the object's own
/// members do not change after open().
class X11Connection {
 public:
  /// An empty name means the DISPLAY of the environment. Throws an X11Error that names the display.
  static std::unique_ptr<X11Connection> open(const std::string& displayName = {});
  ~X11Connection();
  X11Connection(const X11Connection&) = delete;
  X11Connection& operator=(const X11Connection&) = delete;

  xcb_connection_t* get() const { return connection_; }
  operator xcb_connection_t*() const { return connection_; }
  /// The screen that the display's name chose. Its size is that of the moment of connecting: ask
  /// xcb_get_geometry or the display layout for the present one.
  const xcb_screen_t& screen() const { return *screen_; }
  xcb_window_t root() const { return screen_->root; }
  /// True once the server has gone away or broken the protocol; every later call then fails at once. Noticed
  /// at the next read or write only.
  bool isBroken() const { return xcb_connection_has_error(connection_) != 0; }

  struct Extension {
    std::uint8_t majorOpcode = 0;
    std::uint8_t firstEvent = 0;
    std::uint8_t firstError = 0;
  };
  /// Asks the server (once per connection and extension); nothing if it does not have the extension.
  std::optional<Extension> extension(xcb_extension_t& id) const;

 private:
  X11Connection(xcb_connection_t* connection, xcb_screen_t* screen)
      : connection_(connection), screen_(screen) {}

  xcb_connection_t* const connection_;
  xcb_screen_t* const screen_;
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
  xcb_generic_error_t* error = nullptr;
  XcbOwned<Reply> reply(function(connection.get(), cookie, &error));
  XcbOwned<xcb_generic_error_t> owned(error);
  if (failure != nullptr) *failure = std::move(owned);
  return reply;
}

}  // namespace kestrune::linux_platform
