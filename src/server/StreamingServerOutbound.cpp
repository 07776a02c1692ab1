#include <utility>

#include "server/StreamingServerTurns.h"
#include "viewer/MediaFrames.h"

namespace kestrune {

void StreamingServer::updateStreamSettings(StreamProfile profile, StreamFrameRate frameRate,
                                           StreamVideoCodec codec) {
  postToSelf([=](StreamingServer& server) {
    server.host_.settings = {profile, frameRate, codec};
    if (const auto viewer = server.viewer_) {
      server.tell(viewer, server.host_.aboutSettings(true, server.audioStore_->latestSequence()));
    }
  });
}

void StreamingServer::updateRemoteStreamState(RemoteStreamState state, std::optional<std::string> message) {
  postToSelf([state, message = std::move(message)](StreamingServer& server) mutable {
    server.host_.stream = state;
    server.host_.streamMessage = std::move(message);
    if (const auto viewer = server.viewer_) server.tell(viewer, server.host_.aboutStream());
  });
}

void StreamingServer::updateRemoteCursorState(RemoteCursorState state) {
  postToSelf([state](StreamingServer& server) {
    server.host_.cursor = state;
    if (const auto viewer = server.viewer_) server.tell(viewer, server.host_.aboutCursor());
  });
}

void StreamingServer::updateHostDiagnostics(HostDiagnostics diagnostics) {
  postToSelf([diagnostics = std::move(diagnostics)](StreamingServer& server) mutable {
    server.host_.diagnostics = std::move(diagnostics);
    if (const auto viewer = server.viewer_) server.tell(viewer, server.host_.aboutDiagnostics());
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
  const auto viewer = viewer_;
  if (!viewer) return;
  auto& outbound = viewer->webSocketPeer()->outbound;
  settle(outbound.lose(lostBefore));
  const auto kind = packet.isKeyframe ? OutboundKind::keyframe : OutboundKind::deltaFrame;
  if (!outbound.mayFollow(kind)) {
    ++droppedOutboundFrames_;
    return;
  }
  auto body = encodeVideoFrame(packet.payload, packet.isKeyframe, packet.presentationTimeMicroseconds);
  enqueue({encodeFrame(std::move(body), WebSocketOpcode::binary), kind}, viewer);
}

void StreamingServer::enqueue(OutboundSend send, const Client& client) {
  auto* peer = client->webSocketPeer();
  if (!peer) return;
  const bool isSteering = peer->viewer && peer->viewer->session->isInControlMode();
  const auto cost =
      peer->outbound.append(std::move(send), isSteering ? kControlModeBudget : kVideoModeBudget);
  settle(cost);
  if (cost.isOverflow) {
    closeClient(client, websocket_close::kSendQueueOverflow);
  } else {
    pump(client);
  }
}

void StreamingServer::enqueueMessage(const JsonValue& message, const Client& client, OutboundKind kind) {
  const auto text = serializeJson(message);
  const ByteView bytes(reinterpret_cast<const std::uint8_t*>(text.data()), text.size());
  enqueue({encodeFrame(bytes, WebSocketOpcode::text), kind}, client);
}

void StreamingServer::pump(const Client& client) {
  auto next = client->webSocketPeer()->outbound.takeNext();
  if (!next) return;
  const auto size = next->data.size();
  client->connection->send(
      std::move(next->data),
      whileAlive(client, [size](StreamingServer& server, const Client& self, bool succeeded) {
        server.handleSent(self, size, succeeded);
      }));
}

void StreamingServer::handleSent(const Client& client, std::size_t size, bool succeeded) {
  if (!succeeded) {
    endClient(client);
    return;
  }
  bytesSent_ += size;
  if (auto* peer = client->webSocketPeer()) {
    peer->outbound.finishSend();
    pump(client);
  } else if (auto closeFrame = client->takeCloseFrame()) {
    sendCloseFrame(client, std::move(*closeFrame));
  }
}

void StreamingServer::settle(const OutboundLane::Cost& cost) {
  droppedOutboundFrames_ += cost.droppedFrames;
  if (cost.wantsKeyframe) requests_->onKeyframeRequested();
}

void StreamingServer::tell(const Client& client, const std::optional<HostState::Message>& message) {
  if (message) enqueueMessage(message->object, client, message->kind);
}

}  // namespace kestrune
