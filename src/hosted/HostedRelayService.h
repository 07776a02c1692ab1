#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>

#include "hosted/HostedSignalingClient.h"
#include "model/HostedStatus.h"
#include "model/MediaPackets.h"
#include "model/StreamMetrics.h"
#include "model/StreamSettings.h"
#include "platform/OpusCompressor.h"
#include "platform/support/Json.h"
#include "runtime/Clock.h"
#include "runtime/SerialQueue.h"
#include "viewer/RelayEnvelope.h"
#include "viewer/RemoteInput.h"
#include "viewer/ViewerRequests.h"

namespace kestrune {

/// What a viewer session of the local server is to a local viewer, this is to one behind the relay: it makes
/// media frames, keeps short queues that drop when they are full, and answers the viewer's messages. Main
/// queue only; owned by a shared_ptr.
class HostedRelayService final : public std::enable_shared_from_this<HostedRelayService> {
 public:
  HostedRelayService(std::shared_ptr<SerialQueue> mainQueue, std::shared_ptr<OpusCompressorFactory> opus,
                     std::shared_ptr<const Clock> clock);
  ~HostedRelayService();

  /// Where its viewer's input and wishes go. Set before the first relay.
  void setHandlers(std::shared_ptr<RemoteInput> input, std::shared_ptr<ViewerRequests> requests);
  std::function<void(HostedRelayStatus)> onStatusChanged;
  /// Gives a frame body to the relay; whether it was taken.
  std::function<bool(GatheredBytes, HostedRelayMediaKind)> onRelayMedia;
  /// Gives a control message to the relay.
  std::function<void(const JsonValue&)> onRelayControl;

  void sendVideo(const EncodedVideoPacket& packet);
  void sendAudio(const AudioPCMChunk& chunk);
  void setRelayActive(bool active);
  void handleControl(const JsonValue& object);
  void updateStreamSettings(StreamProfile profile, StreamFrameRate frameRate, StreamVideoCodec codec);
  void updateHostDiagnostics(const HostDiagnostics& diagnostics);
  /// Sent at once, and lost without a relay.
  void updateRemoteCursorState(const RemoteCursorState& state);
  /// The owner connects to the service: a viewer may come.
  void beginWaiting();
  void stop();

  bool isConnected() const;
};

}  // namespace kestrune
