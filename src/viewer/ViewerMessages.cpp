#include "viewer/ViewerMessages.h"

#include "platform/support/Encoding.h"
#include "platform/support/Json.h"

namespace kestrune {
namespace {

std::string_view jsonBoolean(bool value) {
  return value ? "true" : "false";
}

/// Ends a message with the audio number, if there is one.
std::string withAudioSequence(std::string text, std::optional<std::uint64_t> audioSequence) {
  if (audioSequence) text.append(",\"audioSequence\":").append(std::to_string(*audioSequence));
  return text.append("}");
}

}  // namespace

std::string authenticatedMessage(std::uint64_t audioSequence) {
  return withAudioSequence(R"({"type":"authenticated")", audioSequence);
}

std::string streamSettingsMessage(StreamProfile profile, StreamFrameRate frameRate, StreamVideoCodec codec,
                                  bool reconfigured, std::optional<std::uint64_t> audioSequence) {
  std::string text = R"({"type":"streamSettings","quality":")";
  text.append(rawValue(profile)).append(R"(","fps":)").append(std::to_string(framesPerSecond(frameRate)));
  text.append(R"(,"codec":")").append(rawValue(codec));
  text.append(R"(","reconfigured":)").append(jsonBoolean(reconfigured));
  return withAudioSequence(std::move(text), audioSequence);
}

std::string cursorStateMessage(const RemoteCursorState& state) {
  std::string text = R"({"type":"cursorState","visible":)";
  text.append(jsonBoolean(state.visible));
  text.append(R"(,"x":)").append(formatJsonNumber(state.x));
  return text.append(R"(,"y":)").append(formatJsonNumber(state.y)).append("}");
}

std::optional<std::string> streamStateMessage(RemoteStreamState state,
                                              const std::optional<std::string>& message) {
  JsonValue::Object object{{"type", "streamState"}, {"state", rawValue(state)}};
  if (message) {
    if (!isValidUtf8(*message)) return std::nullopt;
    object.emplace_back("message", *message);
  }
  return serializeJson(std::move(object));
}

std::string hostDiagnosticsMessage(const HostDiagnostics& diagnostics) {
  return serializeJson(JsonValue::Object{
      {"type", "hostDiagnostics"},
      {"hostKind", "mac"},
      {"captureMode", diagnostics.captureMode},
      {"captureTargetFPS", diagnostics.captureTargetFPS},
      {"captureFPS", diagnostics.captureFPS},
      {"encodeFPS", diagnostics.encodeFPS},
      {"bitRateMbps", diagnostics.bitRateMbps},
      {"capturedFrames", diagnostics.capturedFrames},
      {"encodedFrames", diagnostics.encodedFrames},
      {"captureDroppedFrames", diagnostics.captureDroppedFrames},
      {"encoderPendingFrames", diagnostics.encoderPendingFrames},
      {"serverPendingFrames", diagnostics.serverPendingFrames},
      {"networkDroppedFrames", diagnostics.networkDroppedFrames},
      {"audioChannels", diagnostics.audioChannels},
  });
}

std::string modeMessage(bool control, std::optional<std::uint64_t> audioSequence) {
  std::string text = R"({"type":"mode","mode":")";
  text.append(control ? "control" : "video").append("\"");
  return withAudioSequence(std::move(text), audioSequence);
}

std::string resultMessage(std::string_view type, RemoteTapResult result) {
  std::string text = R"({"type":")";
  return text.append(type).append(R"(","result":")").append(rawValue(result)).append(R"("})");
}

std::string playPauseResultMessage(RemoteTapResult result, std::optional<std::uint64_t> audioSequence) {
  auto text = resultMessage("playPauseResult", result);
  text.pop_back();
  return withAudioSequence(std::move(text), audioSequence);
}

std::string issueReportResultMessage(const ViewerIssueReportResult& result) {
  JsonValue::Object object{{"type", "issueReportResult"}, {"reportId", result.reportId}};
  if (result.issueNumber) object.emplace_back("issueNumber", *result.issueNumber);
  return serializeJson(std::move(object));
}

std::string pongMessage(const std::optional<JsonValue>& sentAt) {
  if (sentAt) return serializeJson(JsonValue::Object{{"type", "pong"}, {"sentAt", *sentAt}});
  return R"({"type":"pong"})";
}

}  // namespace kestrune
