#pragma once

#include <chrono>
#include <memory>
#include <optional>
#include <string>

#include "platform/Bytes.h"

namespace kestrune::linux_platform {

/// Items in the user's keyring (freedesktop.org Secret Service), under the attributes "service" and
/// "account". Every call ends within a limit, a question to the user to unlock the keyring included.
class SecretService {
 public:
  /// A keyring that stays locked is `failed`: what it has is out of reach, not missing.
  enum class Outcome { done, notFound, failed };
  struct Found {
    Outcome outcome = Outcome::failed;
    std::optional<Bytes> data;
  };

  struct Limits {
    std::chrono::seconds connect{3};
    std::chrono::seconds operation{25};  // long enough for a person to type the keyring's password
  };

  /// Null where there is no session bus, or no secret service on it.
  static std::unique_ptr<SecretService> connect(Limits limits);
  static std::unique_ptr<SecretService> connect() { return connect(Limits()); }

  Found read(const std::string& service, const std::string& account) const;
  Outcome write(const std::string& service, const std::string& account, const Bytes& data) const;
  Outcome remove(const std::string& service, const std::string& account) const;

 private:
  explicit SecretService(Limits limits) : limits_(limits) {}

  const Limits limits_;
};

}  // namespace kestrune::linux_platform
