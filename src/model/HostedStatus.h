#pragma once

#include <string>
#include <utility>

namespace kestrune {

/// How the connection to the hosted service stands.
struct HostedConnectionStatus {
  enum class Case { failed, notConfigured, disconnected, connecting, connected };
  Case value = Case::notConfigured;
  std::string message;  // of `failed`

  HostedConnectionStatus() = default;
  HostedConnectionStatus(Case status) : value(status) {}
  static HostedConnectionStatus failed(std::string text) {
    HostedConnectionStatus status(Case::failed);
    status.message = std::move(text);
    return status;
  }
  friend bool operator==(const HostedConnectionStatus&, const HostedConnectionStatus&) = default;
};

/// How the relay to a hosted viewer stands.
struct HostedRelayStatus {
  enum class Case { failed, idle, waiting, connecting, connected };
  Case value = Case::idle;
  std::string message;  // of `failed`

  HostedRelayStatus() = default;
  HostedRelayStatus(Case status) : value(status) {}
  friend bool operator==(const HostedRelayStatus&, const HostedRelayStatus&) = default;
};

}  // namespace kestrune
