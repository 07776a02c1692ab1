#pragma once

#include <optional>
#include <string>
#include <variant>

#include "model/RemoteControl.h"
#include "model/StreamMetrics.h"
#include "platform/Bytes.h"
#include "platform/support/Json.h"

namespace kestrune {

/// The viewer's messages: JSON objects with a string "type". What each does, in which mode and how often, is
/// ViewerSession's business; here they are read.

/// The largest control message, in bytes.
inline constexpr std::size_t kMaximumControlMessage = 16'384;

struct ViewerMessage {
  std::string type;
  JsonValue object;
};

/// Nothing if `payload` is too large, not JSON, or no message.
std::optional<ViewerMessage> parseViewerMessage(ByteView payload);
/// Nothing if `value` is no object, or one without a string "type".
std::optional<ViewerMessage> viewerMessage(JsonValue value);

/// The first message of a viewer; a field of a wrong type counts as missing.
struct ViewerAuthentication {
  bool isAuthentication = false;  // whether it is one
  std::optional<std::string> token;
  std::optional<bool> takeover;
  /// What the page calls itself, 22 characters of base64url: the connections of one page have the same, so
  /// that it may replace one of its own that the host does not know to be lost. Missing if it has another
  /// form.
  std::optional<std::string> viewer;
};
ViewerAuthentication readAuthentication(const ViewerMessage& message);

namespace viewer_command {

struct Position {
  double x = 0;
  double y = 0;
};

struct Keyframe {};
struct Mode {
  bool control = false;
};
struct Tap {
  Position position;
};
struct Pointer {
  RemotePointerPhase phase;
  Position position;
};
struct Move {
  double dx = 0;
  double dy = 0;
  double sensitivity = 0;
};
struct Click {
  RemoteMouseButton button;
};
struct Button {
  bool down = false;
};
struct Scroll {
  double dx = 0;
  double dy = 0;
};
struct Text {
  std::string text;
};
struct Key {
  std::string key;
};
struct PlayPause {};
struct Fullscreen {};
struct OpenChrome {};
struct ResetBrowser {};
/// Only its validity counts.
struct StreamSettings {};
struct CodecFallback {};
struct StartStream {};
struct Ping {
  std::optional<JsonValue> sentAt;  // a number
};

}  // namespace viewer_command

using ViewerCommand =
    std::variant<viewer_command::Keyframe, viewer_command::Mode, viewer_command::Tap, viewer_command::Pointer,
                 viewer_command::Move, viewer_command::Click, viewer_command::Button, viewer_command::Scroll,
                 viewer_command::Text, viewer_command::Key, viewer_command::PlayPause,
                 viewer_command::Fullscreen, viewer_command::OpenChrome, viewer_command::ResetBrowser,
                 viewer_command::StreamSettings, viewer_command::CodecFallback, ViewerTelemetry,
                 ViewerIssueReportRequest, viewer_command::StartStream, viewer_command::Ping>;

/// A message of an authenticated viewer; nothing, which means to be ignored, if its type is not known or a
/// field is missing, of a wrong type or out of its range.
std::optional<ViewerCommand> readCommand(const ViewerMessage& message);

}  // namespace kestrune
