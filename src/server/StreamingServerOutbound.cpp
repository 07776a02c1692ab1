#include <utility>

#include "server/ServerLog.h"
#include "server/StreamingServerTurns.h"
#include "viewer/MediaFrames.h"
#include "viewer/ViewerMessages.h"

namespace kestrune {

void StreamingServer::updateStreamSettings(StreamProfile profile, StreamFrameRate frameRate,
                                           StreamVideoCodec codec) {
  postToSelf([=](StreamingServer& server) {
    server.activeSettings_ = {profile, frameRate, codec};
    if (const auto viewer = server.activeViewer()) server.sendStreamSettings(viewer, true);
  });
}

void StreamingServer::updateRemoteStreamState(RemoteStreamState state, std::optional<std::string> message) {
  postToSelf([state, message = std::move(message)](StreamingServer& server) mutable {
    server.remoteStreamState_ = state;
    server.remoteStreamMessage_ = std::move(message);
    if (const auto viewer = server.activeViewer()) server.sendStreamState(viewer);
  });
}

void StreamingServer::updateRemoteCursorState(RemoteCursorState state) {
  postToSelf([state](StreamingServer& server) {
    server.remoteCursorState_ = state;
    if (const auto viewer = server.activeViewer()) server.sendCursorState(viewer);
  });
}

void StreamingServer::updateHostDiagnostics(HostDiagnostics diagnostics) {
  postToSelf([diagnostics = std::move(diagnostics)](StreamingServer& server) mutable {
    server.lastHostDiagnostics_ = std::move(diagnostics);
    if (const auto viewer = server.activeViewer()) server.sendHostDiagnostics(viewer);
  });
}

void StreamingServer::broadcastVideo(EncodedVideoPacket packet) {
  if (waitingPackets_ >= kVideoModeBudget.maxSends) {
    ++lostPackets_;
    return;
  }
  ++waitingPackets_;
  postToSelf([packet = std::move(packet), lostBefore = lostPackets_.exchange(0)](StreamingServer& server) {
    --server.waitingPackets_;
    server.broadcastNow(packet, lostBefore);
  });
}

void StreamingServer::broadcastAudio(AudioPCMChunk chunk) {
  audioStore_->append(std::move(chunk));
}

void StreamingServer::broadcastNow(const EncodedVideoPacket& packet, std::uint64_t lostBefore) {
  videoStore_->append(packet);
  const auto viewer = activeViewer();
  if (!viewer) return;
  if (lostBefore > 0) {
    droppedOutboundFrames_ += lostBefore;
    requestRecoveryKeyframe(*viewer);
  }
  if (viewer->awaitingKeyframeAfterDrop) {
    if (!packet.isKeyframe) {
      ++droppedOutboundFrames_;
      return;
    }
    purgeDroppable(*viewer);
    viewer->awaitingKeyframeAfterDrop = false;
  }
  auto body = encodeVideoFrame(packet.payload, packet.isKeyframe, packet.presentationTimeMicroseconds);
  enqueue({encodeFrame(std::move(body), WebSocketOpcode::binary),
           packet.isKeyframe ? OutboundKind::keyframe : OutboundKind::deltaFrame},
          viewer);
}

void StreamingServer::enqueue(OutboundSend send, const Client& client) {
  if (client->closed) return;
  const auto budget =
      client->session && client->session->isInControlMode() ? kControlModeBudget : kVideoModeBudget;
  const bool isDroppable = send.isDroppable();
  const auto result = client->pendingSends.append(std::move(send), budget);
  switch (result.outcome) {
    case OutboundQueue::Outcome::tooLarge:
      if (!isDroppable) {
        closeClient(client, websocket_close::kSendQueueOverflow);
        return;
      }
      ++droppedOutboundFrames_;
      requestRecoveryKeyframe(*client);
      return;
    case OutboundQueue::Outcome::overflow:
      closeClient(client, websocket_close::kSendQueueOverflow);
      return;
    case OutboundQueue::Outcome::queued:
      if (result.dropped > 0) {
        droppedOutboundFrames_ += result.dropped;
        requestRecoveryKeyframe(*client);
      }
      pump(client);
      return;
  }
}

void StreamingServer::enqueueText(const std::string& text, const Client& client, OutboundKind kind) {
  const ByteView bytes(reinterpret_cast<const std::uint8_t*>(text.data()), text.size());
  enqueue({encodeFrame(bytes, WebSocketOpcode::text), kind}, client);
}

void StreamingServer::pump(const Client& client) {
  if (client->closed || client->isSending) return;
  auto next = client->pendingSends.takeFirst();
  if (!next) return;
  client->isSending = true;
  const auto size = next->data.size();
  client->connection->send(
      std::move(next->data),
      whileAlive(client, [size](StreamingServer& server, const Client& self, bool succeeded) {
        server.handleSent(self, size, succeeded);
      }));
}

void StreamingServer::handleSent(const Client& client, std::size_t size, bool succeeded) {
  client->isSending = false;
  if (!succeeded) {
    endClient(client);
    return;
  }
  bytesSent_ += size;
  if (auto closeFrame = std::exchange(client->closeFrame, std::nullopt)) {
    sendLast(client, std::move(*closeFrame), false);
  } else {
    pump(client);
  }
}

void StreamingServer::purgeDroppable(ClientContext& client) {
  droppedOutboundFrames_ += client.pendingSends.purgeDroppable();
}

void StreamingServer::requestRecoveryKeyframe(ClientContext& client) {
  if (client.awaitingKeyframeAfterDrop) return;
  client.awaitingKeyframeAfterDrop = true;
  requests_->onKeyframeRequested();
}

void StreamingServer::sendStreamSettings(const Client& client, bool reconfigured) {
  const auto& active = activeSettings_;
  enqueueText(streamSettingsMessage(active.profile, active.frameRate, active.codec, reconfigured,
                                    audioStore_->latestSequence()),
              client);
}

// The pointer moves some 15 times a second, and each dropped frame changes the diagnostics: on a link that
// stands still for a moment stale ones must not fill the few places that control messages have, which would
// close the connection.
void StreamingServer::sendCursorState(const Client& client) {
  enqueueText(cursorStateMessage(remoteCursorState_), client, OutboundKind::cursorState);
}

void StreamingServer::sendStreamState(const Client& client) {
  if (const auto text = streamStateMessage(remoteStreamState_, remoteStreamMessage_)) {
    enqueueText(*text, client);
  } else {
    kServerLog.error("Remote stream state encoding failed: the message is not valid UTF-8");
  }
}

void StreamingServer::sendHostDiagnostics(const Client& client) {
  if (!lastHostDiagnostics_) return;
  enqueueText(hostDiagnosticsMessage(*lastHostDiagnostics_), client, OutboundKind::hostDiagnostics);
}

}  // namespace kestrune
