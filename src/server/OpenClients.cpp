#include "server/OpenClients.h"

#include <algorithm>
#include <utility>

namespace kestrune {

Client OpenClients::add(std::shared_ptr<TcpConnection> connection) {
  auto client = std::make_shared<ClientContext>(nextID_++, std::move(connection));
  clients_.emplace(client->id, client);
  return client;
}

std::vector<Client> OpenClients::takeAll() {
  std::vector<Client> all;
  for (auto& [id, client] : std::exchange(clients_, {})) all.push_back(std::move(client));
  return all;
}

Client OpenClients::firstToGiveWay() const {
  Client chosen;
  for (const auto& [id, client] : clients_) {
    const auto order = client->givesWay();
    if (order == GivesWay::first) return client;
    if (order == GivesWay::last && !chosen) chosen = client;
  }
  return chosen;
}

std::vector<Client> OpenClients::overdue(Duration now) const {
  std::vector<Client> all;
  for (const auto& [id, client] : clients_) {
    const auto deadline = client->deadline();
    if (deadline && *deadline <= now) all.push_back(client);
  }
  return all;
}

bool OpenClients::hasDeadlines() const {
  return std::any_of(clients_.begin(), clients_.end(),
                     [](const auto& entry) { return entry.second->deadline().has_value(); });
}

}  // namespace kestrune
