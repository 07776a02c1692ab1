#pragma once

#include "platform/Platform.h"

namespace kestrune::linux_platform {

/// Every port of the program on Linux: the adapters below this folder, for the display, the sound server and
/// the home of the environment. Nothing is connected or started yet but what the adapters' own headers say.
Platform makeLinuxPlatform();

}  // namespace kestrune::linux_platform
