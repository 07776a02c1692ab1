#pragma once

#include <cstdint>
#include <optional>

namespace kestrune::linux_platform {

/// Times on the media clock for the pieces of a continuous signal. A measured capture time jitters by some
/// milliseconds from one piece to the next, and the device's clock is not the media clock: the times given
/// here follow from the number of frames and are drawn gently towards what is measured. Only a jump too large
/// for jitter, such as after a gap, is taken over at once. One caller at a time.
class AudioTimeline {
 public:
  explicit AudioTimeline(int sampleRate) : sampleRate_(sampleRate) {}

  /// The time of the first of the next `frames` frames, in microseconds; `measured` is what the system says
  /// of it. Never below the one before.
  std::int64_t stamp(std::int64_t measured, std::int64_t frames);
  /// The next piece does not continue the last one.
  void restart() { next_.reset(); }

 private:
  const int sampleRate_;
  std::optional<double> next_;  // microseconds; where the next piece begins if the clocks agree
  std::int64_t last_ = INT64_MIN;
};

}  // namespace kestrune::linux_platform
