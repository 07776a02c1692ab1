#pragma once

#include <string>

namespace kestrune {

/// Where the server learns the secret that a viewer has to present. Called on the server's queue, at the
/// start and for every token that a peer presents; it must answer from memory after its first success.
class ViewerTokenSource {
 public:
  virtual ~ViewerTokenSource() = default;
  /// Throws an Error if there is no token and none can be made.
  virtual std::string token() = 0;
};

}  // namespace kestrune
