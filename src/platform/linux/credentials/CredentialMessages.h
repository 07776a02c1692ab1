#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "platform/Bytes.h"
#include "platform/Credentials.h"

namespace kestrune::linux_platform {

/// What the program and its credential helper say to each other over a stream socket: one request, one reply.
/// Each message is a big-endian 32-bit length and that many bytes. Both sides are the same build.
inline constexpr std::size_t kLongestCredentialName = 1024;    // bytes of a service or an account
inline constexpr std::size_t kLargestCredentialData = 65'536;  // bytes of an item

/// Statuses of the helper beside those of the port.
inline constexpr CredentialStatus kCredentialParameterError = -50;    // errSecParam
inline constexpr CredentialStatus kCredentialInputOutputError = -36;  // errSecIO

enum class CredentialOperation : std::uint8_t { read = 1, write = 2, remove = 3 };

struct CredentialRequest {
  CredentialOperation operation = CredentialOperation::read;
  std::string service;
  std::string account;
  Bytes data;  // of a write

  bool isWithinLimits() const {
    return service.size() <= kLongestCredentialName && account.size() <= kLongestCredentialName &&
           data.size() <= kLargestCredentialData;
  }
};

struct CredentialReply {
  CredentialStatus status = kCredentialNotAvailable;
  std::optional<Bytes> data;
};

Bytes encode(const CredentialRequest& request);
Bytes encode(const CredentialReply& reply);
/// Nothing for bytes that are no such message or exceed the limits.
std::optional<CredentialRequest> decodeCredentialRequest(ByteView bytes);
std::optional<CredentialReply> decodeCredentialReply(ByteView bytes);

/// False if the other side is gone.
bool sendCredentialMessage(int socket, ByteView message);
/// Blocks until a whole message is there; nothing if the other side is gone or announces more than any
/// message has.
std::optional<Bytes> receiveCredentialMessage(int socket);

}  // namespace kestrune::linux_platform
