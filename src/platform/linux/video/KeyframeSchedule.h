#pragma once

#include <cstdint>
#include <optional>

namespace kestrune::linux_platform {

/// When a keyframe is due without being asked for: at the first frame, and at the latest after so many frames
/// or so much time, whichever comes first. An explicit request is not this class's business; it is always
/// honoured.
///
/// A keyframe takes several times as long to code, to send and to decode as another frame, and somebody waits
/// for a picture that shows something new. Where frames are known to repeat an unchanged picture, keyframes
/// are therefore placed on them:
/// - soon after a change and a little before the limit, so that the next change finds the time used;
/// - a change of a still screen is put before the keyframe that is due, once: the repeat soon after it, or
///   the next change, is the keyframe.
/// A picture that stays as it is needs none: a viewer that could decode it has it already, and a keyframe
/// every two seconds would be all that a still screen costs.
class KeyframeSchedule {
 public:
  KeyframeSchedule(std::int64_t maximumFrames, std::int64_t maximumMicroseconds)
      : maximumFrames_(maximumFrames), maximumMicroseconds_(maximumMicroseconds) {}

  bool isDue(std::optional<std::int64_t> presentationMicroseconds, bool isUnchanged) const;
  void noteEncoded(bool isKeyframe, std::optional<std::int64_t> presentationMicroseconds, bool isUnchanged);

 private:
  /// How much of what lies between two keyframes at most has passed; 1 or more: the limit is reached.
  double age(std::optional<std::int64_t> presentationMicroseconds) const;

  std::int64_t maximumFrames_;
  std::int64_t maximumMicroseconds_;
  bool hasKeyframe_ = false;
  std::int64_t framesSinceKeyframe_ = 0;
  std::optional<std::int64_t> keyframeMicroseconds_;
  bool changedSinceKeyframe_ = false;
  std::optional<std::int64_t> changeMicroseconds_;  // the last change
  bool wasUnchanged_ = false;                       // the frame before
  bool isOverdue_ = false;                          // since the keyframe
};

}  // namespace kestrune::linux_platform
