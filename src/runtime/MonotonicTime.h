#pragma once

#include <chrono>

#include "runtime/Clock.h"

namespace kestrune {

/// Now on CLOCK_MONOTONIC, the clock of media time stamps, which libpulse shares. For adapters; logic is
/// given a Clock.
inline Duration monotonicNow() {
  return std::chrono::steady_clock::now().time_since_epoch();
}

}  // namespace kestrune
