#include "platform/linux/video/KeyframeSchedule.h"

#include <algorithm>

namespace kestrune::linux_platform {
namespace {

constexpr double kEarly = 0.75;
constexpr std::int64_t kSoonMicroseconds = 250'000;

}  // namespace

double KeyframeSchedule::age(std::optional<std::int64_t> presentationMicroseconds) const {
  const double frames = static_cast<double>(framesSinceKeyframe_) / static_cast<double>(maximumFrames_);
  if (!presentationMicroseconds || !keyframeMicroseconds_) return frames;
  const auto passed = static_cast<double>(*presentationMicroseconds - *keyframeMicroseconds_);
  return std::max(frames, passed / static_cast<double>(maximumMicroseconds_));
}

bool KeyframeSchedule::isDue(std::optional<std::int64_t> presentationMicroseconds, bool isUnchanged) const {
  if (!hasKeyframe_) return true;
  if (!isUnchanged) return age(presentationMicroseconds) >= 1 && (!wasUnchanged_ || isOverdue_);
  const bool isSoonAfterChange = presentationMicroseconds && changeMicroseconds_ &&
                                 *presentationMicroseconds - *changeMicroseconds_ <= kSoonMicroseconds;
  return changedSinceKeyframe_ && isSoonAfterChange && age(presentationMicroseconds) >= kEarly;
}

void KeyframeSchedule::noteEncoded(bool isKeyframe, std::optional<std::int64_t> presentationMicroseconds,
                                   bool isUnchanged) {
  if (isKeyframe) {
    hasKeyframe_ = true;
    framesSinceKeyframe_ = 0;
    keyframeMicroseconds_ = presentationMicroseconds;
    changedSinceKeyframe_ = false;
    isOverdue_ = false;
  } else if (!isUnchanged) {
    changedSinceKeyframe_ = true;
    isOverdue_ = isOverdue_ || age(presentationMicroseconds) >= 1;
  }
  if (!isUnchanged) changeMicroseconds_ = presentationMicroseconds;
  wasUnchanged_ = isUnchanged;
  ++framesSinceKeyframe_;
}

}  // namespace kestrune::linux_platform
