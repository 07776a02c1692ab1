#include "model/KestruneError.h"

#include "platform/Bundle.h"

namespace kestrune {

KestruneError::KestruneError(Case value, std::string payload)
    : value_(value), payload_(std::move(payload)), text_(localizedDescription()) {}

KestruneError KestruneError::operationFailed(std::string message) {
  return KestruneError(Case::operationFailed, std::move(message));
}

KestruneError KestruneError::funnelConflict(std::string detail) {
  return KestruneError(Case::funnelConflict, std::move(detail));
}

std::string KestruneError::localizedDescription() const {
  switch (value_) {
    case Case::funnelConflict:
      return localized("The developer relay's network port is already in use.");
    case Case::operationFailed:
      return payload_;
    case Case::noSource:
      return localized("Choose a screen, window, or app first.");
    case Case::alreadyRunning:
      return localized("Streaming is already running.");
    case Case::serverNotReady:
      return localized("The local streaming server is not ready.");
    case Case::tailscaleUnavailable:
      return localized("The developer relay is unavailable.");
    case Case::authenticationFailed:
      return localized("The viewer access token was rejected.");
  }
  return {};
}

}  // namespace kestrune
