#include "platform/linux/audio/AudioTimeline.h"

#include <algorithm>
#include <cmath>

namespace kestrune::linux_platform {
namespace {

constexpr double kJump = 80'000;
constexpr double kPull = 0.25;

}  // namespace

void AudioTimeline::measured(std::int64_t time) {
  const auto target = static_cast<double>(time);
  if (!next_ || std::abs(target - *next_) > kJump) {
    next_ = target;
  } else {
    *next_ += (target - *next_) * kPull;
  }
}

std::int64_t AudioTimeline::stamp(std::int64_t frames) {
  const double next = next_.value_or(0);
  last_ = std::max<std::int64_t>(std::llround(next), last_);
  next_ = next + static_cast<double>(frames) * 1e6 / sampleRate_;
  return last_;
}

}  // namespace kestrune::linux_platform
