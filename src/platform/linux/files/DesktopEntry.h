#pragma once

#include <filesystem>
#include <map>
#include <string>
#include <string_view>
#include <vector>

namespace kestrune::linux_platform {

/// The keys of the group "Desktop Entry" with their values as they are written, escapes included (Desktop
/// Entry Specification 1.5). Lines that are none are passed over; of a repeated key the last counts.
using DesktopEntry = std::map<std::string, std::string, std::less<>>;
DesktopEntry parseDesktopEntry(std::string_view text);
/// Empty if there is no file that can be read.
DesktopEntry readDesktopEntry(const std::filesystem::path& file);

/// Whether a desktop that calls itself `currentDesktop` (names between colons, as in XDG_CURRENT_DESKTOP)
/// would leave the entry alone. An empty name is an unknown desktop, for which OnlyShowIn and NotShowIn do
/// not count.
bool isSwitchedOff(const DesktopEntry& entry, std::string_view currentDesktop);

/// A text as a value of type string.
std::string desktopString(std::string_view text);
/// A program's path as a value of Exec: one argument, of any characters.
std::string desktopCommand(std::string_view program);
/// The other way round: the program and the arguments of a value of Exec, field codes as they stand. Empty if
/// a quote does not end.
std::vector<std::string> desktopCommandWords(std::string_view value);

}  // namespace kestrune::linux_platform
