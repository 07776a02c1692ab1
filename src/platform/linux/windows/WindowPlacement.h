#pragma once

#include <array>
#include <chrono>
#include <functional>

#include "platform/linux/windows/WindowTree.h"

namespace kestrune::linux_platform {

/// Moves, shows and raises windows, through the window manager where one runs (EWMH), else by itself. Each
/// call waits for what comes of it until `deadline` at the most. Confined to the thread of the connection.
class WindowPlacement {
 public:
  using Time = std::chrono::steady_clock::time_point;

  WindowPlacement(const X11Connection& connection, const WindowAtoms& atoms, const WindowTree& tree,
                  Time deadline)
      : connection_(connection), atoms_(atoms), tree_(tree), deadline_(deadline) {}

  /// Gives the window with its frame an area of the root window, and brings it to the front. A window that
  /// has the area stays as it is. Where the area is all that windows may cover (`isWholeWorkArea`), the
  /// window is maximized instead of standing there with borders. Whether it took the area.
  bool place(const ClientWindow& window, const PixelRect& area, bool isWholeWorkArea) const;
  /// Brings back a minimized window.
  void show(const ClientWindow& window) const;
  /// To the front, with the keyboard.
  void activate(const ClientWindow& window) const;

 private:
  using Condition = std::function<bool(const ClientWindow&)>;

  /// The window once it is so; nothing if it is not by the deadline.
  std::optional<ClientWindow> await(const ClientWindow& window, const Condition& isSo) const;
  bool has(const ClientWindow& window, const PixelRect& area) const;
  void release(const ClientWindow& window) const;
  void move(const ClientWindow& window, const PixelRect& area) const;
  void changeState(const ClientWindow& window, bool isAdded, xcb_atom_t first, xcb_atom_t second) const;
  void askManager(const ClientWindow& window, xcb_atom_t what,
                  const std::array<std::uint32_t, 5>& values) const;

  const X11Connection& connection_;
  const WindowAtoms& atoms_;
  const WindowTree& tree_;
  const Time deadline_;
};

}  // namespace kestrune::linux_platform
