#include "access/TokenStore.h"

#include <algorithm>
#include <array>
#include <utility>

#include "platform/Bundle.h"
#include "platform/support/Encoding.h"

namespace kestrune {
namespace {

constexpr std::size_t kTokenLength = 43;
constexpr std::size_t kRandomBytes = 32;

bool isTokenCharacter(char c) {
  return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '-' || c == '_';
}

std::string withStatus(std::string_view format, std::int32_t status) {
  std::string text = localized(format);
  if (const auto place = text.find("%d"); place != std::string::npos) {
    text.replace(place, 2, std::to_string(status));
  }
  return text;
}

}  // namespace

TokenStoreError::TokenStoreError(Case value, std::int32_t status)
    : value_(value), status_(status), text_(localizedDescription()) {}

TokenStoreError TokenStoreError::randomGenerationFailed(std::int32_t status) {
  return {Case::randomGenerationFailed, status};
}

TokenStoreError TokenStoreError::keychainFailure(CredentialStatus status) {
  return {Case::keychainFailure, status};
}

TokenStoreError TokenStoreError::invalidStoredToken() {
  return {Case::invalidStoredToken, 0};
}

std::string TokenStoreError::localizedDescription() const {
  switch (value_) {
    case Case::randomGenerationFailed:
      return withStatus("Could not generate an access token (OSStatus %d).", status_);
    case Case::keychainFailure:
      return withStatus("Could not access the viewer token in Keychain (OSStatus %d).", status_);
    case Case::invalidStoredToken:
      return localized("The viewer token stored in Keychain is invalid.");
  }
  return {};
}

TokenStore::TokenStore(std::shared_ptr<CredentialHelperClient> credentialHelper,
                       std::shared_ptr<RandomSource> random)
    : credentialHelper_(std::move(credentialHelper)), random_(std::move(random)) {}

std::string TokenStore::token() {
  std::lock_guard guard(lock_);
  if (cachedToken_) return *cachedToken_;
  auto token = readStoredToken();
  if (!token) {
    token = makeToken();
    const Bytes data(token->begin(), token->end());
    const auto status = credentialHelper_->writeCredential(service_, account_, data);
    if (status != kCredentialSuccess) throw TokenStoreError::keychainFailure(status);
  }
  cachedToken_ = token;
  return *token;
}

/// Nothing if none is stored.
std::optional<std::string> TokenStore::readStoredToken() const {
  const auto stored = credentialHelper_->readCredential(service_, account_);
  if (stored.status == kCredentialNotFound) return {};
  if (stored.status != kCredentialSuccess || !stored.data) {
    throw TokenStoreError::keychainFailure(stored.status);
  }
  std::string token(stored.data->begin(), stored.data->end());
  // All of the alphabet is ASCII, so that what passes is UTF-8 too.
  if (token.size() != kTokenLength || !std::all_of(token.begin(), token.end(), isTokenCharacter)) {
    throw TokenStoreError::invalidStoredToken();
  }
  return token;
}

std::string TokenStore::makeToken() const {
  std::array<std::uint8_t, kRandomBytes> bytes{};
  const auto status = random_->copyBytes(bytes);
  if (status != 0) throw TokenStoreError::randomGenerationFailed(status);
  std::string token = base64Encode(bytes);
  std::replace(token.begin(), token.end(), '+', '-');
  std::replace(token.begin(), token.end(), '/', '_');
  std::erase(token, '=');
  return token;
}

}  // namespace kestrune
