#pragma once

#include <mutex>
#include <optional>

#include "platform/Credentials.h"

namespace kestrune {

/// The outcome of one call to the credential helper: the first that comes counts. Any thread may call.
class LockedCredentialResult {
 public:
  struct Value {
    CredentialStatus status = kCredentialNotAvailable;
    std::optional<Bytes> data;
  };

  /// Whether this was the first outcome.
  bool store(CredentialStatus status, std::optional<Bytes> data);
  /// Nothing before the first outcome.
  std::optional<Value> value() const;

 private:
  mutable std::mutex lock_;
  std::optional<Value> storedValue_;  // guarded by lock_
};

}  // namespace kestrune
