#include <chrono>
#include <utility>

#include "runtime/Error.h"
#include "server/ServerLog.h"
#include "server/StreamingServerTurns.h"

namespace kestrune {
namespace {

// The largest file over a slow mobile link takes less; a peer that takes nothing must not hold its answer.
constexpr Duration kResponsePatience = std::chrono::seconds(120);
// A close frame behind a send that a stuck peer does not take, or a peer that does not close in its turn,
// would hold the connection for ever.
constexpr Duration kClosePatience = std::chrono::seconds(5);
constexpr Duration kSweepPeriod = std::chrono::seconds(5);

}  // namespace

void StreamingServer::send(HTTPResponse response, const Client& client) {
  client->beginAnswer(clock_->continuousNow() + kResponsePatience);
  armClosingSweep();
  auto message = serializeResponse(std::move(response));
  const auto size = message.size();
  client->connection->send(std::move(message),
                           whileAlive(client, [size](StreamingServer& server, const Client& self, bool) {
                             server.bytesSent_ += size;
                             server.endClient(self);
                           }));
}

void StreamingServer::closeClient(const Client& client, WebSocketClose reason) {
  if (!client->webSocketPeer()) return;
  const auto session = client->session();
  auto frame = client->beginClosing(encodeCloseFrame(reason), clock_->continuousNow() + kClosePatience);
  armClosingSweep();
  if (session) endViewer(*session);  // the owner sees the viewer as gone before the peer does
  if (frame) sendCloseFrame(client, std::move(*frame));
}

void StreamingServer::sendCloseFrame(const Client& client, GatheredBytes frame) {
  client->connection->send(
      std::move(frame), whileAlive(client, [](StreamingServer& server, const Client& self, bool succeeded) {
        if (!succeeded || self->finishSending()) server.endClient(self);
      }));
}

void StreamingServer::endClient(const Client& client) {
  if (!clients_.remove(*client)) return;
  const auto session = client->session();
  client->end();
  if (session) endViewer(*session);
}

void StreamingServer::endAfterFailure(const Client& client) {
  kServerLog.error("A viewer connection is ended: " + localizedDescription(std::current_exception()));
  endClient(client);
}

void StreamingServer::endViewer(ViewerSession& session) {
  const bool wasPlaying = session.isPlaying();
  viewer_.reset();
  session.endControl();
  requests_->onViewerConnectionChanged(false, wasPlaying);
  kServerLog.notice("Viewer disconnected");
}

void StreamingServer::armClosingSweep() {
  if (closingSweep_.isPending()) return;
  closingSweep_ = queue_->postAfter(kSweepPeriod, [weak = weak_from_this()] {
    const auto server = weak.lock();
    if (!server) return;
    for (const auto& client : server->clients_.overdue(server->clock_->continuousNow())) {
      server->endClient(client);
    }
    if (server->clients_.hasDeadlines()) server->armClosingSweep();
  });
}

}  // namespace kestrune
