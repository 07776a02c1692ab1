#pragma once

#include <filesystem>
#include <optional>
#include <string_view>
#include <vector>

namespace kestrune::linux_platform {

/// The user's directories (XDG Base Directory Specification); a variable that is no absolute path counts as
/// unset. Throws std::runtime_error if the user has no home.
std::filesystem::path configHome();  // $XDG_CONFIG_HOME, ~/.config
std::filesystem::path dataHome();    // $XDG_DATA_HOME, ~/.local/share
std::filesystem::path stateHome();   // $XDG_STATE_HOME, ~/.local/state

/// Where data of the user and of the system is looked for, the user's first; none that is not absolute.
std::vector<std::filesystem::path> dataDirectories();  // dataHome(), $XDG_DATA_DIRS
/// Where programs are looked for; none that is not absolute.
std::vector<std::filesystem::path> programDirectories();  // $PATH
/// The executable file of a program's name, or of its absolute path; nothing if there is none.
std::optional<std::filesystem::path> findProgram(std::string_view name,
                                                 const std::vector<std::filesystem::path>& directories);

/// The file of the running program.
std::filesystem::path runningExecutable();

}  // namespace kestrune::linux_platform
