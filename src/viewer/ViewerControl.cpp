#include "viewer/ViewerControl.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdint>
#include <string_view>
#include <utility>

#include "model/StreamSettings.h"

namespace kestrune {
namespace {

// What common JSON readers take; fields that are not read may be nested to any depth.
constexpr std::size_t kMaximumNesting = 512;

using Outcome = std::optional<ViewerCommand>;
using Reader = Outcome (*)(const JsonValue& object);

const std::string* stringField(const JsonValue& object, std::string_view name) {
  const auto* value = object.find(name);
  return value ? value->string() : nullptr;
}

std::optional<bool> booleanField(const JsonValue& object, std::string_view name) {
  const auto* value = object.find(name);
  return value ? value->boolean() : std::nullopt;
}

std::optional<double> floatField(const JsonValue& object, std::string_view name) {
  const auto* value = object.find(name);
  const auto number = value ? value->number() : std::nullopt;
  return number && std::isfinite(*number) ? number : std::nullopt;
}

std::optional<std::int64_t> integerField(const JsonValue& object, std::string_view name) {
  const auto* value = object.find(name);
  return value ? value->integer() : std::nullopt;
}

std::optional<viewer_command::Position> positionFields(const JsonValue& object) {
  const auto x = floatField(object, "x");
  const auto y = floatField(object, "y");
  if (!x || !y) return std::nullopt;
  return viewer_command::Position{*x, *y};
}

template <class Command>
Outcome readPlain(const JsonValue&) {
  return Command{};
}

Outcome readMode(const JsonValue& object) {
  const auto* mode = stringField(object, "mode");
  if (!mode || (*mode != "video" && *mode != "control")) return std::nullopt;
  return viewer_command::Mode{*mode == "control"};
}

Outcome readTap(const JsonValue& object) {
  const auto position = positionFields(object);
  if (!position) return std::nullopt;
  return viewer_command::Tap{*position};
}

Outcome readPointer(const JsonValue& object) {
  const auto* raw = stringField(object, "phase");
  const auto phase = raw ? remotePointerPhase(*raw) : std::nullopt;
  const auto position = positionFields(object);
  if (!phase || !position) return std::nullopt;
  return viewer_command::Pointer{*phase, *position};
}

Outcome readMove(const JsonValue& object) {
  const auto dx = floatField(object, "dx");
  const auto dy = floatField(object, "dy");
  const auto sensitivity = floatField(object, "sensitivity");
  if (!dx || !dy || !sensitivity) return std::nullopt;
  return viewer_command::Move{*dx, *dy, *sensitivity};
}

Outcome readClick(const JsonValue& object) {
  const auto* raw = stringField(object, "button");
  const auto button = raw ? remoteMouseButton(*raw) : std::nullopt;
  if (!button) return std::nullopt;
  return viewer_command::Click{*button};
}

Outcome readButton(const JsonValue& object) {
  const auto down = booleanField(object, "down");
  if (!down) return std::nullopt;
  return viewer_command::Button{*down};
}

Outcome readScroll(const JsonValue& object) {
  const auto dx = floatField(object, "dx");
  const auto dy = floatField(object, "dy");
  if (!dx || !dy) return std::nullopt;
  return viewer_command::Scroll{*dx, *dy};
}

Outcome readText(const JsonValue& object) {
  const auto* text = stringField(object, "text");
  if (!text) return std::nullopt;
  return viewer_command::Text{*text};
}

Outcome readKey(const JsonValue& object) {
  const auto* key = stringField(object, "key");
  if (!key) return std::nullopt;
  return viewer_command::Key{*key};
}

Outcome readStreamSettings(const JsonValue& object) {
  const auto* quality = stringField(object, "quality");
  const auto fps = integerField(object, "fps");
  if (!quality || !fromRawValue<StreamProfile>(*quality)) return std::nullopt;
  if (!fps || !frameRateFromRawValue(*fps)) return std::nullopt;
  return viewer_command::StreamSettings{};
}

Outcome readTelemetry(const JsonValue& object) {
  constexpr std::array<std::int64_t, 4> kRebuildTargets{5000, 10'000, 15'000, 20'000};
  const auto fps = floatField(object, "viewerFPS");
  const auto decode = floatField(object, "decodeMilliseconds");
  const auto videoBuffer = integerField(object, "videoBufferMilliseconds");
  const auto audioBuffer = integerField(object, "audioBufferMilliseconds");
  const auto audioDrift = integerField(object, "audioDriftMilliseconds");
  const auto reconnects = integerField(object, "reconnects");
  const auto target = integerField(object, "videoBufferRebuildTargetMilliseconds");
  if (!fps || !decode || !videoBuffer || !audioBuffer || !audioDrift || !reconnects || !target) {
    return std::nullopt;
  }
  if (std::find(kRebuildTargets.begin(), kRebuildTargets.end(), *target) == kRebuildTargets.end()) {
    return std::nullopt;
  }
  return ViewerTelemetry{*fps, *decode, *videoBuffer, *audioBuffer, *audioDrift, *reconnects, *target};
}

Outcome readPing(const JsonValue& object) {
  const auto* sentAt = object.find("sentAt");
  return viewer_command::Ping{sentAt && sentAt->number() ? std::optional(*sentAt) : std::nullopt};
}

bool isViewerIdentifier(std::string_view text) {
  constexpr std::size_t kLength = 22;  // 16 bytes
  return text.size() == kLength && std::all_of(text.begin(), text.end(), [](char c) {
           return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '-' ||
                  c == '_';
         });
}

bool isReportId(std::string_view text) {
  return text.size() == 4 && text.front() != '0' &&
         std::all_of(text.begin(), text.end(), [](char c) { return c >= '0' && c <= '9'; });
}

bool isReportWord(std::string_view text) {
  constexpr std::size_t kMaximumSize = 64;
  return !text.empty() && text.size() <= kMaximumSize &&
         std::all_of(text.begin(), text.end(), [](char c) { return (c >= 'a' && c <= 'z') || c == '_'; });
}

Outcome readIssueReport(const JsonValue& object) {
  const auto* reportId = stringField(object, "reportId");
  const auto* category = stringField(object, "category");
  const auto* symptom = stringField(object, "symptom");
  if (!reportId || !category || !symptom) return std::nullopt;
  if (!isReportId(*reportId) || !isReportWord(*category) || !isReportWord(*symptom)) return std::nullopt;
  return ViewerIssueReportRequest{*reportId, *category, *symptom};
}

constexpr std::array<std::pair<std::string_view, Reader>, 20> kReaders{{
    {"keyframe", readPlain<viewer_command::Keyframe>},
    {"mode", readMode},
    {"tap", readTap},
    {"pointer", readPointer},
    {"move", readMove},
    {"click", readClick},
    {"button", readButton},
    {"scroll", readScroll},
    {"text", readText},
    {"key", readKey},
    {"playPause", readPlain<viewer_command::PlayPause>},
    {"fullscreen", readPlain<viewer_command::Fullscreen>},
    {"openChrome", readPlain<viewer_command::OpenChrome>},
    {"resetBrowser", readPlain<viewer_command::ResetBrowser>},
    {"streamSettings", readStreamSettings},
    {"codecFallback", readPlain<viewer_command::CodecFallback>},
    {"telemetry", readTelemetry},
    {"issueReport", readIssueReport},
    {"startStream", readPlain<viewer_command::StartStream>},
    {"ping", readPing},
}};

}  // namespace

std::optional<ViewerMessage> parseViewerMessage(ByteView payload) {
  if (payload.size() > kMaximumControlMessage) return std::nullopt;
  auto value = parseJson({reinterpret_cast<const char*>(payload.data()), payload.size()}, kMaximumNesting);
  if (!value) return std::nullopt;
  return viewerMessage(std::move(*value));
}

std::optional<ViewerMessage> viewerMessage(JsonValue value) {
  const auto* type = stringField(value, "type");
  if (!type) return std::nullopt;
  std::string name = *type;
  return ViewerMessage{std::move(name), std::move(value)};
}

ViewerAuthentication readAuthentication(const ViewerMessage& message) {
  ViewerAuthentication authentication;
  authentication.isAuthentication = message.type == "auth";
  if (const auto* token = stringField(message.object, "token")) authentication.token = *token;
  authentication.takeover = booleanField(message.object, "takeover");
  const auto* viewer = stringField(message.object, "viewer");
  if (viewer && isViewerIdentifier(*viewer)) authentication.viewer = *viewer;
  return authentication;
}

std::optional<ViewerCommand> readCommand(const ViewerMessage& message) {
  const auto reader = std::find_if(kReaders.begin(), kReaders.end(),
                                   [&message](const auto& row) { return row.first == message.type; });
  if (reader == kReaders.end()) return std::nullopt;
  return reader->second(message.object);
}

}  // namespace kestrune
