#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "model/RemoteControl.h"
#include "model/StreamMetrics.h"
#include "model/StreamSettings.h"
#include "platform/support/Json.h"

namespace kestrune {

/// What the host tells the viewer, as JSON texts. `audioSequence` is the newest number of the audio store,
/// from which the viewer goes on; it is left out where there is none.

std::string authenticatedMessage(std::uint64_t audioSequence);
/// `reconfigured`: the stream itself changes now, the viewer has not only asked.
std::string streamSettingsMessage(StreamProfile profile, StreamFrameRate frameRate, StreamVideoCodec codec,
                                  bool reconfigured, std::optional<std::uint64_t> audioSequence);
std::string cursorStateMessage(const RemoteCursorState& state);
/// Nothing if `message` is not UTF-8.
std::optional<std::string> streamStateMessage(RemoteStreamState state,
                                              const std::optional<std::string>& message);
std::string hostDiagnosticsMessage(const HostDiagnostics& diagnostics);
std::string modeMessage(bool control, std::optional<std::uint64_t> audioSequence);
/// {"type":TYPE,"result":RESULT}
std::string resultMessage(std::string_view type, RemoteTapResult result);
std::string playPauseResultMessage(RemoteTapResult result, std::optional<std::uint64_t> audioSequence);
std::string issueReportResultMessage(const ViewerIssueReportResult& result);
/// With the number of the ping that it answers, if the route echoes it.
std::string pongMessage(const std::optional<JsonValue>& sentAt = std::nullopt);

}  // namespace kestrune
