#include "server/AuthenticationRateLimiter.h"

namespace kestrune {

bool AuthenticationRateLimiter::isAllowed(Duration now) {
  if (blockedUntil_ && now < *blockedUntil_) return false;
  blockedUntil_.reset();
  forgetOldFailures(now);
  return true;
}

void AuthenticationRateLimiter::recordFailure(Duration now) {
  forgetOldFailures(now);
  failures_.push_back(now);
  if (failures_.size() < kMaximumFailures) return;
  blockedUntil_ = now + kCooldown;
  failures_.clear();
}

void AuthenticationRateLimiter::forgetOldFailures(Duration now) {
  while (!failures_.empty() && now - failures_.front() > kWindow) failures_.pop_front();
}

}  // namespace kestrune
