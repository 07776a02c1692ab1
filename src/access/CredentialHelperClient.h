#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "platform/Credentials.h"

namespace kestrune {

/// The secrets that the credential helper keeps, by blocking calls. An item is named by the pair of service
/// and account. Nothing is thrown: a helper that cannot be reached, or that ends during a call, is the status
/// kCredentialNotAvailable.
///
/// Any thread may call except the one on which the connector delivers replies; calls at the same time use
/// separate connections. There is no time limit of its own: the reply or a failure of the connection ends the
/// call.
class CredentialHelperClient {
 public:
  struct ReadResult {
    CredentialStatus status = kCredentialNotAvailable;
    std::optional<Bytes> data;
  };

  explicit CredentialHelperClient(std::shared_ptr<CredentialConnector> connector);

  ReadResult readCredential(const std::string& service, const std::string& account) const;
  CredentialStatus writeCredential(const std::string& service, const std::string& account,
                                   const Bytes& data) const;
  CredentialStatus removeCredential(const std::string& service, const std::string& account) const;

 private:
  using Finish = std::function<void(CredentialStatus status, std::optional<Bytes> data)>;
  using Request = std::function<void(CredentialHelperProtocol& helper, const Finish& finish)>;

  ReadResult call(const Request& request) const;

  const std::shared_ptr<CredentialConnector> connector_;
};

}  // namespace kestrune
