#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "model/RemoteControl.h"
#include "model/StreamMetrics.h"
#include "platform/support/Json.h"
#include "viewer/OutboundQueue.h"
#include "viewer/ViewerSession.h"

namespace kestrune {

/// The newest state of the host that viewers know, and the messages that carry it. A plain value.
struct HostState {
  struct Message {
    JsonValue object;
    OutboundKind kind = OutboundKind::message;
  };

  ViewerChannel::ActiveSettings settings;
  RemoteCursorState cursor;
  RemoteStreamState stream = RemoteStreamState::armed;
  std::optional<std::string> streamMessage;
  std::optional<HostDiagnostics> diagnostics;

  /// `reconfigured`: the stream itself changes now.
  Message aboutSettings(bool reconfigured, std::uint64_t audioSequence) const;
  Message aboutCursor() const;
  /// Nothing, and a log line, if no text frame can carry the message.
  std::optional<Message> aboutStream() const;
  /// Nothing before there are some.
  std::optional<Message> aboutDiagnostics() const;
};

}  // namespace kestrune
