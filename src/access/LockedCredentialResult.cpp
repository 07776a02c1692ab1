#include "access/LockedCredentialResult.h"

#include <utility>

namespace kestrune {

bool LockedCredentialResult::store(CredentialStatus status, std::optional<Bytes> data) {
  std::lock_guard guard(lock_);
  if (storedValue_) return false;
  storedValue_ = Value{status, std::move(data)};
  return true;
}

std::optional<LockedCredentialResult::Value> LockedCredentialResult::value() const {
  std::lock_guard guard(lock_);
  return storedValue_;
}

}  // namespace kestrune
