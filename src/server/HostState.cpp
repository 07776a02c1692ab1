#include "server/HostState.h"

#include <utility>

#include "server/ServerLog.h"
#include "viewer/ViewerMessages.h"

namespace kestrune {

HostState::Message HostState::aboutSettings(bool reconfigured, std::uint64_t audioSequence) const {
  return {streamSettingsMessage(settings.profile, settings.frameRate, settings.codec, reconfigured,
                                audioSequence)};
}

// The pointer moves some 15 times a second, and each dropped frame changes the diagnostics: on a link that
// stands still for a moment stale ones must not fill the few places that control messages have, which would
// close the connection.
HostState::Message HostState::aboutCursor() const {
  return {cursorStateMessage(cursor), OutboundKind::cursorState};
}

std::optional<HostState::Message> HostState::aboutDiagnostics() const {
  if (!diagnostics) return std::nullopt;
  return Message{hostDiagnosticsMessage(*diagnostics), OutboundKind::hostDiagnostics};
}

std::optional<HostState::Message> HostState::aboutStream() const {
  auto object = streamStateMessage(stream, streamMessage);
  if (!object) {
    kServerLog.error("Remote stream state encoding failed: the message is not valid UTF-8");
    return std::nullopt;
  }
  return Message{std::move(*object)};
}

}  // namespace kestrune
