#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <variant>

#include "platform/Network.h"
#include "runtime/SerialQueue.h"
#include "server/OutboundLane.h"
#include "server/ReceiveBuffer.h"
#include "viewer/ViewerSession.h"

namespace kestrune {

/// Names a connection for the life of its server.
using ClientID = std::uint64_t;

/// In which order connections give way to a new one when descriptors are short.
enum class GivesWay {
  first,  // no token has come by it
  last,   // it is being answered, and no token has come by it
  never,
};

// The states of a connection. Each holds what is valid in it alone.

/// The head of one HTTP request arrives.
struct ReadingRequest {
  ReceiveBuffer received;
};

/// One "/audio" long poll waits for sound. It has said all it has to say: nothing more of it is kept.
struct AudioPoll {
  AudioPoll(std::uint64_t after_, Duration deadline_, Duration batchDeadline_)
      : after(after_), deadline(deadline_), batchDeadline(batchDeadline_) {}
  ~AudioPoll() { nextLook.cancel(); }
  AudioPoll(const AudioPoll&) = delete;
  AudioPoll& operator=(const AudioPoll&) = delete;

  const std::uint64_t after;  // the number of the chunk that the viewer holds
  const Duration deadline;
  const Duration batchDeadline;  // from then on a small batch will do
  DelayedWork nextLook;
};

/// An HTTP response is in flight; the connection ends behind it. Nothing more is read.
struct Answering {
  Duration deadline;
  GivesWay givesWay;
};

/// The handshake is done, and its answer on its way or sent.
struct WebSocketPeer {
  struct Viewer {
    std::shared_ptr<ViewerSession> session;
    /// The page that the connection belongs to, if it said so.
    std::optional<std::string> identifier;
  };

  ReceiveBuffer received;
  OutboundLane outbound;
  std::optional<Viewer> viewer;  // once the token has come
};

/// A close frame is the last message, and the connection ends when both sides have ended. What arrives is
/// read and dropped until then: a socket that is closed before resets the connection, and the peer loses the
/// frame (RFC 9293 §3.6.1).
struct ClosingHandshake {
  Duration deadline;
  GivesWay givesWay;
  /// Until the send that was in flight is done: bytes of a frame on the wire cannot be overtaken.
  std::optional<GatheredBytes> waitingFrame;
  bool hasFinished = false;  // our side
  bool hasPeerFinished = false;
};

struct Ended {};

/// One TCP connection of the server, on the server's queue, and the state it is in:
///
///     ReadingRequest -> Answering
///     ReadingRequest -> AudioPoll -> Answering
///     ReadingRequest -> WebSocketPeer -> ClosingHandshake
///
/// and from every one of them to Ended. Leaving a state destroys its data: its timer, its backlog, its
/// session.
class ClientContext {
 public:
  ClientContext(ClientID id, std::shared_ptr<TcpConnection> connection);
  ClientContext(const ClientContext&) = delete;
  ClientContext& operator=(const ClientContext&) = delete;

  const ClientID id;
  const std::shared_ptr<TcpConnection> connection;

  // The data of the state; null in every other one. Gone after the next transition.
  ReadingRequest* readingRequest() { return std::get_if<ReadingRequest>(&state_); }
  AudioPoll* audioPoll() { return std::get_if<AudioPoll>(&state_); }
  WebSocketPeer* webSocketPeer();
  /// Null without a viewer, too.
  WebSocketPeer::Viewer* viewer();
  /// The viewer's, or null. A copy: a call of the session can end the state.
  std::shared_ptr<ViewerSession> session();

  /// Whether what arrives is to be received, if only to drop it.
  bool receives() const;
  GivesWay givesWay() const;
  /// When a connection that closes and is still there is to be cut.
  std::optional<Duration> deadline() const;

  // Transitions; each asserts the state that it leaves.
  /// From ReadingRequest.
  AudioPoll& beginPoll(std::uint64_t after, Duration deadline, Duration batchDeadline);
  /// From ReadingRequest; what arrived behind the request is the peer's.
  WebSocketPeer& upgrade();
  /// From ReadingRequest or AudioPoll.
  void beginAnswer(Duration deadline);
  /// From WebSocketPeer, whose backlog goes. Gives the frame back if it can be sent now; otherwise
  /// takeCloseFrame() has it once the send in flight is done.
  std::optional<GatheredBytes> beginClosing(GatheredBytes closeFrame, Duration deadline);
  /// From every state. Cuts the connection and drops its handlers.
  void end();

  // Within ClosingHandshake
  /// Nothing in another state, and when it was taken.
  std::optional<GatheredBytes> takeCloseFrame();
  /// The close frame is sent: ends our side. Whether the connection is to end now.
  bool finishSending();
  /// In every state: the peer has ended its side. Whether the connection is to end now.
  bool finishReceiving();

 private:
  /// A peer is apart since it is the one state whose making can fail.
  std::variant<ReadingRequest, AudioPoll, Answering, std::unique_ptr<WebSocketPeer>, ClosingHandshake, Ended>
      state_;
};

}  // namespace kestrune
