#include "platform/linux/applications/BrowserInstallation.h"

#include <algorithm>
#include <array>
#include <string>
#include <string_view>
#include <system_error>

#include "platform/linux/files/DesktopEntry.h"
#include "platform/linux/files/UserDirectories.h"

namespace kestrune::linux_platform {
namespace {

namespace fs = std::filesystem;

struct Browser {
  std::vector<std::string_view> entries;
  std::vector<std::string_view> programs;
};

/// The first that is there counts.
const std::array<Browser, 2>& browsers() {
  static const std::array<Browser, 2> all{{
      {{"google-chrome.desktop", "com.google.Chrome.desktop"}, {"google-chrome-stable", "google-chrome"}},
      {{"chromium.desktop", "chromium-browser.desktop"}, {"chromium", "chromium-browser"}},
  }};
  return all;
}

/// The program of an entry; nothing for one that starts the browser through another program, such as a
/// container: its windows would belong to a process that is not ours to see.
std::optional<fs::path> programOf(const fs::path& file, const std::vector<fs::path>& directories) {
  const DesktopEntry entry = readDesktopEntry(file);
  const auto hidden = entry.find("Hidden");
  const auto command = entry.find("Exec");
  if (command == entry.end() || (hidden != entry.end() && hidden->second == "true")) return std::nullopt;
  const auto words = desktopCommandWords(command->second);
  auto word = words.begin();
  // "env NAME=value program": some packages tell the desktop something in this way.
  if (word != words.end() && fs::path(*word).filename() == "env") {
    word = std::find_if(word + 1, words.end(),
                        [](const std::string& each) { return each.find('=') == std::string::npos; });
  }
  if (word == words.end() || fs::path(*word).filename().string().find("chrom") == std::string::npos) {
    return std::nullopt;
  }
  return findProgram(*word, directories);
}

}  // namespace

BrowserPlaces BrowserPlaces::ofUser() {
  BrowserPlaces places{kestrune::linux_platform::dataDirectories(),
                       kestrune::linux_platform::programDirectories()};
  places.programDirectories.emplace_back("/opt/google/chrome");
  return places;
}

std::optional<fs::path> findChrome(const BrowserPlaces& places) {
  for (const Browser& browser : browsers()) {
    for (const fs::path& directory : places.dataDirectories) {
      for (const auto entry : browser.entries) {
        if (auto found = programOf(directory / "applications" / entry, places.programDirectories)) {
          return found;
        }
      }
    }
    for (const auto program : browser.programs) {
      if (auto found = findProgram(program, places.programDirectories)) return found;
    }
  }
  return std::nullopt;
}

bool isProgramOf(const fs::path& program, const fs::path& installed) {
  // What an update has replaced goes on under the name that it had.
  constexpr std::string_view kReplaced = " (deleted)";
  std::string name = program.string();
  if (name.ends_with(kReplaced)) name.resize(name.size() - kReplaced.size());
  std::error_code failure;
  const fs::path started = fs::canonical(installed, failure);
  if (failure) return false;
  if (name == started) return true;
  // A script starts what lies beside it, or in a directory that its package has for that.
  const fs::path beside = started.parent_path();
  for (const auto each : {"chrome", "chromium", "chromium-browser"}) {
    if (name == beside / each) return true;
  }
  constexpr std::array kOfPackages{"/usr/lib/chromium/chromium", "/usr/lib64/chromium/chromium",
                                   "/usr/lib/chromium-browser/chromium-browser",
                                   "/usr/lib64/chromium-browser/chromium-browser"};
  const bool startsChromium = started.filename().string().find("chromium") != std::string::npos;
  return startsChromium && std::find(kOfPackages.begin(), kOfPackages.end(), name) != kOfPackages.end();
}

}  // namespace kestrune::linux_platform
