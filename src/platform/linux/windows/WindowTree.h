#pragma once

#include <cstdint>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "platform/Applications.h"
#include "platform/Geometry.h"
#include "platform/linux/windows/WindowAtoms.h"
#include "platform/linux/x11/X11Connection.h"

namespace kestrune::linux_platform {

/// The space between two rectangles, one inside the other; pixels.
struct Extents {
  int left = 0;
  int right = 0;
  int top = 0;
  int bottom = 0;
};
PixelRect grown(const PixelRect& area, const Extents& by);
PixelRect shrunk(const PixelRect& area, const Extents& by);

/// A top-level window as its client made it, without a window manager's frame.
struct ClientWindow {
  xcb_window_t id = XCB_NONE;
  ProcessID owner = 0;     // 0: not known, or a process of another machine
  int layer = 0;           // as in WindowInfo
  bool isDesktop = false;  // the desktop itself
  bool isDialog = false;
  bool isOnScreen = false;
  bool isMinimized = false;  // it can be brought back; what is neither is on another desktop
  bool isMaximized = false;  // in both directions
  bool isHeld = false;       // maximized in any direction, full screen or shaded: it does not move freely
  Extents invisible;         // of its area: shadows that the client draws
  PixelRect area;            // of the window in pixels of the root window, without a border of the X server
};

/// What windows there are. Asks the server; confined to the thread of the connection.
class WindowTree {
 public:
  WindowTree(const X11Connection& connection, const WindowAtoms& atoms);

  /// Whether a window manager runs that follows EWMH.
  bool isManaged() const { return manager_ != XCB_NONE; }
  bool managerSupports(xcb_atom_t name) const { return supported_.contains(name); }
  /// The topmost first; none on a broken connection. Where no window manager lists them: the children of the
  /// root window and what a frame holds.
  std::vector<ClientWindow> windows() const;
  /// One window anew; nothing if it is gone.
  std::optional<ClientWindow> look(const ClientWindow& window) const;
  /// What stands around the window's area: a window manager's frame, or the server's border.
  Extents frameOf(const ClientWindow& window) const;

 private:
  class Question;

  /// The topmost last, as the server and EWMH have it.
  std::vector<xcb_window_t> candidates() const;
  xcb_window_t clientIn(xcb_window_t top) const;
  /// The child of the root window that a window is, or is in.
  xcb_window_t topOf(xcb_window_t window) const;
  std::vector<xcb_window_t> childrenOf(xcb_window_t window) const;

  const X11Connection& connection_;
  const WindowAtoms& atoms_;
  const xcb_window_t manager_;
  std::set<xcb_atom_t> supported_;
  std::uint32_t desktop_ = 0;  // the present one
  std::string machine_;        // this one's name
};

}  // namespace kestrune::linux_platform
