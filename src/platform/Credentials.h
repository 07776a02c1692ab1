#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "platform/Bytes.h"

namespace kestrune {

/// Keychain status numbers (32-bit OSStatus).
using CredentialStatus = std::int32_t;
inline constexpr CredentialStatus kCredentialSuccess = 0;
inline constexpr CredentialStatus kCredentialNotFound = -25300;      // errSecItemNotFound
inline constexpr CredentialStatus kCredentialNotAvailable = -25291;  // errSecNotAvailable

/// The three operations of the credential helper. Replies come on another thread than the caller's, at most
/// once. An item is named by the pair of service and account.
class CredentialHelperProtocol {
 public:
  using ReadReply = std::function<void(std::optional<Bytes> data, CredentialStatus status)>;
  using StatusReply = std::function<void(CredentialStatus status)>;

  virtual ~CredentialHelperProtocol() = default;
  virtual void readCredential(const std::string& service, const std::string& account, ReadReply reply) = 0;
  virtual void writeCredential(const std::string& service, const std::string& account, const Bytes& data,
                               StatusReply reply) = 0;
  virtual void removeCredential(const std::string& service, const std::string& account,
                                StatusReply reply) = 0;
};

/// One connection to the helper, for one call. Handlers come on another thread than the caller's, or within a
/// request that cannot be made.
class CredentialConnection {
 public:
  virtual ~CredentialConnection() = default;
  /// An empty handler clears it; after that returns, the handler neither runs nor will run.
  virtual void setInvalidationHandler(std::function<void()> handler) = 0;
  virtual void setInterruptionHandler(std::function<void()> handler) = 0;
  /// Starts the helper if it does not run, and connects.
  virtual void resume() = 0;
  virtual void invalidate() = 0;
  /// The helper's operations, owned by the connection; null if the other side does not serve them.
  /// `errorHandler` is called if a request cannot be answered.
  virtual CredentialHelperProtocol* remoteObjectProxy(std::function<void()> errorHandler) = 0;
};

class CredentialConnector {
 public:
  virtual ~CredentialConnector() = default;
  virtual std::unique_ptr<CredentialConnection> connect(const std::string& serviceName) = 0;
};

}  // namespace kestrune
