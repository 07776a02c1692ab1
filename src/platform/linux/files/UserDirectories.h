#pragma once

#include <filesystem>

namespace kestrune::linux_platform {

/// The user's directories (XDG Base Directory Specification); a variable that is no absolute path counts as
/// unset. Throws std::runtime_error if the user has no home.
std::filesystem::path configHome();  // $XDG_CONFIG_HOME, ~/.config
std::filesystem::path dataHome();    // $XDG_DATA_HOME, ~/.local/share

/// The file of the running program.
std::filesystem::path runningExecutable();

}  // namespace kestrune::linux_platform
