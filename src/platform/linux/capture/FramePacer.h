#pragma once

#include <algorithm>
#include <array>
#include <cstddef>
#include <optional>

#include "runtime/Clock.h"

namespace kestrune::linux_platform {

/// When the next picture may or should go out. Times are of any one monotonic clock. Confined to one thread.
///
/// After the last change the picture is repeated a few times, so that the encoder can sharpen what it coded
/// in haste, and then about once a second as a sign of life. A small change is sharp at once and is repeated
/// once: a blinking caret should cost next to nothing.
class FramePacer {
 public:
  static constexpr std::array<Duration, 3> kRepeats = {
      std::chrono::milliseconds(50), std::chrono::milliseconds(150), std::chrono::milliseconds(350)};
  static constexpr Duration kSmallRepeat = std::chrono::milliseconds(100);
  static constexpr Duration kSignOfLife = std::chrono::seconds(1);
  /// Changes of less than this share of the picture are small.
  static constexpr double kSmallShare = 0.02;

  /// A thread that wakes this much late for a picture's time is in time: the next one is not put off by it,
  /// or every picture would come later within its interval, until one is lost.
  static constexpr Duration kWakeTolerance = std::chrono::milliseconds(2);

  explicit FramePacer(Duration minimumInterval) : interval_(minimumInterval) {}

  void setMinimumInterval(Duration interval) { interval_ = interval; }
  Duration minimumInterval() const { return interval_; }

  /// A picture of `time` was delivered; `changedShare` is 0 for a repeat.
  void delivered(Duration time, double changedShare) {
    if (changedShare > 0) {
      // Small changes in quick succession are no more than small, but one large one among them keeps its
      // repeats.
      const bool wasLarge = lastChange_ && isLarge_ && nextRepeat_ < kRepeats.size();
      isLarge_ = changedShare >= kSmallShare || wasLarge;
      lastChange_ = time;
      nextRepeat_ = 0;
    } else {
      while (repeatDue() && *repeatDue() <= time) ++nextRepeat_;
    }
    last_ = time;
  }

  /// The time that a picture made at `now` counts for: these times are never less than the interval apart.
  Duration timeOf(Duration now) const {
    return last_ && now >= earliest() && now - earliest() < kWakeTolerance ? earliest() : now;
  }

  /// No picture may go out before this.
  Duration earliest() const { return last_ ? *last_ + interval_ : Duration::min(); }

  /// When a repeat is due if nothing changes; nothing before the first picture.
  std::optional<Duration> nextRepeat() const {
    if (!last_) return std::nullopt;
    return std::max(repeatDue().value_or(*last_ + kSignOfLife), earliest());
  }

 private:
  std::optional<Duration> repeatDue() const {
    if (!lastChange_) return std::nullopt;
    if (!isLarge_) return nextRepeat_ == 0 ? std::optional(*lastChange_ + kSmallRepeat) : std::nullopt;
    return nextRepeat_ < kRepeats.size() ? std::optional(*lastChange_ + kRepeats[nextRepeat_]) : std::nullopt;
  }

  Duration interval_;
  std::optional<Duration> last_;
  std::optional<Duration> lastChange_;
  bool isLarge_ = false;
  std::size_t nextRepeat_ = 0;
};

}  // namespace kestrune::linux_platform
