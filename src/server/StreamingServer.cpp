#include "server/StreamingServer.h"

#include <utility>

#include "model/KestruneError.h"
#include "server/ServerLog.h"
#include "server/StreamingServerTurns.h"

namespace kestrune {
namespace {

constexpr const char* kHost = "127.0.0.1";

}  // namespace

StreamingServer::StreamingServer(std::shared_ptr<Network> network, std::shared_ptr<const Bundle> bundle,
                                 std::shared_ptr<ViewerTokenSource> tokenSource,
                                 std::shared_ptr<AudioChunkStore> audioStore,
                                 std::shared_ptr<VideoPacketStore> videoStore,
                                 std::shared_ptr<const Clock> clock, std::uint16_t port)
    : network_(std::move(network)),
      queue_(network_->queue()),
      bundle_(std::move(bundle)),
      audioStore_(std::move(audioStore)),
      videoStore_(std::move(videoStore)),
      clock_(std::move(clock)),
      port_(port),
      localURL_(std::string("http://") + kHost + ":" + std::to_string(port)),
      tokenCheck_(std::move(tokenSource), clock_) {}

StreamingServer::~StreamingServer() {
  if (!listener_ && clients_.isEmpty()) return;
  // The last owner may let go on any thread; sockets are cancelled on their queue.
  viewer_.reset();
  queue_->post([listener = std::move(listener_), clients = clients_.takeAll()] {
    if (listener) listener->cancel();
    for (const auto& client : clients) client->connection->cancel();
  });
}

void StreamingServer::setHandlers(std::shared_ptr<RemoteInput> input,
                                  std::shared_ptr<ViewerRequests> requests) {
  input_ = std::move(input);
  requests_ = std::move(requests);
}

void StreamingServer::start(StartCompletion completion) {
  postToSelf([completion = std::move(completion)](StreamingServer& server) mutable {
    server.startListening(std::move(completion));
  });
}

void StreamingServer::stop(StopCompletion completion) {
  postToSelf([completion = std::move(completion)](StreamingServer& server) {
    server.stopNow();
    if (completion) completion();
  });
}

void StreamingServer::snapshot(SnapshotCompletion completion) {
  postToSelf([completion = std::move(completion)](StreamingServer& server) {
    completion(server.currentSnapshot());
  });
}

void StreamingServer::startListening(StartCompletion completion) {
  if (listener_) {
    completion(std::make_exception_ptr(KestruneError(KestruneError::Case::alreadyRunning)));
    return;
  }
  try {
    tokenCheck_.requireToken();
    listener_ = network_->createListener({kHost, port_});
  } catch (...) {
    completion(std::current_exception());
    return;
  }
  startCompletion_ = std::move(completion);
  listener_->setStateHandler([weak = weak_from_this()](TcpListener::State state, const std::string& reason) {
    if (const auto server = weak.lock()) server->handleListenerState(state, reason);
  });
  listener_->setNewConnectionHandler([weak = weak_from_this()](std::shared_ptr<TcpConnection> connection) {
    if (const auto server = weak.lock()) server->acceptConnection(std::move(connection));
  });
  listener_->setMakeRoomHandler([weak = weak_from_this()] {
    const auto server = weak.lock();
    return server && server->makeRoom();
  });
  listener_->start();
}

void StreamingServer::handleListenerState(TcpListener::State state, const std::string& reason) {
  switch (state) {
    case TcpListener::State::setup:
    case TcpListener::State::waiting:
      return;
    case TcpListener::State::ready:
      startedAt_ = clock_->continuousNow();
      kServerLog.notice("Local viewer server ready on " + std::string(kHost) + ":" + std::to_string(port_));
      finishStart(nullptr);
      return;
    case TcpListener::State::failed: {
      const auto failure = std::make_exception_ptr(KestruneError::operationFailed(reason));
      kServerLog.error("Local viewer server failed: " + reason);
      auto completion = std::exchange(startCompletion_, nullptr);
      stopNow();
      if (completion) completion(failure);
      return;
    }
    case TcpListener::State::cancelled:
      finishStart(std::make_exception_ptr(KestruneError(KestruneError::Case::serverNotReady)));
      return;
  }
}

void StreamingServer::finishStart(std::exception_ptr failure) {
  if (const auto completion = std::exchange(startCompletion_, nullptr)) completion(std::move(failure));
}

void StreamingServer::stopNow() {
  if (listener_) {
    listener_->setStateHandler({});
    listener_->setNewConnectionHandler({});
    listener_->setMakeRoomHandler({});
    listener_->cancel();
    listener_.reset();
  }
  startCompletion_ = nullptr;

  const auto session = viewer_ ? viewer_->session() : nullptr;
  viewer_.reset();
  for (const auto& client : clients_.takeAll()) client->end();
  startedAt_.reset();
  host_.diagnostics.reset();
  droppedOutboundFrames_ = 0;
  bytesSent_ = 0;
  audioStore_->clear();
  videoStore_->clear();

  if (session) {
    requests_->onViewerConnectionChanged(false, session->isPlaying());
    session->endControl();
  }
  kServerLog.notice("Local viewer server stopped");
}

StreamingServerSnapshot StreamingServer::currentSnapshot() const {
  StreamingServerSnapshot snapshot;
  snapshot.viewerConnected = viewer_ != nullptr;
  snapshot.audioSequence = audioStore_->latestSequence();
  snapshot.storedAudioChunks = static_cast<std::int64_t>(audioStore_->count());
  snapshot.storedVideoPackets = static_cast<std::int64_t>(videoStore_->count());
  if (viewer_) {
    snapshot.outboundVideoFrames =
        static_cast<std::int64_t>(viewer_->webSocketPeer()->outbound.waitingFrames());
    snapshot.viewer = viewer_->session()->lastTelemetry();
  }
  snapshot.droppedOutboundFrames = droppedOutboundFrames_;
  snapshot.bytesSent = bytesSent_;
  if (startedAt_) {
    snapshot.uptimeSeconds =
        std::chrono::duration_cast<std::chrono::seconds>(clock_->continuousNow() - *startedAt_).count();
  }
  return snapshot;
}

}  // namespace kestrune
