#pragma once

#include <optional>
#include <vector>

#include "platform/Geometry.h"
#include "platform/linux/x11/X11Connection.h"

namespace kestrune::linux_platform {

/// One display as the X server shows it. X has no points: one point is one pixel.
struct X11Display {
  DisplayID id = 0;  // the RandR output's identifier; the root window's where there is no RandR
  PixelRect area;    // pixels of the root window
};

/// The displays that show something, the main one first: the primary output, else the one at the root's
/// origin, else the first.
struct DisplayLayout {
  std::vector<X11Display> displays;

  const X11Display* find(DisplayID id) const;
  /// Where the global origin (the main display's top left) lies in the root window: a global point plus this
  /// is a position in the root window. 0,0 without displays.
  Point globalOrigin() const;
  /// In global points.
  Rect bounds(const X11Display& display) const;
};

/// Asks the server: RandR 1.5 monitors, else 1.2 outputs, else the root window as the one display. No
/// displays if the connection is broken. Outputs that show the same area (mirrors) are one display.
/// `newestRandr` is the newest version to use of RandR 1, by its minor number.
DisplayLayout readDisplayLayout(const X11Connection& connection, std::uint32_t newestRandr = 5);

/// Makes the server announce changes of its displays on a connection, and knows those announcements. Whoever
/// uses it reads the connection's events.
class DisplayLayoutWatch {
 public:
  explicit DisplayLayoutWatch(const X11Connection& connection);

  /// Whether the layout may be another one since.
  bool isChange(const xcb_generic_event_t& event) const;

 private:
  std::optional<std::uint8_t> randrEvent_;
};

}  // namespace kestrune::linux_platform
