#pragma once

#include <chrono>
#include <cstdint>
#include <memory>

namespace kestrune {

using Duration = std::chrono::nanoseconds;

/// The three times that the program reads. Logic never asks the system itself, so that a test can hold time
/// in its hand (ManualTime). Implementations may be called from any thread.
class Clock {
 public:
  virtual ~Clock() = default;

  /// Time since an arbitrary origin; monotonic, and it goes on while the machine sleeps (CLOCK_BOOTTIME).
  /// Periods, delays and spacings are measured on it.
  virtual Duration continuousNow() const = 0;

  /// Seconds since boot without the time spent asleep (CLOCK_MONOTONIC).
  virtual double uptimeSeconds() const = 0;

  /// Milliseconds since 1970-01-01 00:00 UTC.
  virtual std::int64_t wallClockMilliseconds() const = 0;
};

/// The clocks of the system; one instance for the process.
std::shared_ptr<const Clock> systemClock();

}  // namespace kestrune
