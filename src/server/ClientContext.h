#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <utility>

#include "platform/Network.h"
#include "runtime/SerialQueue.h"
#include "server/OutboundQueue.h"
#include "server/ReceiveBuffer.h"

namespace kestrune {

/// Names a connection for the life of its server.
using ClientID = std::uint64_t;

/// One TCP connection of the server, on the server's queue.
struct ClientContext {
  enum class State {
    http,                    // reading one request
    webSocketAwaitingAuth,   // handshake done, waiting for the token
    webSocketAuthenticated,  // the active viewer
    audioPoll,               // one "/audio" long poll in progress
  };

  ClientContext(ClientID id_, std::shared_ptr<TcpConnection> connection_)
      : id(id_), connection(std::move(connection_)) {}

  const ClientID id;
  const std::shared_ptr<TcpConnection> connection;
  State state = State::http;
  ReceiveBuffer receiveBuffer;
  OutboundQueue pendingSends;
  bool isSending = false;  // one send is in flight
  /// The decoder's chain of references is broken: only a keyframe may follow.
  bool awaitingKeyframeAfterDrop = false;
  DelayedWork audioPollWorkItem;
  /// The close frame that follows the send in flight.
  std::optional<GatheredBytes> closeFrame;
  /// When a closed client that does not take its last message is ended.
  std::optional<Duration> closingDeadline;
  bool controlMode = false;  // false: video mode
  bool videoPlaybackPaused = false;
  std::optional<Duration> lastRemoteTapAt;
  std::optional<Duration> lastRemotePointerMoveAt;
  bool closed = false;  // nothing more is read from it or queued for it
};

}  // namespace kestrune
