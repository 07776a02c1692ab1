#pragma once

#include <chrono>
#include <cstddef>
#include <deque>
#include <optional>

#include "runtime/Clock.h"

namespace kestrune {

/// Slows down the guessing of tokens: five failures within a minute block further attempts for a minute. It
/// is asked only after a failure, so that a right token is never refused. A plain value on a continuous
/// clock.
class AuthenticationRateLimiter {
 public:
  static constexpr std::size_t kMaximumFailures = 5;
  static constexpr Duration kWindow = std::chrono::seconds(60);
  static constexpr Duration kCooldown = std::chrono::seconds(60);

  /// Whether a failure at `now` is to be recorded and told as such. An attempt while blocked extends nothing.
  bool isAllowed(Duration now);
  void recordFailure(Duration now);

 private:
  void forgetOldFailures(Duration now);

  std::deque<Duration> failures_;
  std::optional<Duration> blockedUntil_;
};

}  // namespace kestrune
