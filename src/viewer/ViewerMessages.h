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

/// What the host tells the viewer, as JSON objects; each route puts them on its wire. `audioSequence` is the
/// newest number of the audio store, from which the viewer goes on; it is left out where there is none.

JsonValue authenticatedMessage(std::uint64_t audioSequence);
/// `reconfigured`: the stream itself changes now, the viewer has not only asked.
JsonValue streamSettingsMessage(StreamProfile profile, StreamFrameRate frameRate, StreamVideoCodec codec,
                                bool reconfigured, std::optional<std::uint64_t> audioSequence);
JsonValue cursorStateMessage(const RemoteCursorState& state);
/// Nothing if `message` is not UTF-8.
std::optional<JsonValue> streamStateMessage(RemoteStreamState state,
                                            const std::optional<std::string>& message);
JsonValue hostDiagnosticsMessage(const HostDiagnostics& diagnostics);
JsonValue modeMessage(bool control, std::optional<std::uint64_t> audioSequence);
/// {"type":TYPE,"result":RESULT}
JsonValue resultMessage(std::string_view type, RemoteTapResult result);
JsonValue playPauseResultMessage(RemoteTapResult result, std::optional<std::uint64_t> audioSequence);
JsonValue issueReportResultMessage(const ViewerIssueReportResult& result);
/// With the number of the ping that it answers, if the route echoes it.
JsonValue pongMessage(const std::optional<JsonValue>& sentAt = std::nullopt);

}  // namespace kestrune
