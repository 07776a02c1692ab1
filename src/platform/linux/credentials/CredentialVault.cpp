#include "platform/linux/credentials/CredentialVault.h"

#include <exception>
#include <utility>

#include "platform/linux/credentials/CredentialFile.h"
#include "runtime/Log.h"

namespace kestrune::linux_platform {
namespace {

constexpr Logger kLog("App");
using Outcome = SecretService::Outcome;

/// Whether the Secret Service has something of this name, be it old.
bool isInKeyring(const CredentialFile::Item* item) {
  return item && (!item->data || item->hasOlder);
}

}  // namespace

CredentialReply CredentialVault::perform(const CredentialRequest& request) const {
  try {
    switch (request.operation) {
      case CredentialOperation::read:
        return read(request);
      case CredentialOperation::write:
        return {write(request), std::nullopt};
      case CredentialOperation::remove:
        return {remove(request), std::nullopt};
    }
  } catch (const std::exception& error) {
    kLog.error(std::string("The credentials file cannot be used: ") + error.what());
    return {kCredentialInputOutputError, std::nullopt};
  }
  return {kCredentialParameterError, std::nullopt};
}

CredentialReply CredentialVault::read(const CredentialRequest& request) const {
  const CredentialFile file(directory_);
  const auto* item = file.find(request.service, request.account);
  if (item && item->data) return {kCredentialSuccess, item->data};
  const auto keyring = connect_();
  auto found = keyring ? keyring->read(request.service, request.account) : SecretService::Found();
  if (found.outcome == Outcome::done) return {kCredentialSuccess, std::move(found.data)};
  const bool isOutOfReach = item && found.outcome == Outcome::failed;
  return {isOutOfReach ? kCredentialNotAvailable : kCredentialNotFound, std::nullopt};
}

CredentialStatus CredentialVault::write(const CredentialRequest& request) const {
  CredentialFile file(directory_);
  const auto keyring = connect_();
  CredentialFile::Item item{request.service, request.account, request.data, false};
  if (keyring && keyring->write(request.service, request.account, request.data) == Outcome::done) {
    item.data.reset();
  } else {
    item.hasOlder = isInKeyring(file.find(request.service, request.account));
  }
  file.put(std::move(item));
  return kCredentialSuccess;
}

CredentialStatus CredentialVault::remove(const CredentialRequest& request) const {
  CredentialFile file(directory_);
  const auto* item = file.find(request.service, request.account);
  const auto keyring = connect_();
  const auto outcome = keyring ? keyring->remove(request.service, request.account) : Outcome::failed;
  // What the file alone forgets would come back with the keyring.
  if (isInKeyring(item) && outcome == Outcome::failed) return kCredentialNotAvailable;
  if (item) file.remove(request.service, request.account);
  return item || outcome == Outcome::done ? kCredentialSuccess : kCredentialNotFound;
}

}  // namespace kestrune::linux_platform
