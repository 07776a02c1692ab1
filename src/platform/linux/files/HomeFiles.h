#pragma once

#include "platform/UserFiles.h"

namespace kestrune::linux_platform {

/// The files of the user's home (XDG Base Directory Specification): $XDG_DATA_HOME, else ~/.local/share. What
/// is made is the user's alone (mode 0700). Names that begin with a dot are hidden.
class HomeFiles final : public UserFiles {
 public:
  std::string applicationSupportDirectory() const override;
  void createDirectory(const std::string& path) override;
  bool fileExists(const std::string& path) const override;
  std::optional<std::vector<std::string>> visibleNames(const std::string& directory) const override;
};

}  // namespace kestrune::linux_platform
