#include "platform/linux/x11/X11Properties.h"

#include <utility>

namespace kestrune::linux_platform {

std::vector<xcb_atom_t> internAtoms(const X11Connection& connection,
                                    const std::vector<std::string_view>& names) {
  std::vector<xcb_intern_atom_cookie_t> cookies;
  cookies.reserve(names.size());
  for (const std::string_view name : names) {
    cookies.push_back(xcb_intern_atom(connection, 0, static_cast<std::uint16_t>(name.size()), name.data()));
  }
  std::vector<xcb_atom_t> atoms;
  atoms.reserve(names.size());
  for (const auto cookie : cookies) {
    const auto reply = waitForReply(connection, xcb_intern_atom_reply, cookie);
    atoms.push_back(reply ? reply->atom : xcb_atom_t{XCB_NONE});
  }
  return atoms;
}

X11Property::X11Property(const X11Connection& connection, xcb_window_t window, xcb_atom_t property,
                         std::uint32_t most)
    : connection_(connection),
      cookie_(xcb_get_property(connection, 0, window, property, XCB_GET_PROPERTY_TYPE_ANY, 0, most)) {}

X11Property::X11Property(X11Property&& other) noexcept
    : connection_(other.connection_), cookie_(std::exchange(other.cookie_, std::nullopt)) {}

X11Property::~X11Property() {
  if (cookie_) xcb_discard_reply(connection_, cookie_->sequence);
}

XcbOwned<xcb_get_property_reply_t> X11Property::take() {
  const auto cookie = std::exchange(cookie_, std::nullopt);
  if (!cookie) return nullptr;
  return waitForReply(connection_, xcb_get_property_reply, *cookie);
}

std::vector<std::uint32_t> X11Property::values() {
  const auto reply = take();
  if (!reply || reply->format != 32) return {};
  const auto* first = static_cast<const std::uint32_t*>(xcb_get_property_value(reply.get()));
  return {first, first + reply->value_len};
}

std::optional<std::uint32_t> X11Property::value() {
  const auto all = values();
  return all.empty() ? std::nullopt : std::optional(all.front());
}

std::string X11Property::text() {
  const auto reply = take();
  if (!reply || reply->format != 8) return {};
  return {static_cast<const char*>(xcb_get_property_value(reply.get())), reply->value_len};
}

xcb_window_t runningWindowManager(const X11Connection& connection, xcb_atom_t supportingWmCheck) {
  const auto window = X11Property(connection, connection.root(), supportingWmCheck, 1).value();
  if (!window || *window == XCB_NONE) return XCB_NONE;
  // Its own window says the same for as long as it lives.
  return X11Property(connection, *window, supportingWmCheck, 1).value() == window ? *window
                                                                                  : xcb_window_t{XCB_NONE};
}

}  // namespace kestrune::linux_platform
