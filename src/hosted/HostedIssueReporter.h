#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "model/HostedCredentials.h"
#include "platform/HTTPClient.h"
#include "runtime/Task.h"

namespace kestrune {

/// Counters that tell how the host is doing, and nothing of what it shows or whose it is. Whoever fills it in
/// keeps the ranges.
struct MacHostIssueDiagnostics {
  std::int64_t schemaVersion = 1;
  std::int64_t phase = 0;
  bool viewerConnected = false;
  std::uint64_t videoPackets = 0;
  std::uint64_t audioChunks = 0;
  std::uint64_t droppedFrames = 0;
  std::uint64_t bytesSent = 0;
  double viewerFPS = 0;           // 0 to 120
  double decodeMilliseconds = 0;  // 0 to 60000
  std::int64_t videoBufferMilliseconds = 0;
  std::int64_t audioBufferMilliseconds = 0;
  std::int64_t reconnects = 0;
  std::uint64_t capturedFrames = 0;
  std::uint64_t encodedFrames = 0;
  std::uint64_t captureDroppedFrames = 0;
  double captureFPS = 0;   // 0 to 120
  double encodeFPS = 0;    // 0 to 120
  double bitRateMbps = 0;  // 0 to 1000
  std::int64_t captureTargetFPS = 0;
  std::int64_t encoderPendingFrames = 0;
  std::int64_t serverPendingFrames = 0;
  std::uint64_t networkDroppedFrames = 0;
  std::uint64_t physicalMemoryMegabytes = 0;
  std::int64_t macOSMajor = 0;
  std::int64_t macOSMinor = 0;
  std::int64_t macOSPatch = 0;
};

struct MacHostIssueReport {
  std::string reportId;
  std::string category;
  std::string symptom;
  std::string source = "mac_host";
  std::string viewerBuild;
  std::int64_t viewerSessionStartedAt = 0;  // milliseconds since 1970
  MacHostIssueDiagnostics diagnostics;
};

struct HostedIssueResponse {
  std::int64_t issueNumber = 0;
  std::string issueURL;
  std::string reportId;
};

namespace HostedIssueReporter {

/// Files the report. Throws HostedSignalingError, or what the HTTP client failed with. Not repeated.
Task<HostedIssueResponse> report(std::shared_ptr<HTTPClient> client, MacHostIssueReport report,
                                 HostedSignalingCredentials credentials);

}  // namespace HostedIssueReporter

}  // namespace kestrune
