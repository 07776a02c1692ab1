#include "viewer/ViewerMessages.h"

#include <utility>

#include "platform/support/Encoding.h"

namespace kestrune {
namespace {

using Object = JsonValue::Object;

/// Ends a message with the audio number, if there is one.
JsonValue withAudioSequence(Object object, std::optional<std::uint64_t> audioSequence) {
  if (audioSequence) object.emplace_back("audioSequence", *audioSequence);
  return object;
}

Object resultOf(std::string_view type, RemoteTapResult result) {
  return {{"type", type}, {"result", rawValue(result)}};
}

}  // namespace

JsonValue authenticatedMessage(std::uint64_t audioSequence) {
  return withAudioSequence({{"type", "authenticated"}}, audioSequence);
}

JsonValue streamSettingsMessage(StreamProfile profile, StreamFrameRate frameRate, StreamVideoCodec codec,
                                bool reconfigured, std::optional<std::uint64_t> audioSequence) {
  return withAudioSequence({{"type", "streamSettings"},
                            {"quality", rawValue(profile)},
                            {"fps", framesPerSecond(frameRate)},
                            {"codec", rawValue(codec)},
                            {"reconfigured", reconfigured}},
                           audioSequence);
}

JsonValue cursorStateMessage(const RemoteCursorState& state) {
  return Object{{"type", "cursorState"}, {"visible", state.visible}, {"x", state.x}, {"y", state.y}};
}

std::optional<JsonValue> streamStateMessage(RemoteStreamState state,
                                            const std::optional<std::string>& message) {
  Object object{{"type", "streamState"}, {"state", rawValue(state)}};
  if (message) {
    if (!isValidUtf8(*message)) return std::nullopt;
    object.emplace_back("message", *message);
  }
  return object;
}

JsonValue hostDiagnosticsMessage(const HostDiagnostics& diagnostics) {
  return Object{
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
  };
}

JsonValue modeMessage(bool control, std::optional<std::uint64_t> audioSequence) {
  return withAudioSequence({{"type", "mode"}, {"mode", control ? "control" : "video"}}, audioSequence);
}

JsonValue resultMessage(std::string_view type, RemoteTapResult result) {
  return resultOf(type, result);
}

JsonValue playPauseResultMessage(RemoteTapResult result, std::optional<std::uint64_t> audioSequence) {
  return withAudioSequence(resultOf("playPauseResult", result), audioSequence);
}

JsonValue issueReportResultMessage(const ViewerIssueReportResult& result) {
  Object object{{"type", "issueReportResult"}, {"reportId", result.reportId}};
  if (result.issueNumber) object.emplace_back("issueNumber", *result.issueNumber);
  return object;
}

JsonValue pongMessage(const std::optional<JsonValue>& sentAt) {
  Object object{{"type", "pong"}};
  if (sentAt) object.emplace_back("sentAt", *sentAt);
  return object;
}

}  // namespace kestrune
