#pragma once

#include <string>

#include "runtime/Error.h"

namespace kestrune {

/// The general failure of the coordinator and the services around it.
class KestruneError final : public Error {
 public:
  enum class Case {
    funnelConflict,  // its payload is for the log only
    operationFailed,
    noSource,
    alreadyRunning,
    serverNotReady,
    tailscaleUnavailable,
    authenticationFailed,
  };

  /// For the cases without a payload.
  explicit KestruneError(Case value) : KestruneError(value, {}) {}
  static KestruneError operationFailed(std::string message);
  static KestruneError funnelConflict(std::string detail);

  Case value() const { return value_; }
  const std::string& payload() const { return payload_; }
  std::string localizedDescription() const override;
  const char* what() const noexcept override { return text_.c_str(); }

  friend bool operator==(const KestruneError& a, const KestruneError& b) {
    return a.value_ == b.value_ && a.payload_ == b.payload_;
  }

 private:
  KestruneError(Case value, std::string payload);

  Case value_;
  std::string payload_;
  std::string text_;
};

}  // namespace kestrune
