#pragma once

#include <memory>
#include <optional>
#include <string>

#include "access/CredentialHelperClient.h"
#include "model/HostedCredentials.h"

namespace kestrune {

/// The credentials of the hosted service, as one item that the credential helper keeps. Without state of its
/// own: nothing is cached. Any thread may call; every call may block on the helper.
class HostedSignalingCredentialStore {
 public:
  explicit HostedSignalingCredentialStore(std::shared_ptr<CredentialHelperClient> credentialHelper);

  /// Nothing if there is no item. Throws HostedSignalingError: `keychain` with the helper's status, or
  /// `invalidResponse` for an item of another form, which is left as it is.
  std::optional<HostedSignalingCredentials> load() const;
  /// Throws HostedSignalingError::keychain.
  void save(const HostedSignalingCredentials& credentials) const;
  /// The helper's status; kCredentialNotFound if there was no item.
  CredentialStatus remove() const;

 private:
  const std::string service_ = "com.fennwick.Kestrune.hosted-signaling";
  const std::string account_ = "credentials";
  const std::shared_ptr<CredentialHelperClient> credentialHelper_;
};

}  // namespace kestrune
