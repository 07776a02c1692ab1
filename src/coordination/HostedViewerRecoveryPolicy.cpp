#include "coordination/HostedViewerRecoveryPolicy.h"

namespace kestrune {
namespace {
constexpr double kTelemetryTimeout = 10;
constexpr double kEmptyBufferStall = 8;
constexpr double kShortestReconnectInterval = 20;
constexpr double kStalledFPS = 0.1;  // or less
}  // namespace

bool HostedViewerRecoveryPolicy::mayReconnect(double now) const {
  return !lastReconnectAt_ || now - *lastReconnectAt_ >= kShortestReconnectInterval;
}

void HostedViewerRecoveryPolicy::viewerConnected(double now) {
  lastTelemetryAt_ = now;
  videoStallStartedAt_.reset();
}

std::optional<HostedTransportRecoveryReason> HostedViewerRecoveryPolicy::evaluateTelemetry(
    double now, double viewerFPS, std::int64_t videoBufferMilliseconds, bool expectsVideo) {
  lastTelemetryAt_ = now;
  if (!expectsVideo || viewerFPS > kStalledFPS || videoBufferMilliseconds != 0) {
    videoStallStartedAt_.reset();
    return std::nullopt;
  }
  if (!videoStallStartedAt_) {
    videoStallStartedAt_ = now;
    return std::nullopt;
  }
  if (now - *videoStallStartedAt_ < kEmptyBufferStall || !mayReconnect(now)) return std::nullopt;
  videoStallStartedAt_.reset();
  lastReconnectAt_ = now;
  return HostedTransportRecoveryReason::emptyVideoBuffer;
}

std::optional<HostedTransportRecoveryReason> HostedViewerRecoveryPolicy::checkTelemetryTimeout(double now) {
  if (!lastTelemetryAt_ || now - *lastTelemetryAt_ < kTelemetryTimeout || !mayReconnect(now)) {
    return std::nullopt;
  }
  lastTelemetryAt_ = now;
  lastReconnectAt_ = now;
  videoStallStartedAt_.reset();
  return HostedTransportRecoveryReason::telemetryTimeout;
}

}  // namespace kestrune
