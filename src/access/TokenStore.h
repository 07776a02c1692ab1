#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>

#include "access/CredentialHelperClient.h"
#include "platform/RandomSource.h"
#include "runtime/Error.h"

namespace kestrune {

/// Why there is no viewer token.
class TokenStoreError final : public Error {
 public:
  enum class Case {
    randomGenerationFailed,  // with the status of the random source
    keychainFailure,         // with the status of the credential helper
    invalidStoredToken,
  };

  static TokenStoreError randomGenerationFailed(std::int32_t status);
  static TokenStoreError keychainFailure(CredentialStatus status);
  static TokenStoreError invalidStoredToken();

  Case value() const { return value_; }
  /// 0 for a case without one.
  std::int32_t status() const { return status_; }
  std::string localizedDescription() const override;
  const char* what() const noexcept override { return text_.c_str(); }

  friend bool operator==(const TokenStoreError& a, const TokenStoreError& b) {
    return a.value_ == b.value_ && a.status_ == b.status_;
  }

 private:
  TokenStoreError(Case value, std::int32_t status);

  Case value_;
  std::int32_t status_;
  std::string text_;
};

/// The viewer token: 43 characters, the unpadded base64url form of 32 random bytes (RFC 4648 §5), made once
/// and kept by the credential helper. It is read once per process; a stored value of another form is an error
/// and is left as it is. Any thread may call; one shared instance.
class TokenStore {
 public:
  TokenStore(std::shared_ptr<CredentialHelperClient> credentialHelper, std::shared_ptr<RandomSource> random);

  /// May block on the credential helper until it has succeeded once. Throws a TokenStoreError.
  std::string token();

 private:
  std::optional<std::string> readStoredToken() const;
  std::string makeToken() const;

  const std::string service_ = "com.fennwick.Kestrune.viewer";
  const std::string account_ = "capability-token";
  const std::shared_ptr<CredentialHelperClient> credentialHelper_;
  const std::shared_ptr<RandomSource> random_;
  std::mutex lock_;  // held through a whole lookup, so that two first calls make one token
  std::optional<std::string> cachedToken_;
};

}  // namespace kestrune
