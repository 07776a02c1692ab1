#pragma once

#include "runtime/Log.h"

namespace kestrune {

inline constexpr Logger kServerLog("Server");

}  // namespace kestrune
