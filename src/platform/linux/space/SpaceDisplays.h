#pragma once

#include <memory>

#include "platform/VirtualDisplays.h"
#include "platform/linux/space/DisplaySpace.h"

namespace kestrune::linux_platform {

/// The displays of a space: the desktop's, then the private ones. Where no desktop can be reached there are
/// private ones only, and the first of them is the main one.
class SpaceDisplays final : public Displays {
 public:
  explicit SpaceDisplays(std::shared_ptr<const DisplaySpace> space) : space_(std::move(space)) {}

  std::optional<DisplayID> mainDisplay() const override;
  std::vector<DisplayID> activeDisplays() const override;
  Rect bounds(DisplayID display) const override;
  Rect visibleBounds(DisplayID display) const override;

 private:
  const std::shared_ptr<const DisplaySpace> space_;
};

/// Moves the private displays of a space; the user's arrangement of the desktop is left alone.
class SpaceArrangement final : public DisplayArrangement {
 public:
  explicit SpaceArrangement(std::shared_ptr<DisplaySpace> space) : space_(std::move(space)) {}

  std::unique_ptr<DisplayConfiguration> begin() override;

 private:
  const std::shared_ptr<DisplaySpace> space_;
};

/// What the main region's server permits.
class SpacePermissions final : public PrivacyPermissions {
 public:
  explicit SpacePermissions(std::shared_ptr<const DisplaySpace> space) : space_(std::move(space)) {}

  bool isScreenCaptureAllowed() const override;
  bool isTrustedForInput() const override;
  void promptForInputTrust() override;

 private:
  const std::shared_ptr<const DisplaySpace> space_;
};

}  // namespace kestrune::linux_platform
