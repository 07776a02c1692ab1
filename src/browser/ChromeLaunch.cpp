#include "browser/ChromeLaunch.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <string_view>

namespace kestrune {
namespace {

std::string pair(double first, double second) {
  return std::to_string(std::llround(first)) + "," + std::to_string(std::llround(second));
}

}  // namespace

std::string chromeProfileDirectory(const UserFiles& files) {
  return files.applicationSupportDirectory() + "/Kestrune/Chrome Profile";
}

bool chromeProfileHasSavedSession(const UserFiles& files, const std::string& profile) {
  static constexpr std::array kSessionFiles = {"/Current Session", "/Current Tabs", "/Last Session",
                                               "/Last Tabs"};
  const std::string userDirectory = profile + "/Default";
  const auto exists = [&](const char* name) { return files.fileExists(userDirectory + name); };
  if (std::ranges::any_of(kSessionFiles, exists)) return true;
  const auto names = files.visibleNames(userDirectory + "/Sessions");
  return names && std::ranges::any_of(*names, [](std::string_view name) {
           return name.starts_with("Session_") || name.starts_with("Tabs_");
         });
}

std::vector<std::string> chromeLaunchArguments(const std::string& profile, const Rect& frame,
                                               ChromeWindowPresentation presentation,
                                               const std::optional<std::string>& startURL) {
  return {"--user-data-dir=" + profile,
          "--no-first-run",
          "--no-default-browser-check",
          "--disable-session-crashed-bubble",
          "--disable-gpu",
          "--force-color-profile=srgb",
          "--window-position=" + pair(frame.x, frame.y),
          "--window-size=" + pair(frame.width, frame.height),
          presentation == ChromeWindowPresentation::kiosk ? "--kiosk" : "--start-maximized",
          startURL.value_or("--restore-last-session")};
}

}  // namespace kestrune
