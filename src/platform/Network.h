#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "platform/Bytes.h"
#include "runtime/SerialQueue.h"

namespace kestrune {

/// One TCP connection. All calls and all handlers are on the queue of the Network that made it; a handler
/// never runs within the call that set it off. Handlers are dropped by cancel(), so that they may hold what
/// owns the connection.
class TcpConnection {
 public:
  enum class State { ready, failed, cancelled };
  /// `reason` is the system's description for `failed`.
  using StateHandler = std::function<void(State state, const std::string& reason)>;
  /// `bytes` is valid during the call. `isComplete`: the peer has ended its side. `failure`: the system's
  /// description.
  using ReceiveHandler =
      std::function<void(ByteView bytes, bool isComplete, const std::optional<std::string>& failure)>;
  /// Called when the system has taken all the bytes, or has failed to.
  using SendHandler = std::function<void(bool succeeded)>;

  virtual ~TcpConnection() = default;
  /// An empty handler clears it.
  virtual void setStateHandler(StateHandler handler) = 0;
  virtual void start() = 0;
  /// One receive at a time. Delivers between `minimum` and `maximum` bytes.
  virtual void receive(std::size_t minimum, std::size_t maximum, ReceiveHandler handler) = 0;
  /// One send at a time; both pieces go out with one gathered write.
  virtual void send(GatheredBytes message, SendHandler handler) = 0;
  /// Ends our side behind what was sent (half-close); receiving goes on. Not while a send is in flight.
  virtual void finishSending() = 0;
  /// Closes at once and drops what was not taken yet. Idempotent. Bytes that the peer sends from then on, or
  /// that were not received, may cost it what it has not read yet.
  virtual void cancel() = 0;
};

/// A listening socket, on the same queue and under the same rules.
class TcpListener {
 public:
  enum class State { setup, waiting, ready, failed, cancelled };
  using StateHandler = std::function<void(State state, const std::string& reason)>;
  /// What it throws ends the connection.
  using ConnectionHandler = std::function<void(std::shared_ptr<TcpConnection> connection)>;
  using MakeRoomHandler = std::function<bool()>;

  virtual ~TcpListener() = default;
  virtual void setStateHandler(StateHandler handler) = 0;
  virtual void setNewConnectionHandler(ConnectionHandler handler) = 0;
  /// Called when a peer has connected and descriptors are short. The handler may cancel a connection in
  /// favour of the new one, and returns whether it did; otherwise, and without a handler, the new one is
  /// refused.
  virtual void setMakeRoomHandler(MakeRoomHandler handler) = 0;
  /// Binds and listens; the outcome comes through the state handler.
  virtual void start() = 0;
  virtual void cancel() = 0;
};

/// The local end that a listener must bind.
struct TcpEndpoint {
  std::string host;
  std::uint16_t port = 0;
};

class Network {
 public:
  virtual ~Network() = default;
  /// The serial queue on which everything of this network happens; its owner's state lives there too, so that
  /// received bytes reach it without a change of thread.
  virtual std::shared_ptr<SerialQueue> queue() const = 0;
  /// Throws an Error if the listener cannot be made.
  virtual std::unique_ptr<TcpListener> createListener(const TcpEndpoint& requiredLocalEndpoint) = 0;
};

/// Tells whether the machine has a network.
class NetworkPathMonitor {
 public:
  enum class Status { satisfied, unsatisfied, requiresConnection };
  virtual ~NetworkPathMonitor() = default;
  /// `handler` is called on `queue`, first with the present status, then with every change of the path, which
  /// may leave the status as it was. Once.
  virtual void start(std::shared_ptr<SerialQueue> queue, std::function<void(Status)> handler) = 0;
};

}  // namespace kestrune
