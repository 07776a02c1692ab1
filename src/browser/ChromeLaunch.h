#pragma once

#include <optional>
#include <string>
#include <vector>

#include "platform/Geometry.h"
#include "platform/UserFiles.h"

namespace kestrune {

/// How the managed window is shown: within what panels leave free, or over the whole display.
enum class ChromeWindowPresentation { maximized, kiosk };

/// The private profile, which belongs to Chrome: nothing of it is ever changed or deleted here. Throws an
/// Error where the user has no place for it.
std::string chromeProfileDirectory(const UserFiles& files);

/// Whether the profile has a session that Chrome could restore; false where that cannot be found out.
bool chromeProfileHasSavedSession(const UserFiles& files, const std::string& profile);

/// The arguments of a launch, always ten. `frame`: of the window, global points. `startURL`: a normalized
/// address; without one the last session is restored.
std::vector<std::string> chromeLaunchArguments(const std::string& profile, const Rect& frame,
                                               ChromeWindowPresentation presentation,
                                               const std::optional<std::string>& startURL);

}  // namespace kestrune
