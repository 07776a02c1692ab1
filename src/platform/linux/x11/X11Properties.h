#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "platform/linux/x11/X11Connection.h"

namespace kestrune::linux_platform {

/// The atoms of names, made where the server has none, in one exchange. XCB_NONE on a broken connection.
std::vector<xcb_atom_t> internAtoms(const X11Connection& connection,
                                    const std::vector<std::string_view>& names);

/// A property of a window, asked for at construction and waited for with the first use, so that many are had
/// in one exchange. What is not there, or of another format, is empty. Confined to one thread.
class X11Property {
 public:
  /// Reads 4 KiB at the most, or `most` values of 32 bits.
  X11Property(const X11Connection& connection, xcb_window_t window, xcb_atom_t property,
              std::uint32_t most = 1024);
  X11Property(X11Property&& other) noexcept;
  ~X11Property();

  /// Values of format 32.
  std::vector<std::uint32_t> values();
  /// The first value.
  std::optional<std::uint32_t> value();
  /// Bytes of format 8.
  std::string text();

 private:
  XcbOwned<xcb_get_property_reply_t> take();

  const X11Connection& connection_;
  std::optional<xcb_get_property_cookie_t> cookie_;
};

/// The window manager that runs on the screen: the window by which it is known (Extended Window Manager Hints
/// 1.5, _NET_SUPPORTING_WM_CHECK), or XCB_NONE. Its properties outlive it; this does not take it for running
/// then.
xcb_window_t runningWindowManager(const X11Connection& connection, xcb_atom_t supportingWmCheck);

}  // namespace kestrune::linux_platform
