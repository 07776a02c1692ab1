#pragma once

#include <memory>

#include "platform/Platform.h"

namespace kestrune::linux_platform {

class Reactor;

/// Every port of the program on Linux: the adapters below this folder, for the display, the sound server and
/// the home of the environment. Nothing is connected or started yet but what the adapters' own headers say.
///
/// `watching` notices changes of files. What runs on it does not wait: no disk, no other program.
Platform makeLinuxPlatform(std::shared_ptr<Reactor> watching);

}  // namespace kestrune::linux_platform
