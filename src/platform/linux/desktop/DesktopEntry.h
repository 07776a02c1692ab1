#pragma once

#include <map>
#include <string>
#include <string_view>

namespace kestrune::linux_platform {

/// The keys of the group "Desktop Entry" with their values as they are written, escapes included (Desktop
/// Entry Specification 1.5). Lines that are none are passed over; of a repeated key the last counts.
using DesktopEntry = std::map<std::string, std::string, std::less<>>;
DesktopEntry parseDesktopEntry(std::string_view text);

/// Whether a desktop that calls itself `currentDesktop` (names between colons, as in XDG_CURRENT_DESKTOP)
/// would leave the entry alone. An empty name is an unknown desktop, for which OnlyShowIn and NotShowIn do
/// not count.
bool isSwitchedOff(const DesktopEntry& entry, std::string_view currentDesktop);

/// A text as a value of type string.
std::string desktopString(std::string_view text);
/// A program's path as a value of Exec: one argument, of any characters.
std::string desktopCommand(std::string_view program);

}  // namespace kestrune::linux_platform
