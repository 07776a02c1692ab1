#pragma once

#include <cstdint>
#include <string>

#include "runtime/Error.h"

namespace kestrune {

/// A failure of the account link or of the connection to the hosted service.
class HostedSignalingError final : public Error {
 public:
  enum class Case {
    rejected,  // with the service's own text
    keychain,  // with the status of the credential helper
    invalidServiceURL,
    invalidResponse,
    authenticationTimedOut,
    authenticationRejected,
    authorizationExpired,
  };

  /// For the cases without a payload.
  explicit HostedSignalingError(Case value);
  static HostedSignalingError rejected(std::string text);
  static HostedSignalingError keychain(std::int32_t status);

  Case value() const { return value_; }
  std::string localizedDescription() const override { return text_; }
  const char* what() const noexcept override { return text_.c_str(); }

 private:
  HostedSignalingError(Case value, std::string text);

  Case value_;
  std::string text_;
};

}  // namespace kestrune
