#include "hosted/HostedIssueReporter.h"

#include <cmath>
#include <utility>

#include "hosted/HostedExchange.h"
#include "platform/Bundle.h"

namespace kestrune::HostedIssueReporter {
namespace {

using Case = HostedSignalingError::Case;

double finite(double value) {
  return std::isfinite(value) ? value : 0;
}

JsonValue jsonOf(const MacHostIssueDiagnostics& values) {
  return JsonValue::Object{
      {"schemaVersion", values.schemaVersion},
      {"phase", values.phase},
      {"viewerConnected", values.viewerConnected},
      {"videoPackets", values.videoPackets},
      {"audioChunks", values.audioChunks},
      {"droppedFrames", values.droppedFrames},
      {"bytesSent", values.bytesSent},
      {"viewerFPS", finite(values.viewerFPS)},
      {"decodeMilliseconds", finite(values.decodeMilliseconds)},
      {"videoBufferMilliseconds", values.videoBufferMilliseconds},
      {"audioBufferMilliseconds", values.audioBufferMilliseconds},
      {"reconnects", values.reconnects},
      {"capturedFrames", values.capturedFrames},
      {"encodedFrames", values.encodedFrames},
      {"captureDroppedFrames", values.captureDroppedFrames},
      {"captureFPS", finite(values.captureFPS)},
      {"encodeFPS", finite(values.encodeFPS)},
      {"bitRateMbps", finite(values.bitRateMbps)},
      {"captureTargetFPS", values.captureTargetFPS},
      {"encoderPendingFrames", values.encoderPendingFrames},
      {"serverPendingFrames", values.serverPendingFrames},
      {"networkDroppedFrames", values.networkDroppedFrames},
      {"physicalMemoryMegabytes", values.physicalMemoryMegabytes},
      {"macOSMajor", values.macOSMajor},
      {"macOSMinor", values.macOSMinor},
      {"macOSPatch", values.macOSPatch},
  };
}

JsonValue jsonOf(const MacHostIssueReport& report) {
  return JsonValue::Object{
      {"reportId", report.reportId},
      {"category", report.category},
      {"symptom", report.symptom},
      {"source", report.source},
      {"viewerBuild", report.viewerBuild},
      {"viewerSessionStartedAt", report.viewerSessionStartedAt},
      {"diagnostics", jsonOf(report.diagnostics)},
  };
}

HostedIssueResponse readIssue(const HTTPClientResponse& response) {
  const JsonValue object = hostedObject(response);
  const JsonValue* number = object.find("issueNumber");
  const auto issueNumber = number ? number->integer() : std::nullopt;
  if (!issueNumber) throw HostedSignalingError(Case::invalidResponse);
  return HostedIssueResponse{.issueNumber = *issueNumber,
                             .issueURL = hostedURL(object, "issueURL"),
                             .reportId = hostedText(object, "reportId")};
}

}  // namespace

Task<HostedIssueResponse> report(std::shared_ptr<HTTPClient> client, MacHostIssueReport report,
                                 HostedSignalingCredentials credentials) {
  const std::string path = "/api/devices/" + credentials.deviceID + "/issues";
  HTTPClientRequest request = hostedRequest(credentials.serviceURL, path);
  setJsonBody(request, "content-type", jsonOf(report));
  request.headers.emplace_back("authorization", "Bearer " + credentials.macToken);
  const HTTPClientResponse response = co_await sendHostedRequest(std::move(client), std::move(request));
  if (response.status != 201) throw hostedRejection(response, localized("Could not report diagnostics."));
  co_return readIssue(response);
}

}  // namespace kestrune::HostedIssueReporter
