#pragma once

#include <cstdint>
#include <optional>

namespace kestrune {

/// Why the transport to a hosted viewer is to be replaced, though its relay still counts as connected.
enum class HostedTransportRecoveryReason { telemetryTimeout, emptyVideoBuffer };

/// Decides when the transport to a hosted viewer has stalled: the viewer reports nothing for 10 seconds, or
/// shows nothing for 8 with an empty buffer. At most one replacement in 20 seconds. A plain value; times are
/// seconds of system uptime.
class HostedViewerRecoveryPolicy {
 public:
  void viewerConnected(double now);
  void viewerDisconnected() { *this = {}; }

  /// At each report of the viewer. `expectsVideo`: the encoder has given a picture since capture started.
  std::optional<HostedTransportRecoveryReason> evaluateTelemetry(double now, double viewerFPS,
                                                                 std::int64_t videoBufferMilliseconds,
                                                                 bool expectsVideo);
  /// Once a second while the viewer is connected.
  std::optional<HostedTransportRecoveryReason> checkTelemetryTimeout(double now);

 private:
  bool mayReconnect(double now) const;

  std::optional<double> lastTelemetryAt_;      // or the viewer's arrival
  std::optional<double> videoStallStartedAt_;  // nothing shown, nothing buffered
  std::optional<double> lastReconnectAt_;
};

}  // namespace kestrune
