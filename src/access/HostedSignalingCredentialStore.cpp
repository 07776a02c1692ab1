#include "access/HostedSignalingCredentialStore.h"

#include <utility>

#include "model/HostedSignalingError.h"

namespace kestrune {

HostedSignalingCredentialStore::HostedSignalingCredentialStore(
    std::shared_ptr<CredentialHelperClient> credentialHelper)
    : credentialHelper_(std::move(credentialHelper)) {}

std::optional<HostedSignalingCredentials> HostedSignalingCredentialStore::load() const {
  const auto stored = credentialHelper_->readCredential(service_, account_);
  if (stored.status == kCredentialNotFound) return {};
  if (stored.status != kCredentialSuccess) throw HostedSignalingError::keychain(stored.status);
  auto credentials = stored.data ? decodeHostedCredentials(*stored.data) : std::nullopt;
  if (!credentials) throw HostedSignalingError(HostedSignalingError::Case::invalidResponse);
  return credentials;
}

void HostedSignalingCredentialStore::save(const HostedSignalingCredentials& credentials) const {
  const auto status =
      credentialHelper_->writeCredential(service_, account_, encodeHostedCredentials(credentials));
  if (status != kCredentialSuccess) throw HostedSignalingError::keychain(status);
}

CredentialStatus HostedSignalingCredentialStore::remove() const {
  return credentialHelper_->removeCredential(service_, account_);
}

}  // namespace kestrune
