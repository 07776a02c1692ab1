#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "hosted/HostedRelayDeliveryBuffer.h"
#include "model/HostedCredentials.h"
#include "model/HostedStatus.h"
#include "model/RemoteControl.h"
#include "platform/Bytes.h"
#include "platform/WebSocketClient.h"
#include "platform/support/Json.h"
#include "runtime/Clock.h"
#include "runtime/SerialQueue.h"
#include "runtime/Task.h"
#include "viewer/RelayEnvelope.h"

namespace kestrune {

/// Keeps one WebSocket to the hosted service open from start() to stop(): authenticates this machine, tells
/// the state of the stream, takes start requests, and carries the control and the media of a viewer's relay.
/// What the socket lost is sent again if it comes back in time. Main queue only, its tasks and callbacks
/// included; owned by a shared_ptr. The callbacks must not destroy it.
class HostedSignalingClient final : public std::enable_shared_from_this<HostedSignalingClient> {
 public:
  HostedSignalingClient(std::shared_ptr<SerialQueue> mainQueue, std::shared_ptr<WebSocketClient> sockets,
                        std::shared_ptr<const Clock> clock);
  ~HostedSignalingClient();

  std::function<void()> onStreamStartRequested;
  std::function<void(HostedConnectionStatus)> onStatusChanged;
  /// A viewer's relay began (true) or ended (false).
  std::function<void(bool)> onRelayStateChanged;
  /// A message of the viewer: a JSON object.
  std::function<void(const JsonValue&)> onRelayControl;

  /// Drops any connection and makes a new one; returns once the service has authenticated it. Throws
  /// HostedSignalingError; such a first attempt is not repeated.
  Task<void> start(HostedSignalingCredentials credentials, RemoteStreamState state,
                   std::optional<std::string> message);
  void stop();
  /// Remembered across connections.
  void updateState(RemoteStreamState state, std::optional<std::string> message);
  /// Dropped without a relay.
  void sendRelayControl(const JsonValue& object);
  /// Whether the frame body was taken. One that the delivery buffer has no room for ends the relay.
  bool sendRelayMedia(GatheredBytes frameBody, HostedRelayMediaKind kind);
  /// Keeps what the relay has in flight for the retention time, in which the relay may come back.
  void interruptRelay();
  /// Gives the socket up and connects anew.
  void replaceRoute();
  void setRelayBufferTargetMilliseconds(std::int64_t milliseconds);

  bool shouldReconnect() const;
  bool isRelayActive() const;
  /// Bytes and frames that the relay has not handed to the socket yet, for the metrics.
  std::size_t pendingRelayFrames() const;
};

}  // namespace kestrune
