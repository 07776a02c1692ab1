#pragma once

#include <memory>
#include <string>

#include "access/TokenStore.h"
#include "coordination/ErrorReport.h"
#include "runtime/Published.h"

namespace kestrune {

/// Owns the address at which a viewer reaches this machine. Main queue only.
class ViewerAddress {
 public:
  /// `serverURL`: of the local route, without the token.
  ViewerAddress(std::string serverURL, std::shared_ptr<TokenStore> tokens, ErrorReport& errors);

  /// With the access token as its fragment; "Unavailable" while there is no token.
  const Observable<std::string>& local() const { return local_; }

  /// Reads the token; a failure is reported to the user. May block until the credential helper has answered
  /// once.
  void refresh();

 private:
  const std::string serverURL_;
  const std::shared_ptr<TokenStore> tokens_;
  ErrorReport& errors_;
  Published<std::string> local_;
};

}  // namespace kestrune
