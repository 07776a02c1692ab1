#pragma once

#include <chrono>
#include <cstdint>
#include <exception>
#include <memory>
#include <string>

#include "platform/Bytes.h"
#include "runtime/Clock.h"
#include "runtime/MoveOnlyFunction.h"

namespace kestrune {

struct WebSocketMessage {
  bool isText = false;
  Bytes data;
};

/// A WebSocket to a foreign server (RFC 6455), as its client. Any thread may call, and nothing blocks.
/// Handlers come on another thread, once each; after cancel(), or a loss, all of them come with a failure,
/// which is an Error with a text for a person. Its destruction cancels it.
class WebSocketConnection {
 public:
  using SendHandler = MoveOnlyFunction<void(std::exception_ptr failure)>;
  using ReceiveHandler = MoveOnlyFunction<void(WebSocketMessage message, std::exception_ptr failure)>;

  virtual ~WebSocketConnection() = default;
  /// Messages go out in the order of the calls, also of those made before the socket is open. The handler is
  /// called when the system has taken the whole message. A shared body is not copied before it is masked.
  virtual void sendText(std::string text, SendHandler handler) = 0;
  virtual void sendBinary(GatheredBytes data, SendHandler handler) = 0;
  /// One at a time. Pings are answered and pongs are dropped along the way.
  virtual void receive(ReceiveHandler handler) = 0;
  virtual void sendPing() = 0;
  /// Sends a close frame with `closeCode` and no reason if that can be done at once, and closes. Idempotent.
  virtual void cancel(std::uint16_t closeCode) = 0;
};

class WebSocketClient {
 public:
  virtual ~WebSocketClient() = default;
  /// Begins to connect to `url` (ws or wss; for wss the rules of HTTPClient hold) and returns at once; what
  /// comes of it is told by the first receive or send. `timeout`: for name, connection, TLS and upgrade
  /// together.
  virtual std::shared_ptr<WebSocketConnection> connect(const std::string& url,
                                                       Duration timeout = std::chrono::seconds(15)) = 0;
};

}  // namespace kestrune
