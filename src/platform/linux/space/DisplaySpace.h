#pragma once

#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "platform/Displays.h"
#include "platform/InputEvents.h"
#include "platform/PrivacyPermissions.h"
#include "platform/ScreenStream.h"
#include "platform/Windows.h"

namespace kestrune::linux_platform {

/// The ports of one display server in its own terms: its main display's top left is the origin, and displays
/// have the server's identifiers.
struct ServerPorts {
  std::shared_ptr<const Displays> displays;
  std::shared_ptr<PrivacyPermissions> permissions;
  std::shared_ptr<InputEvents> inputEvents;
  std::shared_ptr<ScreenCapture> screenCapture;
  std::shared_ptr<Windows> windows;           // may be null
  std::function<void(ProcessID)> activate;    // brings the process' windows to the front; may be empty
  std::function<void(ProcessID)> showHidden;  // likewise, those that are minimized
};

/// A display server with its place in the space. Immutable; translates between its own terms and the global
/// ones.
struct Region {
  DisplayID id = 0;  // of its one display; 0: the desktop, whose displays keep their identifiers
  Point origin;      // global points
  ServerPorts ports;
  std::vector<std::string> environment;  // NAME=value: what a program needs to open its windows here

  bool isDesktop() const { return id == 0; }
  /// Those that show something, global identifiers; the main one first.
  std::vector<DisplayID> displays() const;
  /// The server's identifier; nothing if the display is not one of this region.
  std::optional<DisplayID> localDisplay(DisplayID display) const;

  Point toGlobal(Point local) const { return {local.x + origin.x, local.y + origin.y}; }
  Point toLocal(Point global) const { return {global.x - origin.x, global.y - origin.y}; }
  Rect toGlobal(Rect local) const;
  Rect toLocal(Rect global) const;
  /// Of one of its displays, global; an empty one for others.
  Rect bounds(DisplayID display) const;
  /// The point, or the nearest one on a display. Global.
  Point nearest(Point global) const;
};
using SharedRegion = std::shared_ptr<const Region>;

/// All displays in one global coordinate space: the desktop's, and private ones beside it, each a server of
/// its own. Any thread may call; no call waits for a server. The adapters of this folder route each port by
/// it.
class DisplaySpace {
 public:
  explicit DisplaySpace(ServerPorts desktop);

  /// For a private display. Unlike every other of the process, and unlike a display server's own.
  static DisplayID newDisplayID();

  /// The desktop first, which is always there.
  std::vector<SharedRegion> regions() const;
  /// The region that a display is in; null for one that is not active.
  SharedRegion regionOf(DisplayID display) const;
  /// The region that shows the point, or is nearest to it; null where there are no displays.
  SharedRegion regionAt(Point global) const;
  /// The region with this Region::id; null if there is none.
  SharedRegion region(DisplayID id) const;
  /// The first region with a display, else the desktop's.
  SharedRegion mainRegion() const;

  /// Adds a private display, to the right of all others. `id` is one of newDisplayID().
  void add(DisplayID id, ServerPorts ports, std::vector<std::string> environment);
  void remove(DisplayID id);
  /// Moves private displays; false, and none is moved, if one of them is not there.
  bool setOrigins(const std::map<DisplayID, Point>& origins);

  /// What a program's environment needs for its windows to open on a display: NAME=value, to replace what is
  /// there. A private display that has gone gives one in which no window can open.
  std::vector<std::string> environmentOf(DisplayID display) const;

  /// The region (Region::id) that keys go to: that of the last button press or activation.
  DisplayID keyboardFocus() const;
  void setKeyboardFocus(DisplayID regionID);

 private:
  Point freeOrigin() const;

  mutable std::mutex lock_;  // guards the rest
  std::vector<SharedRegion> regions_;
  DisplayID keyboardFocus_ = 0;
};

}  // namespace kestrune::linux_platform
