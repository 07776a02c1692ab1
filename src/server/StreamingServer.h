#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <exception>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "model/MediaPackets.h"
#include "model/RemoteControl.h"
#include "model/StreamMetrics.h"
#include "model/StreamSettings.h"
#include "platform/Bundle.h"
#include "platform/Network.h"
#include "runtime/Clock.h"
#include "server/HTTPRequest.h"
#include "server/HTTPResponse.h"
#include "server/HostState.h"
#include "server/OpenClients.h"
#include "server/StreamingServerSnapshot.h"
#include "server/TokenCheck.h"
#include "server/WebSocketCodec.h"
#include "viewer/AudioChunkStore.h"
#include "viewer/RemoteInput.h"
#include "viewer/VideoPacketStore.h"
#include "viewer/ViewerRequests.h"
#include "viewer/ViewerRoute.h"
#include "viewer/ViewerSession.h"

namespace kestrune {

/// The local route to a viewer: an HTTP and WebSocket server on 127.0.0.1 that delivers the viewer's files,
/// one authenticated viewer's video and control, and an audio long poll.
///
/// All of its state, and that of its connections, belongs to the queue of its Network. The operations for the
/// owner may be called from any thread; they take their turn on that queue, in the order of the calls.
/// Handlers and completions are called on that queue and must not block. Must be owned by a shared_ptr; work
/// under way does not keep the server alive. Its end cancels what is open.
///
/// At most one authenticated viewer is active. A viewer that is slow loses video frames, oldest first, and is
/// given a keyframe to go on from; until then no frame is queued for it whose reference was lost. What is
/// queued for it is bounded by kVideoModeBudget and kControlModeBudget (OutboundQueue.h), plus one message in
/// flight.
class StreamingServer final : public ViewerRoute, public std::enable_shared_from_this<StreamingServer> {
 public:
  static constexpr std::uint16_t kDefaultPort = 8080;

  using SnapshotCompletion = MoveOnlyFunction<void(StreamingServerSnapshot)>;

  StreamingServer(std::shared_ptr<Network> network, std::shared_ptr<const Bundle> bundle,
                  std::shared_ptr<ViewerTokenSource> tokenSource, std::shared_ptr<AudioChunkStore> audioStore,
                  std::shared_ptr<VideoPacketStore> videoStore, std::shared_ptr<const Clock> clock,
                  std::uint16_t port = kDefaultPort);
  ~StreamingServer() override;
  StreamingServer(const StreamingServer&) = delete;
  StreamingServer& operator=(const StreamingServer&) = delete;

  /// Set once by the owner before start(). Held while the server lives. A server without them
  /// refuses input and requests (RemoteInput, ViewerRequests). An exception out of them ends the
  /// connection that it concerns.
  void setHandlers(std::shared_ptr<RemoteInput> input, std::shared_ptr<ViewerRequests> requests);

  /// "http://127.0.0.1:8080" with the port of construction. Any thread.
  const std::string& localURL() const { return localURL_; }
  const std::shared_ptr<AudioChunkStore>& audioStore() const { return audioStore_; }

  /// Completes when the listener is ready or has failed: KestruneError::alreadyRunning, operationFailed with
  /// the system's words (an address in use, for example), serverNotReady, or what the token source threw. If
  /// stop() overtakes it, the completion is destroyed uncalled.
  void start(StartCompletion completion) override;
  /// Completes when everything is torn down: connections cut, stores and counters cleared. The settings, the
  /// rate limit and the audio numbers go on.
  void stop(StopCompletion completion) override;
  void snapshot(SnapshotCompletion completion);

  /// Stores what is active and tells the viewer.
  void updateStreamSettings(StreamProfile profile, StreamFrameRate frameRate,
                            StreamVideoCodec codec) override;
  void updateRemoteStreamState(RemoteStreamState state, std::optional<std::string> message) override;
  void updateRemoteCursorState(RemoteCursorState state) override;
  void updateHostDiagnostics(HostDiagnostics diagnostics) override;
  /// Sends the packet to the viewer, if there is one that can take it. The payload is shared, not copied.
  /// While the queue stands still, as many packets wait for their turn as may wait for a viewer; those beyond
  /// count as dropped for it.
  void broadcastVideo(EncodedVideoPacket packet) override;
  void broadcastAudio(AudioPCMChunk chunk) override;

 private:
  /// A handler that takes a Server& and a const Client& before its own arguments, and does nothing once
  /// either has gone. An exception out of it ends the client.
  template <class Body>
  auto whileAlive(const Client& client, Body body);
  /// Runs `body(server)` on the queue if the server still lives then.
  template <class Body>
  void postToSelf(Body body);

  // Lifecycle (StreamingServer.cpp)
  void startListening(StartCompletion completion);
  void handleListenerState(TcpListener::State state, const std::string& reason);
  void finishStart(std::exception_ptr failure);
  void stopNow();
  StreamingServerSnapshot currentSnapshot() const;

  // Connections (StreamingServerConnections.cpp)
  void acceptConnection(std::shared_ptr<TcpConnection> connection);
  void beginConnection(const Client& client);
  void receiveNext(const Client& client);
  void handleReceived(const Client& client, ByteView bytes);
  /// Ends a connection by which no token has come. Whether there was one.
  bool makeRoom();

  // How connections close (StreamingServerClosing.cpp). Every end goes through one of these, or stopNow().
  /// Sends the response, and ends the client behind it.
  void send(HTTPResponse response, const Client& client);
  /// Sends the close frame behind what is in flight, and ends the client when its peer has ended its side.
  /// Nothing for a client that is no WebSocket peer any more.
  void closeClient(const Client& client, WebSocketClose reason);
  void sendCloseFrame(const Client& client, GatheredBytes frame);
  /// Cuts the connection and everything that waits on it.
  void endClient(const Client& client);
  /// Within a handler of an exception that concerns this client alone.
  void endAfterFailure(const Client& client);
  /// Tells the owner that the viewer, whose connection has just left its state, is gone.
  void endViewer(ViewerSession& session);
  /// Ends clients whose time to close is over, now and then, while there are some that close.
  void armClosingSweep();

  // HTTP (StreamingServerRoutes.cpp)
  void processHTTPBuffer(const Client& client);
  void route(const HTTPRequest& request, const Client& client);
  void sendAsset(const std::string& path, const Client& client);
  void lookForAudio(const Client& client);

  // Authentication (StreamingServerAuthentication.cpp)
  /// Whether the request may be served; otherwise it is answered.
  bool authorizeRequest(const HTTPRequest& request, const Client& client);
  void handleAuthMessage(const ViewerAuthentication& message, const Client& client);
  void admitViewer(const Client& client, std::optional<std::string> identifier);

  // WebSocket (StreamingServerWebSocket.cpp)
  void upgradeWebSocket(const HTTPRequest& request, const Client& client);
  void processWebSocketBuffer(const Client& client);
  void handleFrame(const Client& client, const WebSocketFrame& frame);

  // Outbound (StreamingServerOutbound.cpp)
  void broadcastNow(const EncodedVideoPacket& packet, std::uint64_t lostBefore);
  void enqueue(OutboundSend send, const Client& client);
  void enqueueMessage(const JsonValue& message, const Client& client,
                      OutboundKind kind = OutboundKind::message);
  void pump(const Client& client);
  void handleSent(const Client& client, std::size_t size, bool succeeded);
  /// Counts what was dropped, and asks for the keyframe that it makes necessary.
  void settle(const OutboundLane::Cost& cost);
  void tell(const Client& client, const std::optional<HostState::Message>& message);

  // Control (StreamingServerControl.cpp)
  struct Channel;
  /// Any thread.
  void answerIssueReport(ClientID id, ViewerIssueReportResult result);
  void handleTextFrame(ByteView payload, const Client& client);

  const std::shared_ptr<Network> network_;
  const std::shared_ptr<SerialQueue> queue_;
  const std::shared_ptr<const Bundle> bundle_;
  const std::shared_ptr<AudioChunkStore> audioStore_;
  const std::shared_ptr<VideoPacketStore> videoStore_;
  const std::shared_ptr<const Clock> clock_;
  const std::uint16_t port_;
  const std::string localURL_;

  std::atomic<std::size_t> waitingPackets_{0};  // of broadcastVideo(), for their turn on queue_
  std::atomic<std::uint64_t> lostPackets_{0};   // that found too many waiting, since the last that did not

  // Written before start() alone, never null.
  std::shared_ptr<RemoteInput> input_ = std::make_shared<RemoteInput>();
  std::shared_ptr<ViewerRequests> requests_ = std::make_shared<ViewerRequests>();

  // Everything below belongs to queue_.
  HostState host_;
  TokenCheck tokenCheck_;
  std::unique_ptr<TcpListener> listener_;
  StartCompletion startCompletion_;
  OpenClients clients_;
  Client viewer_;  // the one that has a viewer(), or null; to be copied before its connection can end
  std::optional<Duration> startedAt_;
  DelayedWork closingSweep_;  // one for all closed clients: a timer each would outlive most of them
  std::uint64_t droppedOutboundFrames_ = 0;
  std::uint64_t bytesSent_ = 0;
};

}  // namespace kestrune
