#pragma once

#include <optional>
#include <vector>

#include "platform/Geometry.h"

namespace kestrune {

/// The displays of the machine as the system last announced them. Any thread may call, at any rate; no call
/// waits for the system.
class Displays {
 public:
  virtual ~Displays() = default;

  /// The display that holds the global origin; nothing where no display can be reached.
  virtual std::optional<DisplayID> mainDisplay() const = 0;
  /// All displays that show something, the main one first.
  virtual std::vector<DisplayID> activeDisplays() const = 0;
  /// In global points; zero width and height for an identifier that is not (or no longer) active.
  virtual Rect bounds(DisplayID display) const = 0;
  /// The part of the bounds that panels and docks leave to windows; the bounds where that is not known.
  virtual Rect visibleBounds(DisplayID display) const = 0;
};

}  // namespace kestrune
