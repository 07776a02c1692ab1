#include <chrono>
#include <utility>

#include "server/StreamingServerTurns.h"
#include "viewer/ViewerMessages.h"

namespace kestrune {
namespace {

using std::chrono::milliseconds;

// The least time between two accepted messages. A third of a nanosecond of 1/45 s and 1/120 s is rounded up.
constexpr Duration kClickSpacing = milliseconds(50);
constexpr Duration kButtonSpacing = milliseconds(250);
constexpr Duration kPointerMoveSpacing = std::chrono::nanoseconds(22'222'223);
constexpr Duration kMoveSpacing = std::chrono::nanoseconds(8'333'334);

template <class... Arguments>
RemoteTapResult call(const std::function<RemoteTapResult(Arguments...)>& callback, RemoteTapResult without,
                     std::type_identity_t<Arguments>... arguments) {
  return callback ? callback(arguments...) : without;
}

}  // namespace

/// What a message of the authenticated viewer does, one overload per command.
struct StreamingServer::ControlDispatch {
  StreamingServer& server;
  const Client& client;

  void operator()(const viewer_command::Keyframe&) { restartAtKeyframe(); }

  void operator()(const viewer_command::Mode& mode) {
    if (client->controlMode && !mode.control && server.onRemoteControlEnded) server.onRemoteControlEnded();
    client->controlMode = mode.control;
    restartAtKeyframe();
    server.enqueueText(modeMessage(mode.control, audioSequence()), client);
  }

  void operator()(const viewer_command::Tap& tap) {
    if (!client->controlMode || !claim(client->lastRemoteTapAt, kClickSpacing) || !tap.position) return;
    replyResult("tapResult", call(server.onRemoteTap, kWithoutCallback, tap.position->x, tap.position->y));
  }

  void operator()(const viewer_command::Pointer& pointer) {
    if (!client->controlMode) return;
    if (pointer.phase == RemotePointerPhase::move &&
        !claim(client->lastRemotePointerMoveAt, kPointerMoveSpacing)) {
      return;
    }
    const auto result =
        call(server.onRemotePointer, kWithoutCallback, pointer.phase, pointer.position.x, pointer.position.y);
    if (pointer.phase == RemotePointerPhase::up) {
      replyResult("tapResult", result);
    } else {
      replyFailure(result);
    }
  }

  void operator()(const viewer_command::Move& move) {
    if (!client->controlMode || !claim(client->lastRemotePointerMoveAt, kMoveSpacing)) return;
    replyFailure(call(server.onRemoteMove, kWithoutCallback, move.dx, move.dy, move.sensitivity));
  }

  void operator()(const viewer_command::Click& click) {
    if (!client->controlMode || !claim(client->lastRemoteTapAt, kClickSpacing)) return;
    replyFailure(call(server.onRemoteClick, kWithoutCallback, click.button));
  }

  void operator()(const viewer_command::Button& button) {
    if (client->controlMode) replyFailure(call(server.onRemoteButton, kWithoutCallback, button.down));
  }

  void operator()(const viewer_command::Scroll& scroll) {
    if (client->controlMode)
      replyFailure(call(server.onRemoteScroll, kWithoutCallback, scroll.dx, scroll.dy));
  }

  void operator()(const viewer_command::Text& text) {
    if (client->controlMode) replyFailure(call(server.onRemoteText, kWithoutCallback, text.text));
  }

  void operator()(const viewer_command::Key& key) {
    if (client->controlMode) replyFailure(call(server.onRemoteKey, kWithoutCallback, key.key));
  }

  void operator()(const viewer_command::PlayPause&) {
    auto result = RemoteTapResult::eventFailed;
    if (!client->controlMode && claim(client->lastRemoteTapAt, kButtonSpacing)) {
      result = call(server.onRemotePlayPause, RemoteTapResult::eventFailed);
      if (result == RemoteTapResult::clicked) client->videoPlaybackPaused = !client->videoPlaybackPaused;
    }
    server.enqueueText(playPauseResultMessage(result, audioSequence()), client);
  }

  void operator()(const viewer_command::Fullscreen&) {
    const bool accepted = !client->controlMode && claim(client->lastRemoteTapAt, kButtonSpacing);
    replyResult("fullscreenResult", accepted ? call(server.onRemoteFullscreen, RemoteTapResult::eventFailed)
                                             : RemoteTapResult::eventFailed);
  }

  void operator()(const viewer_command::OpenChrome&) {
    const bool accepted = claim(client->lastRemoteTapAt, kButtonSpacing);
    replyResult("openChromeResult", accepted ? call(server.onRemoteOpenChrome, RemoteTapResult::eventFailed)
                                             : RemoteTapResult::eventFailed);
  }

  void operator()(const viewer_command::ResetBrowser&) {
    replyResult("resetBrowserResult", call(server.onRemoteResetBrowser, RemoteTapResult::eventFailed));
  }

  /// Only the host's own settings change the stream; the viewer learns what they are.
  void operator()(const viewer_command::StreamSettings&) {
    if (server.onStreamSettingsChanged) {
      server.onStreamSettingsChanged(server.activeProfile_, server.activeFrameRate_);
    }
    server.sendStreamSettings(client, false);
  }

  void operator()(const viewer_command::CodecFallback&) {
    if (server.activeVideoCodec_ == StreamVideoCodec::hevc && server.onVideoCodecFallbackRequested) {
      server.onVideoCodecFallbackRequested();
    }
  }

  void operator()(const ViewerTelemetry& telemetry) {
    server.lastTelemetry_ = telemetry;
    if (server.onViewerTelemetry) server.onViewerTelemetry(telemetry);
  }

  void operator()(const ViewerIssueReportRequest& request) {
    if (!server.onIssueReportRequested) {
      server.enqueueText(issueReportResultMessage({request.reportId, std::nullopt}), client);
      return;
    }
    server.onIssueReportRequested(
        request, [weak = server.weak_from_this(), id = client->id](ViewerIssueReportResult result) {
          if (const auto self = weak.lock()) self->answerIssueReport(id, std::move(result));
        });
  }

  void operator()(const viewer_command::Ping&) {
    server.enqueueText(pongMessage(), client, OutboundKind::pong);
  }

 private:
  static constexpr auto kWithoutCallback = RemoteTapResult::displayRequired;

  /// Whether `spacing` has passed since the last accepted message of the same clock, which this one then is.
  bool claim(std::optional<Duration>& last, Duration spacing) const {
    const auto now = server.clock_->continuousNow();
    if (last && now - *last < spacing) return false;
    last = now;
    return true;
  }

  void restartAtKeyframe() {
    server.purgeDroppable(*client);
    server.requestRecoveryKeyframe(*client);
  }

  void replyResult(std::string_view type, RemoteTapResult result) {
    server.enqueueText(resultMessage(type, result), client);
  }

  void replyFailure(RemoteTapResult result) {
    if (result != RemoteTapResult::clicked) replyResult("tapResult", result);
  }

  std::uint64_t audioSequence() const { return server.audioStore_->latestSequence(); }
};

void StreamingServer::handleTextFrame(ByteView payload, const Client& client) {
  const auto message = parseViewerMessage(payload);
  const bool isAuthenticated = client->state == ClientContext::State::webSocketAuthenticated;
  if (!message) {
    closeClient(client, websocket_close::kInvalidControl);
  } else if (message->type == "startStream") {
    if (!isAuthenticated) {
      closeClient(client, websocket_close::kAuthenticateFirst);
    } else if (onStreamStartRequested) {
      onStreamStartRequested();
    }
  } else if (!isAuthenticated) {
    handleAuthMessage(readAuthentication(*message), client);
  } else if (const auto command = readCommand(*message)) {
    std::visit(ControlDispatch{*this, client}, *command);
  }
}

void StreamingServer::answerIssueReport(ClientID id, ViewerIssueReportResult result) {
  postToSelf([id, result = std::move(result)](StreamingServer& server) {
    const auto found = server.clients_.find(id);
    if (found == server.clients_.end()) return;
    const Client client = found->second;
    if (client->state != ClientContext::State::webSocketAuthenticated) return;
    server.enqueueText(issueReportResultMessage(result), client);
  });
}

}  // namespace kestrune
