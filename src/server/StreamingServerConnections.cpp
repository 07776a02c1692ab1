#include <utility>

#include "server/ServerLog.h"
#include "server/StreamingServerTurns.h"

namespace kestrune {
namespace {

constexpr std::size_t kMaximumRead = 65'536;

}  // namespace

void StreamingServer::acceptConnection(std::shared_ptr<TcpConnection> connection) {
  const auto client = clients_.add(std::move(connection));
  try {
    beginConnection(client);
  } catch (...) {
    endClient(client);
    throw;
  }
}

void StreamingServer::beginConnection(const Client& client) {
  client->connection->setStateHandler(whileAlive(
      client,
      [](StreamingServer& server, const Client& self, TcpConnection::State state, const std::string& reason) {
        if (state == TcpConnection::State::ready) return;
        if (state == TcpConnection::State::failed) kServerLog.debug("Viewer connection ended: " + reason);
        server.endClient(self);
      }));
  client->connection->start();
  receiveNext(client);
}

void StreamingServer::receiveNext(const Client& client) {
  if (!client->receives()) return;
  client->connection->receive(
      1, kMaximumRead,
      whileAlive(client, [](StreamingServer& server, const Client& self, ByteView bytes, bool isComplete,
                            const std::optional<std::string>& failure) {
        if (!bytes.empty()) server.handleReceived(self, bytes);
        if (failure) {
          kServerLog.debug("Viewer connection ended: " + *failure);
          server.endClient(self);
        } else if (isComplete) {
          if (self->finishReceiving()) server.endClient(self);
        } else {
          server.receiveNext(self);
        }
      }));
}

void StreamingServer::handleReceived(const Client& client, ByteView bytes) {
  if (auto* reading = client->readingRequest()) {
    reading->received.append(bytes);
    processHTTPBuffer(client);
  } else if (auto* peer = client->webSocketPeer()) {
    peer->received.append(bytes);
    processWebSocketBuffer(client);
  }
}

bool StreamingServer::makeRoom() {
  const auto client = clients_.firstToGiveWay();
  if (client) endClient(client);
  return client != nullptr;
}

}  // namespace kestrune
