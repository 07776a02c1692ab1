#include <chrono>
#include <utility>

#include "server/StreamingServerTurns.h"
#include "server/WebSocketHandshake.h"

namespace kestrune {
namespace {

constexpr Duration kAuthenticationTimeout = std::chrono::seconds(5);
// A close frame behind a send that a stuck peer does not take, or a peer that does not close in its turn,
// would hold the connection for ever.
constexpr Duration kClosePatience = std::chrono::seconds(5);

}  // namespace

void StreamingServer::upgradeWebSocket(const HTTPRequest& request, const Client& client) {
  auto response = acceptWebSocketUpgrade(request);
  if (!response) {
    send(failureResponse(HTTPFailure::upgradeRequired), client);
    return;
  }
  client->state = ClientContext::State::webSocketAwaitingAuth;
  client->isSending = true;
  client->connection->send(std::move(*response), whileAlive(client, [](StreamingServer& server,
                                                                       const Client& self, bool succeeded) {
                             server.handleSent(self, 0, succeeded);  // the handshake is not counted
                           }));
  queue_->postAfter(kAuthenticationTimeout,
                    whileAlive(client, [](StreamingServer& server, const Client& self) {
                      if (self->state != ClientContext::State::webSocketAwaitingAuth) return;
                      server.closeClient(self, websocket_close::kAuthenticationTimeout);
                    }));
  if (!client->receiveBuffer.empty()) processWebSocketBuffer(client);
}

void StreamingServer::processWebSocketBuffer(const Client& client) {
  while (!client->closed) {
    auto result = parseFrame(client->receiveBuffer);
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
  if (client->state == ClientContext::State::webSocketAwaitingAuth && frame.opcode != WebSocketOpcode::text) {
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

void StreamingServer::closeClient(const Client& client, WebSocketClose reason) {
  if (client->closed) return;
  markClosed(*client);
  viewerEnded(*client);  // the owner sees the viewer as gone before the peer does
  client->discardsInput = true;
  limitClosing(*client, kClosePatience);
  auto frame = encodeCloseFrame(reason);
  if (client->isSending) {
    client->closeFrame = std::move(frame);  // bytes of a frame on the wire cannot be overtaken
  } else {
    sendLast(client, std::move(frame), false);
  }
}

}  // namespace kestrune
