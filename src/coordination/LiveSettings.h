#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "capture/ScreenCaptureService.h"
#include "coordination/ErrorReport.h"
#include "coordination/StoredSettings.h"
#include "coordination/TaskSlot.h"
#include "coordination/ViewerRoutes.h"

namespace kestrune {

/// Brings changed settings into the running stream. Requests that come while one is applied are coalesced:
/// the newest wins. A running stream changes first and the published settings follow, before the first
/// picture of the new kind; a change that the stream refuses leaves them as they are. Main queue only; its
/// tasks need an owner that keeps it alive.
class LiveSettings {
 public:
  using VideoSettings = StoredSettings::VideoSettings;
  /// What it asks of the stream's lifecycle.
  struct Stream {
    std::function<bool()> isCapturing;
    std::function<bool()> isTearingDown;
  };

  LiveSettings(FlowStarter startFlow, StoredSettings& settings, std::shared_ptr<ScreenCaptureService> capture,
               std::shared_ptr<const ViewerRoutes> routes, ErrorReport& errors, Stream stream);

  const Observable<bool>& isUpdatingStreamSettings() const { return isUpdatingStreamSettings_; }

  /// Absent values stay as they are.
  Task<void> applyStreamSettings(StreamProfile profile, StreamFrameRate frameRate,
                                 std::optional<StreamVideoCodec> codec, std::optional<StreamBitRate> bitRate,
                                 std::optional<StreamVideoEncoderKind> encoderKind);
  /// A viewer's request. The host's settings are the authority: `active` is what the viewer was last told,
  /// and is stale while a change is under way.
  Task<void> takeViewerSettings(StreamProfile active);
  /// For a viewer that cannot decode H.265; everything else stays as the newest request has it.
  Task<void> fallBackToH264();
  /// The stored settings under these keys were edited from outside.
  void takeEdited(const std::vector<std::string>& keys, bool mayChangeDisplayMode);

  /// Starts the capture stream with the present settings, and applies what changed meanwhile. Throws what the
  /// capture service throws.
  Task<void> startStream(bool showsCursor);

  /// Of the stream that runs, or ran last; a change of the setting is for the next one.
  AudioChannelMode audioMode() const { return audioMode_; }

  /// Another source: a running change becomes stale.
  void invalidate() { ++streamSettingsGeneration_; }
  /// A teardown: the running change becomes stale, and the waiting one is dropped.
  void abandon();
  /// Tells every route what is in force.
  void announce() const;

 private:
  /// Whether the caller has to run the loop.
  bool request(const VideoSettings& wanted);
  Task<void> run();
  Task<void> apply(VideoSettings wanted);
  Task<void> catchUp(VideoSettings used);
  /// With what running and waiting changes ask for.
  VideoSettings newest() const;

  const FlowStarter startFlow_;
  StoredSettings& settings_;
  const std::shared_ptr<ScreenCaptureService> capture_;
  const std::shared_ptr<const ViewerRoutes> routes_;
  ErrorReport& errors_;
  const Stream stream_;
  Published<bool> isUpdatingStreamSettings_;             // the loop runs, or is about to
  std::optional<VideoSettings> pendingStreamSettings_;   // the newest request that the loop has not taken
  std::optional<VideoSettings> applyingStreamSettings_;  // the one that it has taken
  std::uint64_t streamSettingsGeneration_ = 0;
  AudioChannelMode audioMode_ = AudioChannelMode::stereo;
};

}  // namespace kestrune
