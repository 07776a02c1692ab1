#include "platform/linux/space/SpaceWindows.h"

#include <algorithm>

namespace kestrune::linux_platform {
namespace {

bool hasWindowOf(const ServerPorts& ports, ProcessID process) {
  if (!ports.windows) return false;
  const auto windows = ports.windows->onScreenWindows();
  return std::any_of(windows.begin(), windows.end(),
                     [process](const WindowInfo& each) { return each.owner == process; });
}

}  // namespace

std::vector<WindowInfo> SpaceWindows::onScreenWindows() {
  std::vector<WindowInfo> all;
  for (const SharedRegion& region : space_->regions()) {
    if (!region->ports.windows) continue;
    for (WindowInfo& window : region->ports.windows->onScreenWindows()) {
      if (window.bounds) window.bounds = region->toGlobal(*window.bounds);
      all.push_back(window);
    }
  }
  return all;
}

bool SpaceWindows::placeFirstWindow(ProcessID process, const Rect& frame) {
  const SharedRegion region = space_->regionAt({frame.x + frame.width / 2, frame.y + frame.height / 2});
  if (!region || !region->ports.windows) return false;
  if (!region->ports.windows->placeFirstWindow(process, region->toLocal(frame))) return false;
  space_->setKeyboardFocus(region->id);
  return true;
}

void SpaceWindows::activate(ProcessID process) {
  for (const SharedRegion& region : space_->regions()) {
    if (region->ports.activate) region->ports.activate(process);
    if (hasWindowOf(region->ports, process)) space_->setKeyboardFocus(region->id);
  }
}

void SpaceWindows::showHidden(ProcessID process) {
  for (const SharedRegion& region : space_->regions()) {
    if (region->ports.showHidden) region->ports.showHidden(process);
  }
}

}  // namespace kestrune::linux_platform
