#pragma once

#include <filesystem>

#include "platform/Credentials.h"

namespace kestrune::linux_platform {

/// Reaches the credential helper over a private Unix socket: each connection starts the helper, for one
/// request. Nothing secret is in its arguments or its environment.
class HelperCredentialConnector final : public CredentialConnector {
 public:
  /// The default is kestrune-credential-helper beside the running executable.
  HelperCredentialConnector();
  explicit HelperCredentialConnector(std::filesystem::path helper);

  /// The helper serves one name, com.fennwick.Kestrune.CredentialHelper; under another nothing answers.
  std::unique_ptr<CredentialConnection> connect(const std::string& serviceName) override;

 private:
  const std::filesystem::path helper_;
};

}  // namespace kestrune::linux_platform
