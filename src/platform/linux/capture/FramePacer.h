#pragma once

#include <algorithm>
#include <array>
#include <cstddef>
#include <optional>

#include "runtime/Clock.h"

namespace kestrune::linux_platform {

/// When the next picture may or should go out. Times are of any one monotonic clock. Confined to one thread.
///
/// After a large change the picture is repeated for a while, so that the encoder can sharpen what it coded in
/// haste as fast as its rate allows, and then about once a second as a sign of life. How long depends on how
/// much has changed: a repeat that has nothing left to sharpen would only stand in the way of the next
/// change. A small change is sharp at once and is repeated once, if nothing else changes for a while: a
/// blinking caret should cost next to nothing.
class FramePacer {
 public:
  static constexpr std::array<Duration, 12> kRepeats = {
      std::chrono::milliseconds(50),   std::chrono::milliseconds(125),  std::chrono::milliseconds(200),
      std::chrono::milliseconds(300),  std::chrono::milliseconds(400),  std::chrono::milliseconds(550),
      std::chrono::milliseconds(700),  std::chrono::milliseconds(850),  std::chrono::milliseconds(1000),
      std::chrono::milliseconds(1150), std::chrono::milliseconds(1300), std::chrono::milliseconds(1450)};
  /// How long it may take to sharpen all of a picture of dense text, at the lowest bit rate (measured for
  /// 1600x900 at 2 Mbit/s: 0.4 s for a fourteenth of it, 1.2 s for a quarter), with half as much again to be
  /// safe. The first repeats come after any change.
  static constexpr Duration kWholeSharpening = std::chrono::seconds(8);
  static constexpr Duration kLeastSharpening = kRepeats[1];
  static constexpr Duration kSmallRepeat = std::chrono::milliseconds(600);
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
    if (changedShare > 0 || !lastChange_) lastChange_ = time;
    if (changedShare >= kSmallShare) {
      sharpenAfter(time, changedShare);
    } else if (changedShare > 0) {
      smallRepeat_ = time + kSmallRepeat;
    } else if (smallRepeat_ && *smallRepeat_ <= time) {
      smallRepeat_.reset();
    }
    // Any picture sharpens, also one with a small change.
    while (const auto due = sharpeningDue()) {
      if (*due > time) break;
      ++nextRepeat_;
    }
    last_ = time;
  }

  /// The picture just delivered was asked for, by somebody who begins with it: all of it is to be sharpened.
  void startedAnew() { sharpenAfter(*last_, 1); }

  /// The time that a picture made at `now` counts for. These times rise, and those of pictures with changes
  /// are never less than the interval apart.
  Duration timeOf(Duration now) const {
    const bool isInTime = last_ && now >= earliest() && now - earliest() < kWakeTolerance;
    return isInTime && earliest() > *last_ ? earliest() : now;
  }

  /// No picture may go out before this. A repeat does not put off the change that comes just after it.
  Duration earliest() const { return lastChange_ ? *lastChange_ + interval_ : Duration::min(); }

  /// No repeat may go out before this, not even one that is asked for.
  Duration earliestRepeat() const { return last_ ? *last_ + interval_ : Duration::min(); }

  /// When a repeat is due if nothing changes; nothing before the first picture.
  std::optional<Duration> nextRepeat() const {
    if (!last_) return std::nullopt;
    return std::max(repeatDue().value_or(*last_ + kSignOfLife), earliestRepeat());
  }

 private:
  void sharpenAfter(Duration time, double share) {
    const auto more = std::chrono::duration_cast<Duration>(kWholeSharpening * std::min(share, 1.0));
    // What earlier changes still need adds up: the rate is one for all.
    const Duration left = std::max(largeChange_ + sharpening_ - time, Duration{});
    sharpening_ = std::clamp(left + more, kLeastSharpening, kRepeats.back());
    largeChange_ = time;
    nextRepeat_ = 0;
    smallRepeat_.reset();
  }

  std::optional<Duration> sharpeningDue() const {
    if (nextRepeat_ == kRepeats.size() || kRepeats[nextRepeat_] > sharpening_) return std::nullopt;
    return largeChange_ + kRepeats[nextRepeat_];
  }

  std::optional<Duration> repeatDue() const {
    std::optional<Duration> due = smallRepeat_;
    if (const auto large = sharpeningDue()) due = due ? std::min(*due, *large) : *large;
    return due;
  }

  Duration interval_;
  std::optional<Duration> last_;
  std::optional<Duration> lastChange_;
  Duration largeChange_{};               // the last one
  Duration sharpening_{};                // how long after it the picture is repeated
  std::size_t nextRepeat_ = 0;           // of those after it
  std::optional<Duration> smallRepeat_;  // when the last small change is to be repeated
};

}  // namespace kestrune::linux_platform
