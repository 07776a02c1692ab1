#include "platform/linux/video/KeyframeSchedule.h"

namespace kestrune::linux_platform {

bool KeyframeSchedule::isDue(std::optional<std::int64_t> presentationMicroseconds, bool isUnchanged) const {
  if (!hasKeyframe_) return true;
  if (isUnchanged) return false;
  if (framesSinceKeyframe_ >= maximumFrames_) return true;
  return presentationMicroseconds && keyframeMicroseconds_ &&
         *presentationMicroseconds - *keyframeMicroseconds_ >= maximumMicroseconds_;
}

void KeyframeSchedule::noteEncoded(bool isKeyframe, std::optional<std::int64_t> presentationMicroseconds) {
  if (isKeyframe) {
    hasKeyframe_ = true;
    framesSinceKeyframe_ = 0;
    keyframeMicroseconds_ = presentationMicroseconds;
  }
  ++framesSinceKeyframe_;
}

}  // namespace kestrune::linux_platform
