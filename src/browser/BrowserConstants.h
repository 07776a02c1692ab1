#pragma once

#include <chrono>

#include "runtime/Clock.h"

namespace kestrune {

/// Between two looks at what the system does not announce: windows, displays, processes.
inline constexpr Duration kBrowserPause = std::chrono::milliseconds(50);

inline constexpr const char* kChromeBundleIdentifier = "com.google.Chrome";

}  // namespace kestrune
