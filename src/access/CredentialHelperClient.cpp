#include "access/CredentialHelperClient.h"

#include <mutex>
#include <semaphore>
#include <utility>

namespace kestrune {
namespace {

const std::string kServiceName = "com.fennwick.Kestrune.CredentialHelper";

/// The outcome of one call: the first that comes counts. Any thread may call.
class LockedCredentialResult {
 public:
  void store(CredentialStatus status, std::optional<Bytes> data) {
    {
      const std::lock_guard guard(lock_);
      if (storedValue_) return;
      storedValue_ = {status, std::move(data)};
    }
    isStored_.release();
  }
  CredentialHelperClient::ReadResult wait() {
    isStored_.acquire();
    const std::lock_guard guard(lock_);
    return *storedValue_;
  }

 private:
  std::binary_semaphore isStored_{0};
  std::mutex lock_;
  std::optional<CredentialHelperClient::ReadResult> storedValue_;  // guarded by lock_
};

}  // namespace

CredentialHelperClient::CredentialHelperClient(std::shared_ptr<CredentialConnector> connector)
    : connector_(std::move(connector)) {}

CredentialHelperClient::ReadResult CredentialHelperClient::call(const Request& request) const {
  const auto connection = connector_->connect(kServiceName);
  const auto result = std::make_shared<LockedCredentialResult>();  // the handlers may come late
  const Finish finish = [result](CredentialStatus status, std::optional<Bytes> data) {
    result->store(status, std::move(data));
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
  auto outcome = result->wait();
  connection->setInvalidationHandler(nullptr);
  connection->setInterruptionHandler(nullptr);
  connection->invalidate();
  return outcome;
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
