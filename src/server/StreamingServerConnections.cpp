#include <chrono>
#include <utility>
#include <vector>

#include "runtime/Error.h"
#include "server/ServerLog.h"
#include "server/StreamingServerTurns.h"

namespace kestrune {
namespace {

constexpr std::size_t kMaximumRead = 65'536;
constexpr Duration kSweepPeriod = std::chrono::seconds(5);

}  // namespace

void StreamingServer::acceptConnection(std::shared_ptr<TcpConnection> connection) {
  const auto client = std::make_shared<ClientContext>(nextClientID_++, std::move(connection));
  clients_.emplace(client->id, client);
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
  if (client->closed && !client->discardsInput) return;
  client->connection->receive(
      1, kMaximumRead,
      whileAlive(client, [](StreamingServer& server, const Client& self, ByteView bytes, bool isComplete,
                            const std::optional<std::string>& failure) {
        if (!self->closed && !bytes.empty()) server.handleReceived(self, bytes);
        if (failure) {
          kServerLog.debug("Viewer connection ended: " + *failure);
          server.endClient(self);
        } else if (isComplete) {
          server.handlePeerEnd(self);
        } else {
          server.receiveNext(self);
        }
      }));
}

void StreamingServer::handlePeerEnd(const Client& client) {
  if (client->closed && !client->hasFinishedSending) {
    client->hasPeerEnded = true;  // it still gets the answer that is on its way
  } else {
    endClient(client);
  }
}

void StreamingServer::handleReceived(const Client& client, ByteView bytes) {
  switch (client->state) {
    case ClientContext::State::http:
      client->receiveBuffer.append(bytes);
      processHTTPBuffer(client);
      return;
    case ClientContext::State::webSocketAwaitingAuth:
    case ClientContext::State::webSocketAuthenticated:
      client->receiveBuffer.append(bytes);
      processWebSocketBuffer(client);
      return;
    case ClientContext::State::audioPoll:
      return;  // a poll has said all it has to say; nothing of it is kept
  }
}

void StreamingServer::endClient(const Client& client) {
  if (clients_.erase(client->id) == 0) return;
  disconnect(*client);
  viewerEnded(*client);
}

bool StreamingServer::endOldestUnauthenticated() {
  Client chosen;
  for (const auto& [id, client] : clients_) {
    const bool isHTTP = client->state == ClientContext::State::http;
    if (!isHTTP && client->state != ClientContext::State::webSocketAwaitingAuth) continue;
    const bool isAnswered = isHTTP && client->closed;
    if (!chosen || !isAnswered) chosen = client;
    if (!isAnswered) break;
  }
  if (chosen) endClient(chosen);
  return static_cast<bool>(chosen);
}

void StreamingServer::endAfterFailure(const Client& client) {
  kServerLog.error("A viewer connection is ended: " + localizedDescription(std::current_exception()));
  endClient(client);
}

void StreamingServer::markClosed(ClientContext& client) {
  client.closed = true;
  client.audioPollWorkItem.cancel();
  client.receiveBuffer.release();
  client.pendingSends.clear();
}

void StreamingServer::disconnect(ClientContext& client) {
  markClosed(client);
  client.connection->setStateHandler({});
  client.connection->cancel();
}

void StreamingServer::viewerEnded(ClientContext& client) {
  if (viewerID_ != client.id) return;
  const bool wasPlaying = client.session->isPlaying();
  client.session->endControl();
  viewerID_.reset();
  requests_->onViewerConnectionChanged(false, wasPlaying);
  kServerLog.notice("Viewer disconnected");
}

void StreamingServer::sendLast(const Client& client, GatheredBytes message, bool countsAsSent) {
  const auto counted = countsAsSent ? message.size() : 0;
  client->connection->send(
      std::move(message),
      whileAlive(client, [counted](StreamingServer& server, const Client& self, bool succeeded) {
        server.bytesSent_ += counted;
        if (!succeeded || !self->discardsInput || self->hasPeerEnded) {
          server.endClient(self);
        } else {
          self->hasFinishedSending = true;
          self->connection->finishSending();
        }
      }));
}

void StreamingServer::limitClosing(ClientContext& client, Duration patience) {
  client.closingDeadline = clock_->continuousNow() + patience;
  if (!closingSweep_.isPending()) armClosingSweep();
}

void StreamingServer::armClosingSweep() {
  closingSweep_ = queue_->postAfter(kSweepPeriod, [weak = weak_from_this()] {
    if (const auto server = weak.lock()) server->sweepClosing();
  });
}

void StreamingServer::sweepClosing() {
  const auto now = clock_->continuousNow();
  std::vector<Client> overdue;
  bool someWait = false;
  for (const auto& [id, client] : clients_) {
    if (!client->closingDeadline) continue;
    if (*client->closingDeadline <= now) {
      overdue.push_back(client);
    } else {
      someWait = true;
    }
  }
  for (const auto& client : overdue) endClient(client);
  if (someWait) armClosingSweep();
}

}  // namespace kestrune
