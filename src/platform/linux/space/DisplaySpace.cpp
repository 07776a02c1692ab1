#include "platform/linux/space/DisplaySpace.h"

#include <algorithm>
#include <atomic>
#include <utility>

namespace kestrune::linux_platform {
namespace {

/// Above what an X server gives to its RandR outputs, which count up from its own small range.
constexpr DisplayID kFirstPrivateDisplay = 0x4B530001;

bool holds(const Rect& bounds, Point point) {
  return point.x >= bounds.x && point.y >= bounds.y && point.x < bounds.x + bounds.width &&
         point.y < bounds.y + bounds.height;
}

double squaredDistance(Point a, Point b) {
  return (a.x - b.x) * (a.x - b.x) + (a.y - b.y) * (a.y - b.y);
}

SharedRegion find(const std::vector<SharedRegion>& regions, DisplayID id) {
  const auto found =
      std::find_if(regions.begin(), regions.end(), [id](const SharedRegion& each) { return each->id == id; });
  return found == regions.end() ? nullptr : *found;
}

}  // namespace

std::vector<DisplayID> Region::displays() const {
  if (isDesktop()) return ports.displays->activeDisplays();
  if (ports.displays->mainDisplay()) return {id};
  return {};
}

std::optional<DisplayID> Region::localDisplay(DisplayID display) const {
  if (!isDesktop()) return display == id ? ports.displays->mainDisplay() : std::nullopt;
  const auto all = ports.displays->activeDisplays();
  if (std::find(all.begin(), all.end(), display) == all.end()) return std::nullopt;
  return display;
}

Rect Region::toGlobal(Rect local) const {
  return {local.x + origin.x, local.y + origin.y, local.width, local.height};
}

Rect Region::toLocal(Rect global) const {
  return {global.x - origin.x, global.y - origin.y, global.width, global.height};
}

Rect Region::bounds(DisplayID display) const {
  const auto local = localDisplay(display);
  return local ? toGlobal(ports.displays->bounds(*local)) : Rect{};
}

Point Region::nearest(Point global) const {
  std::optional<Point> best;
  double bestDistance = 0;
  for (const DisplayID display : displays()) {
    const Rect area = bounds(display);
    if (holds(area, global)) return global;
    if (area.width < 1 || area.height < 1) continue;
    const Point inside{std::clamp(global.x, area.x, area.x + area.width - 1),
                       std::clamp(global.y, area.y, area.y + area.height - 1)};
    const double distance = squaredDistance(inside, global);
    if (best && distance >= bestDistance) continue;
    best = inside;
    bestDistance = distance;
  }
  return best.value_or(global);
}

DisplaySpace::DisplaySpace(ServerPorts desktop) {
  Region region;
  region.ports = std::move(desktop);
  regions_.push_back(std::make_shared<const Region>(std::move(region)));
}

DisplayID DisplaySpace::newDisplayID() {
  static std::atomic<DisplayID> next{kFirstPrivateDisplay};
  return next++;
}

std::vector<SharedRegion> DisplaySpace::regions() const {
  const std::lock_guard guard(lock_);
  return regions_;
}

SharedRegion DisplaySpace::regionOf(DisplayID display) const {
  for (const SharedRegion& region : regions()) {
    if (region->localDisplay(display)) return region;
  }
  return nullptr;
}

SharedRegion DisplaySpace::regionAt(Point global) const {
  SharedRegion best;
  double bestDistance = 0;
  for (const SharedRegion& region : regions()) {
    if (region->displays().empty()) continue;
    const double distance = squaredDistance(region->nearest(global), global);
    if (best && distance >= bestDistance) continue;
    best = region;
    bestDistance = distance;
  }
  return best;
}

SharedRegion DisplaySpace::region(DisplayID id) const {
  return find(regions(), id);
}

SharedRegion DisplaySpace::mainRegion() const {
  const auto all = regions();
  for (const SharedRegion& region : all) {
    if (region->ports.displays->mainDisplay()) return region;
  }
  return all.front();
}

Point DisplaySpace::freeOrigin() const {
  std::optional<Point> right;
  for (const SharedRegion& region : regions()) {
    for (const DisplayID display : region->displays()) {
      const Rect area = region->bounds(display);
      const Point corner{area.x + area.width, area.y};
      if (!right || corner.x > right->x || (corner.x == right->x && corner.y < right->y)) right = corner;
    }
  }
  return right.value_or(Point{});
}

void DisplaySpace::add(DisplayID id, ServerPorts ports, std::vector<std::string> environment) {
  Region region;
  region.id = id;
  region.origin = freeOrigin();
  region.ports = std::move(ports);
  region.environment = std::move(environment);
  const std::lock_guard guard(lock_);
  regions_.push_back(std::make_shared<const Region>(std::move(region)));
}

void DisplaySpace::remove(DisplayID id) {
  SharedRegion removed;  // its end is not under the lock
  const std::lock_guard guard(lock_);
  removed = find(regions_, id);
  if (removed && !removed->isDesktop()) std::erase(regions_, removed);
  if (keyboardFocus_ == id) keyboardFocus_ = 0;
}

bool DisplaySpace::setOrigins(const std::map<DisplayID, Point>& origins) {
  const std::lock_guard guard(lock_);
  auto all = regions_;
  for (const auto& [id, origin] : origins) {
    const auto found = std::find_if(all.begin(), all.end(), [display = id](const SharedRegion& each) {
      return !each->isDesktop() && each->id == display;
    });
    if (found == all.end()) return false;
    Region moved = **found;
    moved.origin = origin;
    *found = std::make_shared<const Region>(std::move(moved));
  }
  regions_.swap(all);
  return true;
}

std::vector<std::string> DisplaySpace::environmentOf(DisplayID display) const {
  if (display < kFirstPrivateDisplay) return {};
  if (const SharedRegion found = region(display)) return found->environment;
  // Not on the desktop in its place.
  return {"DISPLAY=", "XAUTHORITY=", "WAYLAND_DISPLAY="};
}

DisplayID DisplaySpace::keyboardFocus() const {
  const std::lock_guard guard(lock_);
  return keyboardFocus_;
}

void DisplaySpace::setKeyboardFocus(DisplayID regionID) {
  const std::lock_guard guard(lock_);
  if (find(regions_, regionID)) keyboardFocus_ = regionID;
}

}  // namespace kestrune::linux_platform
