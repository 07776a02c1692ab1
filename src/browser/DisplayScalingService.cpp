#include "browser/DisplayScalingService.h"

#include <cmath>
#include <utility>

#include "runtime/Log.h"

namespace kestrune {
namespace {
constexpr Logger kLog("App");
}

std::optional<DisplayMode> bestMode(const std::vector<DisplayMode>& modes, int width, int height,
                                    double refreshRate) {
  const auto distance = [refreshRate](const DisplayMode& mode) {
    return mode.refreshRate > 0 ? std::abs(mode.refreshRate - refreshRate) : 0;
  };
  std::optional<DisplayMode> best;
  for (const auto& mode : modes) {
    if (mode.width != width || mode.height != height || !mode.isUsableForDesktop) continue;
    if (!best || (refreshRate > 0 && best->refreshRate > 0 && distance(mode) < distance(*best))) best = mode;
  }
  return best;
}

void DisplayScalingService::applyStreamingScale(DisplayID display, int width, int height) {
  if (originalMode_ || !modes_) return;
  const auto current = modes_->currentMode(display);
  if (!current) return;
  if (current->width == width && current->height == height) {
    kLog.info("Display is already using the 1440x900 streaming scale");
    return;
  }
  const auto modes = modes_->allModes(display);
  const auto wanted = modes ? bestMode(*modes, width, height, current->refreshRate) : std::nullopt;
  if (!wanted) {
    kLog.notice(
        "The selected display does not offer a 1440x900 desktop mode; continuing without changing scaling");
    return;
  }
  if (!modes_->setMode(display, *wanted)) {
    kLog.error("Unable to switch the selected display to 1440x900; continuing with its current scaling");
    return;
  }
  originalMode_ = OriginalMode{display, *current};
  kLog.notice("Changed the selected display scaling to 1440x900 for streaming");
}

void DisplayScalingService::restoreOriginalMode() {
  const auto original = std::exchange(originalMode_, std::nullopt);
  if (!original) return;
  if (modes_->setMode(original->displayID, original->mode)) {
    kLog.notice("Restored the selected display's original scaling");
  } else {
    kLog.error("Unable to restore the selected display's original scaling");
  }
}

}  // namespace kestrune
