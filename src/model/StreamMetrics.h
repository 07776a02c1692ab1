#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace kestrune {

/// The counters that the program shows. Rates are per second of real time, bitRateMbps in 10^6 bits per
/// second.
struct StreamMetrics {
  std::uint64_t capturedFrames = 0;
  std::uint64_t encodedFrames = 0;
  std::uint64_t droppedFrames = 0;  // before encoding
  std::uint64_t bytesSent = 0;
  double captureFPS = 0;
  double encodeFPS = 0;
  double bitRateMbps = 0;
  std::int64_t encoderPendingFrames = 0;
  std::int64_t serverPendingFrames = 0;
  std::uint64_t networkDroppedFrames = 0;
  std::int64_t viewerCount = 0;
  double viewerFPS = 0;
  double decodeMilliseconds = 0;
  std::int64_t videoBufferMilliseconds = 0;
  std::int64_t audioBufferMilliseconds = 0;
  std::int64_t audioDriftMilliseconds = 0;
  std::int64_t reconnects = 0;
  std::optional<std::string> lastError;
  friend bool operator==(const StreamMetrics&, const StreamMetrics&) = default;
};

/// The host's health as the viewer is told it; the wire form adds "type" and "hostKind".
struct HostDiagnostics {
  std::string captureMode;  // "virtualDisplay" or "physicalDisplay"
  std::int64_t captureTargetFPS = 0;
  double captureFPS = 0;
  double encodeFPS = 0;
  double bitRateMbps = 0;
  std::uint64_t capturedFrames = 0;
  std::uint64_t encodedFrames = 0;
  std::uint64_t captureDroppedFrames = 0;
  std::int64_t encoderPendingFrames = 0;
  std::int64_t serverPendingFrames = 0;
  std::uint64_t networkDroppedFrames = 0;
  std::int64_t audioChannels = 0;
  friend bool operator==(const HostDiagnostics&, const HostDiagnostics&) = default;
};

/// What a viewer reports of itself once a second.
struct ViewerTelemetry {
  double viewerFPS = 0;
  double decodeMilliseconds = 0;
  std::int64_t videoBufferMilliseconds = 0;
  std::int64_t audioBufferMilliseconds = 0;
  std::int64_t audioDriftMilliseconds = 0;
  std::int64_t reconnects = 0;
  std::int64_t videoBufferRebuildTargetMilliseconds = 5000;  // 5000, 10000, 15000 or 20000
  friend bool operator==(const ViewerTelemetry&, const ViewerTelemetry&) = default;
};

}  // namespace kestrune
