#include <chrono>
#include <utility>

#include "server/StreamingServerTurns.h"
#include "server/WebSocketHandshake.h"

namespace kestrune {
namespace {

constexpr Duration kAuthenticationTimeout = std::chrono::seconds(5);

}  // namespace

void StreamingServer::upgradeWebSocket(const HTTPRequest& request, const Client& client) {
  auto response = acceptWebSocketUpgrade(request);
  if (!response) {
    send(failureResponse(HTTPFailure::upgradeRequired), client);
    return;
  }
  const auto& peer = client->upgrade();
  client->connection->send(std::move(*response), whileAlive(client, [](StreamingServer& server,
                                                                       const Client& self, bool succeeded) {
                             server.handleSent(self, 0, succeeded);  // the handshake is not counted
                           }));
  queue_->postAfter(kAuthenticationTimeout,
                    whileAlive(client, [](StreamingServer& server, const Client& self) {
                      if (!self->viewer()) server.closeClient(self, websocket_close::kAuthenticationTimeout);
                    }));
  if (!peer.received.empty()) processWebSocketBuffer(client);
}

void StreamingServer::processWebSocketBuffer(const Client& client) {
  while (auto* peer = client->webSocketPeer()) {
    auto result = parseFrame(peer->received);
    if (std::holds_alternative<WebSocketNeedsMore>(result)) return;
    if (auto* frame = std::get_if<WebSocketFrame>(&result)) {
      handleFrame(client, *frame);
    } else {
      closeClient(client, websocket_close::kBadFrame);
    }
  }
}

void StreamingServer::handleFrame(const Client& client, const WebSocketFrame& frame) {
  if (!frame.fin) {
    closeClient(client, websocket_close::kFragmentation);
    return;
  }
  if (!client->viewer() && frame.opcode != WebSocketOpcode::text) {
    closeClient(client, websocket_close::kAuthenticateFirst);
    return;
  }
  switch (frame.opcode) {
    case WebSocketOpcode::text:
      handleTextFrame(frame.payload, client);
      return;
    case WebSocketOpcode::continuation:
    case WebSocketOpcode::binary:
      closeClient(client, websocket_close::kTextRequired);
      return;
    case WebSocketOpcode::ping:
      enqueue({encodeFrame(frame.payload, WebSocketOpcode::pong), OutboundKind::message}, client);
      return;
    case WebSocketOpcode::pong:
      return;
    case WebSocketOpcode::close:
      closeClient(client, websocket_close::kByPeer);
      return;
  }
}

}  // namespace kestrune
