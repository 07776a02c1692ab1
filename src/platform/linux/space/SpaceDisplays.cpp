#include "platform/linux/space/SpaceDisplays.h"

namespace kestrune::linux_platform {
namespace {

class Configuration final : public DisplayConfiguration {
 public:
  explicit Configuration(std::shared_ptr<DisplaySpace> space) : space_(std::move(space)) {}

  bool setOrigin(DisplayID display, std::int32_t x, std::int32_t y) override {
    const SharedRegion region = space_->regionOf(display);
    if (!region || region->isDesktop()) return false;
    origins_[display] = {static_cast<double>(x), static_cast<double>(y)};
    return true;
  }
  bool complete() override { return space_->setOrigins(origins_); }

 private:
  const std::shared_ptr<DisplaySpace> space_;
  std::map<DisplayID, Point> origins_;
};

}  // namespace

std::optional<DisplayID> SpaceDisplays::mainDisplay() const {
  const auto displays = space_->mainRegion()->displays();
  return displays.empty() ? std::nullopt : std::optional(displays.front());
}

std::vector<DisplayID> SpaceDisplays::activeDisplays() const {
  std::vector<DisplayID> all;
  for (const SharedRegion& region : space_->regions()) {
    const auto displays = region->displays();
    all.insert(all.end(), displays.begin(), displays.end());
  }
  return all;
}

Rect SpaceDisplays::bounds(DisplayID display) const {
  const SharedRegion region = space_->regionOf(display);
  return region ? region->bounds(display) : Rect{};
}

Rect SpaceDisplays::visibleBounds(DisplayID display) const {
  const SharedRegion region = space_->regionOf(display);
  const auto local = region ? region->localDisplay(display) : std::nullopt;
  return local ? region->toGlobal(region->ports.displays->visibleBounds(*local)) : Rect{};
}

std::unique_ptr<DisplayConfiguration> SpaceArrangement::begin() {
  return std::make_unique<Configuration>(space_);
}

bool SpacePermissions::isScreenCaptureAllowed() const {
  return space_->mainRegion()->ports.permissions->isScreenCaptureAllowed();
}

bool SpacePermissions::isTrustedForInput() const {
  return space_->mainRegion()->ports.permissions->isTrustedForInput();
}

void SpacePermissions::promptForInputTrust() {
  space_->mainRegion()->ports.permissions->promptForInputTrust();
}

}  // namespace kestrune::linux_platform
