#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <utility>

#include "platform/Network.h"
#include "runtime/SerialQueue.h"
#include "server/ReceiveBuffer.h"
#include "viewer/OutboundQueue.h"
#include "viewer/ViewerSession.h"

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
  /// When a closed client that does not take its last message, or does not end its side, is ended.
  std::optional<Duration> closingDeadline;
  /// A close frame is its last message. Input is read and discarded until the peer ends its side: a socket
  /// that is closed before resets the connection, and the peer loses the frame (RFC 9293 §3.6.1).
  bool discardsInput = false;
  bool hasFinishedSending = false;
  bool hasPeerEnded = false;  // the peer has ended its side while its last message is on its way
  /// The viewer's, from its admission on.
  std::shared_ptr<ViewerSession> session;
  /// The page that this connection belongs to, if it said so.
  std::optional<std::string> viewerIdentifier;
  bool closed = false;  // nothing more is read from it or queued for it
};

}  // namespace kestrune
