#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "model/RemoteControl.h"
#include "model/StreamMetrics.h"
#include "model/StreamSettings.h"
#include "platform/support/Json.h"
#include "runtime/Clock.h"
#include "viewer/OutboundQueue.h"
#include "viewer/RemoteInput.h"
#include "viewer/ViewerControl.h"
#include "viewer/ViewerRequests.h"
#include "viewer/ViewerSessionRules.h"

namespace kestrune {

/// What a session needs of the route that carries it. Called within handle() alone.
class ViewerChannel {
 public:
  struct ActiveSettings {
    StreamProfile profile = StreamProfile::balanced;
    StreamFrameRate frameRate = StreamFrameRate::fps60;
    StreamVideoCodec codec = StreamVideoCodec::h264;
  };

  /// `message`: one of ViewerMessages.h.
  virtual void sendMessage(const JsonValue& message, OutboundKind kind) = 0;
  /// The viewer asks for a keyframe.
  virtual void requestKeyframe() = 0;
  /// The viewer's mode was chosen, possibly the same again: what waits for it starts over at a keyframe,
  /// within the budget of the mode.
  virtual void applyMode(bool control) = 0;
  virtual ActiveSettings activeSettings() const = 0;
  /// The newest number of the audio that the viewer fetches; nothing where audio is sent to it.
  virtual std::optional<std::uint64_t> audioSequence() const = 0;
  /// Sends the result to this viewer, if it is still there when it is called.
  virtual IssueReportCompletion issueReportCompletion() = 0;

 protected:
  ~ViewerChannel() = default;
};

/// One viewer: its mode, whether it has paused, how fast its input may come, and what its messages do.
/// Passive: it has no queue, socket or timer, and belongs to the queue of its route. A route makes one when a
/// viewer is admitted and drops it with the viewer; one that loses the viewer within handle() must keep the
/// session until that returns.
class ViewerSession {
 public:
  /// `input` and `requests` are never null.
  ViewerSession(const ViewerSessionRules& rules, std::shared_ptr<RemoteInput> input,
                std::shared_ptr<ViewerRequests> requests);

  /// Does what a message of the viewer, received at `now` on a continuous clock, asks for. A message of an
  /// unknown type or with bad fields is ignored.
  void handle(const ViewerMessage& message, Duration now, ViewerChannel& channel);

  bool isInControlMode() const { return isInControlMode_; }
  /// In video mode, and not paused.
  bool isPlaying() const { return !isInControlMode_ && !isPlaybackPaused_; }
  const std::optional<ViewerTelemetry>& lastTelemetry() const { return lastTelemetry_; }
  /// Ends control mode, and tells the input so, if the viewer is in it.
  void endControl();

 private:
  struct Dispatch;
  using LastAccepted = std::optional<Duration>;

  /// Whether the message comes too soon; for the types whose spacing counts bad messages too.
  bool isTooSoon(const std::string& type, Duration now);

  const ViewerSessionRules rules_;
  const std::shared_ptr<RemoteInput> input_;
  const std::shared_ptr<ViewerRequests> requests_;
  bool isInControlMode_ = false;
  bool isPlaybackPaused_ = false;
  LastAccepted lastRemoteTapAt_;
  LastAccepted lastRemotePointerMoveAt_;
  std::optional<ViewerTelemetry> lastTelemetry_;
};

}  // namespace kestrune
