#pragma once

#include <array>
#include <cstdint>
#include <string>

namespace kestrune::service {

/// Milliseconds since 1970-01-01 00:00 UTC.
using WallTime = std::int64_t;
/// SHA-256 (FIPS 180-4). All that is stored of a token of 256 random bits.
using TokenHash = std::array<std::uint8_t, 32>;

/// Who may approve devices and see them.
struct Account {
  /// The account that owns what is approved without a person. It has no way to sign in and is not counted.
  static constexpr const char* kLocalID = "local";

  std::string id{};
  std::string displayName{};
  /// Unique, in lower case; empty for an account that signs in with a provider.
  std::string signInName{};
  /// In the text form of Argon2 ("$argon2id$v=19$..."); empty for one that signs in with a provider.
  std::string passwordHash{};
  WallTime createdAt = 0;
};

/// A person as a provider names them (OpenID Connect Core 1.0 §2: "iss" and "sub"); unique as a pair.
struct Identity {
  std::string issuer{};
  std::string subject{};
};

/// A browser that is signed in.
struct Session {
  TokenHash tokenHash{};
  std::string accountID{};
  WallTime createdAt = 0;
  WallTime expiresAt = 0;
};

/// A host's request to be linked to an account.
struct DeviceAuthorization {
  std::string id{};
  TokenHash pollTokenHash{};
  WallTime requestedAt = 0;
  WallTime expiresAt = 0;
  std::string requesterAddress{};
  std::string requesterName{};  // what the host calls its program; not to be trusted
  /// The account that approved it; empty while it waits.
  std::string approvedBy{};
  /// Set with the approval.
  std::string deviceName{};
};

/// A linked host. Its tokens exist only as hashes.
struct Device {
  std::string id{};
  std::string accountID{};
  std::string name{};
  TokenHash hostTokenHash{};
  TokenHash viewerTokenHash{};
  WallTime createdAt = 0;
};

/// Whether a linked host is connected, and when that was last known.
struct Presence {
  bool isOnline = false;
  WallTime lastSeenAt = 0;
};

/// One diagnostics report of a host.
struct Report {
  std::int64_t number = 0;  // given by the store, from 1, never used twice
  std::string deviceID{};
  std::string accountID{};
  std::string deviceName{};
  std::string reportID{};  // given by the host; unique per device
  WallTime receivedAt = 0;
  std::string body{};  // the JSON as received, validated
};

}  // namespace kestrune::service
