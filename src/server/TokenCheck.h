#pragma once

#include <memory>
#include <optional>
#include <string>

#include "runtime/Clock.h"
#include "server/AuthenticationRateLimiter.h"
#include "server/ViewerTokenSource.h"

namespace kestrune {

/// Compares what a peer presents with the viewer token, and slows down guessing: HTTP and WebSocket share one
/// limit. A right token is never refused. Belongs to the server's queue.
class TokenCheck {
 public:
  enum class Verdict {
    right,
    wrong,
    rateLimited,  // wrong, while wrong ones are refused unheard
    unavailable,  // the token cannot be had; the log says why
  };

  TokenCheck(std::shared_ptr<ViewerTokenSource> source, std::shared_ptr<const Clock> clock);

  /// Throws what the source throws if there is no token.
  void requireToken() const { source_->token(); }
  /// A missing candidate is a wrong one.
  Verdict check(const std::optional<std::string>& candidate);
  /// wrong or rateLimited, for a peer that presents nothing; counts like a wrong token.
  Verdict refuse();

 private:
  const std::shared_ptr<ViewerTokenSource> source_;
  const std::shared_ptr<const Clock> clock_;
  AuthenticationRateLimiter limiter_;
};

}  // namespace kestrune
