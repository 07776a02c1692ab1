#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "model/StreamMetrics.h"

namespace kestrune {

/// The server's state at one moment, for the metrics and for "/status".
struct StreamingServerSnapshot {
  bool viewerConnected = false;
  std::uint64_t audioSequence = 0;  // the newest number of the audio store
  std::int64_t storedAudioChunks = 0;
  std::int64_t storedVideoPackets = 0;
  std::int64_t outboundVideoFrames = 0;     // queued for the viewer
  std::uint64_t droppedOutboundFrames = 0;  // since the start
  std::uint64_t bytesSent = 0;              // since the start
  std::int64_t uptimeSeconds = 0;           // whole seconds since the listener was ready
  std::optional<ViewerTelemetry> viewer;    // the viewer's last report
};

/// One JSON object under the field names; `viewer` is left out when absent. Nothing if a number has no JSON
/// form.
std::optional<std::string> encodeSnapshot(const StreamingServerSnapshot& snapshot);

}  // namespace kestrune
