#include "platform/linux/audio/AudioTimeline.h"

#include <algorithm>
#include <cmath>

namespace kestrune::linux_platform {
namespace {

constexpr double kJumpMicroseconds = 80'000;
/// Of 20 ms pieces: an error is halved in a second, jitter of 5 ms moves a time by 0.07 ms.
constexpr double kPull = 1.0 / 72;

}  // namespace

std::int64_t AudioTimeline::stamp(std::int64_t measured, std::int64_t frames) {
  const auto target = static_cast<double>(measured);
  if (!next_ || std::abs(target - *next_) > kJumpMicroseconds) {
    next_ = target;
  } else {
    *next_ += (target - *next_) * kPull;
  }
  const std::int64_t time = std::max(std::llround(*next_), static_cast<long long>(last_));
  last_ = time;
  *next_ += static_cast<double>(frames) * 1e6 / sampleRate_;
  return time;
}

}  // namespace kestrune::linux_platform
