#pragma once

#include <filesystem>
#include <optional>
#include <vector>

namespace kestrune::linux_platform {

/// Where an installed browser is looked for.
struct BrowserPlaces {
  std::vector<std::filesystem::path> dataDirectories;  // with applications/*.desktop; the first counts most
  std::vector<std::filesystem::path> programDirectories;  // as PATH has them

  /// Those of the user (XDG Base Directory Specification), and where Google's package puts the program.
  static BrowserPlaces ofUser();
};

/// The program that starts Google Chrome or, where that is not installed, Chromium: what a desktop entry
/// executes, else what the search path has.
std::optional<std::filesystem::path> findChrome(const BrowserPlaces& places);

/// Whether a running program is the browser that `installed` starts, which may be a script around it.
bool isProgramOf(const std::filesystem::path& program, const std::filesystem::path& installed);

}  // namespace kestrune::linux_platform
