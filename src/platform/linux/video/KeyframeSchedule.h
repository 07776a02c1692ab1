#pragma once

#include <cstdint>
#include <optional>

namespace kestrune::linux_platform {

/// When a keyframe is due without being asked for: at the first frame, and at the latest after so many frames
/// or so much time, whichever comes first.
///
/// A picture that is the same as the one before it never needs one: whoever could decode that one has it
/// already, and a keyframe every two seconds would be all that a still screen costs. The frame after it that
/// shows something new is then the keyframe. An explicit request is not this class's business; it is always
/// honoured.
class KeyframeSchedule {
 public:
  KeyframeSchedule(std::int64_t maximumFrames, std::int64_t maximumMicroseconds)
      : maximumFrames_(maximumFrames), maximumMicroseconds_(maximumMicroseconds) {}

  bool isDue(std::optional<std::int64_t> presentationMicroseconds, bool isUnchanged) const;
  void noteEncoded(bool isKeyframe, std::optional<std::int64_t> presentationMicroseconds);

 private:
  std::int64_t maximumFrames_;
  std::int64_t maximumMicroseconds_;
  bool hasKeyframe_ = false;
  std::int64_t framesSinceKeyframe_ = 0;
  std::optional<std::int64_t> keyframeMicroseconds_;
};

}  // namespace kestrune::linux_platform
