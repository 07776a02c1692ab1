#pragma once

#include <optional>
#include <set>

namespace kestrune::linux_platform {

/// What of the machine's network matters to whether it can reach anything (rtnetlink(7)). Internal to this
/// folder.
struct NetworkPath {
  /// Indexes of the interfaces that are up, are no loopback, and have an address of more than link scope.
  std::set<int> interfaces;
  /// Interface indexes of the default routes; 0 where a route names several or none.
  std::set<int> defaultRoutes;

  bool isUsable() const { return !interfaces.empty() && !defaultRoutes.empty(); }
  friend bool operator==(const NetworkPath&, const NetworkPath&) = default;
};

/// A NETLINK_ROUTE socket that hears of links, addresses and routes, or with `groups` 0 of nothing; negative
/// on failure.
int openRouteSocket(unsigned groups, int flags);

/// Asks the kernel over a blocking socket without groups. Nothing if it does not answer.
std::optional<NetworkPath> readNetworkPath(int socket);

}  // namespace kestrune::linux_platform
