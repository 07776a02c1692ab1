#pragma once

#include <filesystem>
#include <functional>
#include <memory>

#include "platform/linux/credentials/CredentialMessages.h"
#include "platform/linux/credentials/SecretService.h"

namespace kestrune::linux_platform {

/// Where the helper keeps items: in the Secret Service where one answers, else in a file. The file also notes
/// which items the Secret Service has, so that one that is out of reach for now is not taken for missing and
/// replaced; an item in the file is always newer than one of its name in the Secret Service.
class CredentialVault {
 public:
  using ConnectToSecretService = std::function<std::unique_ptr<SecretService>()>;

  CredentialVault(std::filesystem::path directory, ConnectToSecretService connect)
      : directory_(std::move(directory)), connect_(std::move(connect)) {}

  /// Never throws; what goes wrong is in the status and in the log.
  CredentialReply perform(const CredentialRequest& request) const;

 private:
  CredentialReply read(const CredentialRequest& request) const;
  CredentialStatus write(const CredentialRequest& request) const;
  CredentialStatus remove(const CredentialRequest& request) const;

  const std::filesystem::path directory_;
  const ConnectToSecretService connect_;
};

}  // namespace kestrune::linux_platform
