#pragma once

#include <memory>
#include <optional>
#include <utility>
#include <vector>

#include "platform/DisplayModes.h"

namespace kestrune {

/// Of the desktop modes of exactly this size the one whose refresh rate is closest to `refreshRate` (Hz, 0:
/// unknown), the earlier of equals; a mode without a rate counts as exact. Nothing if there is none.
std::optional<DisplayMode> bestMode(const std::vector<DisplayMode>& modes, int width, int height,
                                    double refreshRate);

/// Switches a real display to the size of a car's browser while it is streamed, and back. A failure is a line
/// in the log; the stream goes on at the display's own scale. Main queue only.
class DisplayScalingService {
 public:
  /// Without `modes` nothing is ever switched.
  explicit DisplayScalingService(std::shared_ptr<DisplayModes> modes) : modes_(std::move(modes)) {}

  /// Points. Nothing while a mode waits to be restored.
  void applyStreamingScale(DisplayID display, int width, int height);
  /// Puts the mode back that was active before the switch. It is tried once.
  void restoreOriginalMode();

 private:
  struct OriginalMode {
    DisplayID displayID = 0;
    DisplayMode mode;
  };

  const std::shared_ptr<DisplayModes> modes_;
  std::optional<OriginalMode> originalMode_;
};

}  // namespace kestrune
