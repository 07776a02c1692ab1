#include "runtime/Clock.h"

#include <ctime>

namespace kestrune {
namespace {

Duration read(clockid_t identifier) {
  timespec now{};
  clock_gettime(identifier, &now);
  return std::chrono::seconds(now.tv_sec) + std::chrono::nanoseconds(now.tv_nsec);
}

class SystemClock final : public Clock {
 public:
  Duration continuousNow() const override { return read(CLOCK_BOOTTIME); }
  double uptimeSeconds() const override {
    return std::chrono::duration<double>(read(CLOCK_MONOTONIC)).count();
  }
  std::int64_t wallClockMilliseconds() const override {
    return std::chrono::duration_cast<std::chrono::milliseconds>(read(CLOCK_REALTIME)).count();
  }
};

}  // namespace

std::shared_ptr<const Clock> systemClock() {
  static const auto clock = std::make_shared<const SystemClock>();
  return clock;
}

}  // namespace kestrune
