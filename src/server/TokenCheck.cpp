#include "server/TokenCheck.h"

#include <utility>

#include "platform/support/ConstantTime.h"
#include "runtime/Error.h"
#include "server/ServerLog.h"

namespace kestrune {

TokenCheck::TokenCheck(std::shared_ptr<ViewerTokenSource> source, std::shared_ptr<const Clock> clock)
    : source_(std::move(source)), clock_(std::move(clock)) {}

TokenCheck::Verdict TokenCheck::check(const std::optional<std::string>& candidate) {
  try {
    const auto token = source_->token();
    if (candidate && constantTimeEquals(*candidate, token)) return Verdict::right;
  } catch (...) {
    kServerLog.error("Viewer token lookup failed: " + localizedDescription(std::current_exception()));
    return Verdict::unavailable;
  }
  return refuse();
}

TokenCheck::Verdict TokenCheck::refuse() {
  const auto now = clock_->continuousNow();
  if (!limiter_.isAllowed(now)) return Verdict::rateLimited;
  limiter_.recordFailure(now);
  return Verdict::wrong;
}

}  // namespace kestrune
