#include "model/HostedSignalingError.h"

#include <utility>

#include "platform/Bundle.h"

namespace kestrune {
namespace {

std::string textOf(HostedSignalingError::Case value) {
  using Case = HostedSignalingError::Case;
  switch (value) {
    case Case::invalidServiceURL:
      return localized("Enter a valid HTTPS signaling service URL.");
    case Case::invalidResponse:
      return localized("The signaling service returned an invalid response.");
    case Case::authenticationTimedOut:
      return localized("The signaling service did not authenticate this Mac in time.");
    case Case::authenticationRejected:
      return localized("The signaling service rejected this Mac's credentials.");
    case Case::authorizationExpired:
      return localized("Sign-in expired. Please try again.");
    case Case::rejected:
    case Case::keychain:
      break;
  }
  return {};
}

}  // namespace

HostedSignalingError::HostedSignalingError(Case value) : HostedSignalingError(value, textOf(value)) {}

HostedSignalingError::HostedSignalingError(Case value, std::string text)
    : value_(value), text_(std::move(text)) {}

HostedSignalingError HostedSignalingError::rejected(std::string text) {
  return HostedSignalingError(Case::rejected, std::move(text));
}

HostedSignalingError HostedSignalingError::keychain(std::int32_t status) {
  std::string text = localized("Could not access hosted connection credentials in Keychain (OSStatus %d).");
  if (const auto place = text.find("%d"); place != std::string::npos) {
    text.replace(place, 2, std::to_string(status));
  }
  return HostedSignalingError(Case::keychain, std::move(text));
}

}  // namespace kestrune
