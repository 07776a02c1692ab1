#pragma once

#include <filesystem>
#include <string>

#include "platform/LoginItem.h"

namespace kestrune::linux_platform {

/// The start at login as an entry of the desktop, `directory`/kestrune.desktop (XDG Desktop Application
/// Autostart Specification). It requires approval when it is there but switched off: hidden, disabled by a
/// desktop's own key, or kept from the present desktop (XDG_CURRENT_DESKTOP). An entry that cannot start
/// anything, because it does not parse or its program is gone, counts as none.
///
/// Registering is the user's own wish, so it switches on an entry that was switched off. An entry that starts
/// this program already is left as it is, with all that the user wrote into it.
class AutostartLoginItem final : public LoginItem {
 public:
  /// The default is this program in $XDG_CONFIG_HOME/autostart.
  AutostartLoginItem();
  AutostartLoginItem(std::filesystem::path directory, std::filesystem::path program);

  Status status() const override;
  void registerItem() override;
  void unregisterItem() override;

 private:
  const std::filesystem::path directory_;
  const std::filesystem::path file_;
  const std::filesystem::path program_;
};

}  // namespace kestrune::linux_platform
