#include "viewer/ViewerSession.h"

#include <chrono>
#include <utility>

#include "viewer/ViewerMessages.h"

namespace kestrune {
namespace {

using std::chrono::milliseconds;

// The least time between two accepted messages; a third of a nanosecond of 1/120 s is rounded up.
constexpr Duration kClickSpacing = milliseconds(50);
constexpr Duration kButtonSpacing = milliseconds(250);
constexpr Duration kMoveSpacing = std::chrono::nanoseconds(8'333'334);

/// True if `spacing` has passed since the last accepted message; `now` is then recorded as the last.
bool acceptIfSpaced(std::optional<Duration>& last, Duration spacing, Duration now) {
  if (last && now - *last < spacing) return false;
  last = now;
  return true;
}

bool isInPicture(const viewer_command::Position& position) {
  return position.x >= 0 && position.x <= 1 && position.y >= 0 && position.y <= 1;
}

}  // namespace

ViewerSession::ViewerSession(const ViewerSessionRules& rules, std::shared_ptr<RemoteInput> input,
                             std::shared_ptr<ViewerRequests> requests)
    : rules_(rules), input_(std::move(input)), requests_(std::move(requests)) {}

/// What a message does, one overload per command.
struct ViewerSession::Dispatch {
  ViewerSession& session;
  const Duration now;
  ViewerChannel& channel;
  const ViewerSessionRules& rules = session.rules_;
  RemoteInput& input = *session.input_;
  ViewerRequests& requests = *session.requests_;

  void operator()(const viewer_command::Keyframe&) { channel.requestKeyframe(); }

  void operator()(const viewer_command::Mode& mode) {
    if (!mode.control) session.endControl();
    session.isInControlMode_ = mode.control;
    channel.applyMode(mode.control);
    channel.sendMessage(modeMessage(mode.control, channel.audioSequence()), OutboundKind::message);
    if (rules.sendsSettingsAfterMode) sendSettings();
  }

  void operator()(const viewer_command::Tap& tap) {
    if (!isControlling() || (rules.ignoresTapsOutside && !isInPicture(tap.position))) return;
    replyResult("tapResult", input.onRemoteTap(tap.position.x, tap.position.y));
  }

  void operator()(const viewer_command::Pointer& pointer) {
    if (!isControlling()) return;
    const bool isSpaced = rules.spacesEveryPointerPhase || pointer.phase == RemotePointerPhase::move;
    if (!rules.badMessagesCountForSpacing && isSpaced &&
        !acceptIfSpaced(session.lastRemotePointerMoveAt_, rules.pointerSpacing, now)) {
      return;
    }
    const auto result = input.onRemotePointer(pointer.phase, pointer.position.x, pointer.position.y);
    if (rules.answersPointerUp && pointer.phase == RemotePointerPhase::up) {
      replyResult("tapResult", result);
    } else {
      replyFailure(result);
    }
  }

  void operator()(const viewer_command::Move& move) {
    if (!isControlling()) return;
    if (move.sensitivity < rules.lowestSensitivity || move.sensitivity > rules.highestSensitivity) return;
    if (!acceptIfSpaced(session.lastRemotePointerMoveAt_, kMoveSpacing, now)) return;
    replyFailure(input.onRemoteMove(move.dx, move.dy, move.sensitivity));
  }

  void operator()(const viewer_command::Click& click) {
    if (!isControlling()) return;
    if (!rules.badMessagesCountForSpacing && !acceptIfSpaced(session.lastRemoteTapAt_, kClickSpacing, now))
      return;
    replyFailure(input.onRemoteClick(click.button));
  }

  void operator()(const viewer_command::Button& button) {
    if (isControlling()) replyFailure(input.onRemoteButton(button.down));
  }

  void operator()(const viewer_command::Scroll& scroll) {
    if (isControlling()) replyFailure(input.onRemoteScroll(scroll.dx, scroll.dy));
  }

  void operator()(const viewer_command::Text& text) {
    if (!isControlling() || text.text.size() > rules.maximumText) return;
    replyFailure(input.onRemoteText(text.text));
  }

  void operator()(const viewer_command::Key& key) {
    if (!isControlling() || key.key.size() > rules.maximumKey) return;
    replyFailure(input.onRemoteKey(key.key));
  }

  void operator()(const viewer_command::PlayPause&) {
    auto result = RemoteTapResult::eventFailed;
    if (!isControlling() && claimButton()) {
      result = input.onRemotePlayPause();
      if (result == RemoteTapResult::clicked) session.isPlaybackPaused_ = !session.isPlaybackPaused_;
    }
    channel.sendMessage(playPauseResultMessage(result, channel.audioSequence()), OutboundKind::message);
  }

  void operator()(const viewer_command::Fullscreen&) {
    const bool isAccepted = !isControlling() && claimButton();
    replyResult("fullscreenResult", isAccepted ? input.onRemoteFullscreen() : RemoteTapResult::eventFailed);
  }

  void operator()(const viewer_command::OpenChrome&) {
    replyResult("openChromeResult",
                claimButton() ? input.onRemoteOpenChrome() : RemoteTapResult::eventFailed);
  }

  void operator()(const viewer_command::ResetBrowser&) {
    replyResult("resetBrowserResult", input.onRemoteResetBrowser());
  }

  /// Only the host's own settings change the stream; the viewer learns what they are.
  void operator()(const viewer_command::StreamSettings&) {
    const auto active = channel.activeSettings();
    requests.onStreamSettingsChanged(active.profile, active.frameRate);
    sendSettings();
  }

  void operator()(const viewer_command::CodecFallback&) {
    if (channel.activeSettings().codec == StreamVideoCodec::hevc) requests.onVideoCodecFallbackRequested();
  }

  void operator()(const ViewerTelemetry& telemetry) {
    session.lastTelemetry_ = telemetry;
    requests.onViewerTelemetry(telemetry);
  }

  void operator()(const ViewerIssueReportRequest& request) {
    if (!rules.takesHostRequests) return;
    if (requests.onIssueReportRequested(request, channel.issueReportCompletion())) return;
    channel.sendMessage(issueReportResultMessage({request.reportId, std::nullopt}), OutboundKind::message);
  }

  void operator()(const viewer_command::StartStream&) {
    if (rules.takesHostRequests) requests.onStreamStartRequested();
  }

  void operator()(const viewer_command::Ping& ping) {
    if (rules.echoesSentAt && !ping.sentAt) return;
    channel.sendMessage(pongMessage(rules.echoesSentAt ? ping.sentAt : std::nullopt), OutboundKind::pong);
  }

 private:
  bool isControlling() const { return session.isInControlMode_; }

  bool claimButton() const { return acceptIfSpaced(session.lastRemoteTapAt_, kButtonSpacing, now); }

  void sendSettings() const {
    const auto active = channel.activeSettings();
    channel.sendMessage(
        streamSettingsMessage(active.profile, active.frameRate, active.codec, false, channel.audioSequence()),
        OutboundKind::message);
  }

  void replyResult(std::string_view type, RemoteTapResult result) const {
    channel.sendMessage(resultMessage(type, result), OutboundKind::message);
  }

  void replyFailure(RemoteTapResult result) const {
    if (result != RemoteTapResult::clicked) replyResult("tapResult", result);
  }
};

void ViewerSession::handle(const ViewerMessage& message, Duration now, ViewerChannel& channel) {
  if (isTooSoon(message.type, now)) return;
  if (const auto command = readCommand(message)) std::visit(Dispatch{*this, now, channel}, *command);
}

bool ViewerSession::isTooSoon(const std::string& type, Duration now) {
  if (!isInControlMode_) return false;  // the message is ignored, and starts no wait
  if (type == "tap" || (rules_.badMessagesCountForSpacing && type == "click")) {
    return !acceptIfSpaced(lastRemoteTapAt_, kClickSpacing, now);
  }
  return rules_.badMessagesCountForSpacing && type == "pointer" &&
         !acceptIfSpaced(lastRemotePointerMoveAt_, rules_.pointerSpacing, now);
}

void ViewerSession::endControl() {
  if (std::exchange(isInControlMode_, false)) input_->onRemoteControlEnded();
}

}  // namespace kestrune
