#pragma once

#include <cstdint>
#include <optional>

namespace kestrune::linux_platform {

/// Times on the media clock for the pieces of a continuous signal. They follow from the number of frames, and
/// are drawn gently to what is measured now and then: a measurement jitters, and the device's clock is not
/// the media clock. A jump too large for both, such as after a gap, is taken over at once. Times are
/// microseconds. One caller at a time.
class AudioTimeline {
 public:
  explicit AudioTimeline(int sampleRate) : sampleRate_(sampleRate) {}

  bool hasBegun() const { return next_.has_value(); }
  /// What the system says of the next frame. There is one before the first piece.
  void measured(std::int64_t time);
  /// The time of the first of the next `frames` frames. Never below the one before.
  std::int64_t stamp(std::int64_t frames);
  /// The next piece does not continue the last one.
  void restart() { next_.reset(); }

 private:
  const int sampleRate_;
  std::optional<double> next_;  // of the next frame
  std::int64_t last_ = INT64_MIN;
};

}  // namespace kestrune::linux_platform
