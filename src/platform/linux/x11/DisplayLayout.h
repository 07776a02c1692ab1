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
  /// What panels and docks leave of the area; empty where that is not known.
  PixelRect workArea = {};
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
  /// The work area in global points, or the bounds where it is not known.
  Rect visibleBounds(const X11Display& display) const;
};

/// 0 without RandR, else major * 100 + minor, of 1.`newest` at the most.
int randrVersion(const X11Connection& connection, std::uint32_t newest = 5);

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

/// The work areas as the window manager tells them (Extended Window Manager Hints 1.5, _NET_WORKAREA of the
/// present desktop), which is one rectangle for all displays: each gets what it shares with it, and all of
/// its area where they share nothing or no window manager runs.
class WorkAreas {
 public:
  /// Makes the server announce changes on the connection, beside those of a DisplayLayoutWatch that was made
  /// before.
  explicit WorkAreas(const X11Connection& connection);

  /// Asks the server and fills in the work areas of the layout.
  void read(DisplayLayout& layout) const;
  /// Whether the work areas may be others since.
  bool isChange(const xcb_generic_event_t& event) const;

 private:
  const X11Connection& connection_;
  std::vector<xcb_atom_t> atoms_;
};

}  // namespace kestrune::linux_platform
