#pragma once

#include <map>
#include <memory>
#include <vector>

#include "server/ClientContext.h"

namespace kestrune {

using Client = std::shared_ptr<ClientContext>;

/// The connections of a server that have not ended, the oldest first. A plain value of the server's queue.
class OpenClients {
 public:
  Client add(std::shared_ptr<TcpConnection> connection);
  /// Whether it was there.
  bool remove(const ClientContext& client) { return clients_.erase(client.id) > 0; }
  std::vector<Client> takeAll();
  bool isEmpty() const { return clients_.empty(); }

  /// The connection to end in favour of a new one: the oldest of those that give way first, else of those
  /// that give way last. Null without either.
  Client firstToGiveWay() const;
  /// Those whose time to close was over at `now`.
  std::vector<Client> overdue(Duration now) const;
  /// Whether some connection has a limited time to close.
  bool hasDeadlines() const;

 private:
  std::map<ClientID, Client> clients_;
  ClientID nextID_ = 1;
};

}  // namespace kestrune
