#include "access/CredentialHelperClient.h"

#include <semaphore>
#include <utility>

namespace kestrune {
namespace {

const std::string kServiceName = "com.fennwick.Kestrune.CredentialHelper";

/// Shared with the handlers, which may come late.
struct PendingCall {
  std::binary_semaphore finished{0};
  LockedCredentialResult result;

  void finish(CredentialStatus status, std::optional<Bytes> data) {
    if (result.store(status, std::move(data))) finished.release();
  }
};

}  // namespace

CredentialHelperClient::CredentialHelperClient(std::shared_ptr<CredentialConnector> connector)
    : connector_(std::move(connector)) {}

CredentialHelperClient::ReadResult CredentialHelperClient::call(const Request& request) const {
  const auto connection = connector_->connect(kServiceName);
  const auto pending = std::make_shared<PendingCall>();
  const Finish finish = [pending](CredentialStatus status, std::optional<Bytes> data) {
    pending->finish(status, std::move(data));
  };
  const auto unavailable = [finish] { finish(kCredentialNotAvailable, std::nullopt); };
  connection->setInvalidationHandler(unavailable);
  connection->setInterruptionHandler(unavailable);
  connection->resume();
  CredentialHelperProtocol* helper = connection->remoteObjectProxy(unavailable);
  if (!helper) {
    connection->invalidate();
    return {kCredentialNotAvailable, std::nullopt};
  }
  request(*helper, finish);
  pending->finished.acquire();
  connection->setInvalidationHandler(nullptr);
  connection->setInterruptionHandler(nullptr);
  connection->invalidate();
  return pending->result.value().value_or(ReadResult());
}

CredentialHelperClient::ReadResult CredentialHelperClient::readCredential(const std::string& service,
                                                                          const std::string& account) const {
  return call([&](CredentialHelperProtocol& helper, const Finish& finish) {
    helper.readCredential(service, account, [finish](std::optional<Bytes> data, CredentialStatus status) {
      finish(status, std::move(data));
    });
  });
}

CredentialStatus CredentialHelperClient::writeCredential(const std::string& service,
                                                         const std::string& account,
                                                         const Bytes& data) const {
  return call([&](CredentialHelperProtocol& helper, const Finish& finish) {
           helper.writeCredential(service, account, data,
                                  [finish](CredentialStatus status) { finish(status, std::nullopt); });
         })
      .status;
}

CredentialStatus CredentialHelperClient::removeCredential(const std::string& service,
                                                          const std::string& account) const {
  return call([&](CredentialHelperProtocol& helper, const Finish& finish) {
           helper.removeCredential(service, account,
                                   [finish](CredentialStatus status) { finish(status, std::nullopt); });
         })
      .status;
}

}  // namespace kestrune
