#pragma once

#include <cstdint>
#include <exception>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "capture/ScreenCaptureService.h"
#include "model/CaptureSource.h"
#include "model/RemoteControl.h"
#include "model/StreamMetrics.h"
#include "model/StreamPhase.h"
#include "model/StreamSettings.h"
#include "platform/Activities.h"
#include "platform/Bundle.h"
#include "platform/CompressionSession.h"
#include "platform/Displays.h"
#include "platform/InputEvents.h"
#include "platform/LoginItem.h"
#include "platform/Network.h"
#include "platform/PixelTransfer.h"
#include "platform/Preferences.h"
#include "platform/PrivacyPermissions.h"
#include "platform/ScreenStream.h"
#include "runtime/Clock.h"
#include "runtime/FailureLog.h"
#include "runtime/Published.h"
#include "runtime/SerialQueue.h"
#include "runtime/Task.h"

namespace kestrune {

class RemoteControlService;
class SleepAssertion;
class StreamingServer;
class TokenStore;

/// What the coordinator is given; nothing may be null unless it says so.
struct StreamCoordinatorDependencies {
  std::shared_ptr<SerialQueue> mainQueue;
  std::shared_ptr<const Clock> clock;
  std::shared_ptr<Preferences> defaults;
  std::shared_ptr<TokenStore> tokenStore;
  std::shared_ptr<const Bundle> bundle;
  std::shared_ptr<PrivacyPermissions> permissions;
  std::shared_ptr<const Displays> displays;
  std::shared_ptr<InputEvents> inputEvents;
  std::shared_ptr<Network> network;
  std::shared_ptr<ScreenCapture> screenCapture;
  std::shared_ptr<AudioSampleConverter> audioConverter;  // may be absent: then there is no sound
  std::shared_ptr<ContentSharingPicker> picker;          // may be null
  std::shared_ptr<CompressionSessionFactory> compression;
  std::shared_ptr<PixelTransferFactory> pixelTransfer;
  std::shared_ptr<Activities> activities;
  std::shared_ptr<LoginItem> loginItem;
  /// Makes the queues of capture and encoding.
  std::function<std::shared_ptr<SerialQueue>(std::string label)> makeQueue;
  /// Of the local viewer server, on 127.0.0.1.
  std::uint16_t viewerPort = 8080;
};

/// The one owner of the services and of all state that anyone sees. It alone decides when capture starts and
/// stops, what the phase is, and what the user and the viewer are told; services report to it and obey.
///
/// Everything here is confined to the main queue, long flows being tasks on it. There is one instance, made
/// by make() and owned by a shared_ptr until the process ends. A task returned from here must be awaited, or
/// started on the main queue, by someone who holds the coordinator.
class StreamCoordinator final : public std::enable_shared_from_this<StreamCoordinator> {
 public:
  /// Makes the services, reads the stored settings (writing back what they resolve to) and the permissions,
  /// and connects everything. It may block for as long as the credential helper takes to answer. Nothing is
  /// started.
  static std::shared_ptr<StreamCoordinator> make(StreamCoordinatorDependencies dependencies);
  ~StreamCoordinator();
  StreamCoordinator(const StreamCoordinator&) = delete;
  StreamCoordinator& operator=(const StreamCoordinator&) = delete;

  // Published state: anyone on the main queue may read and observe it; only the coordinator writes it.

  Published<StreamPhase> phase;
  /// What capture would show.
  Published<std::optional<CaptureSourceDescriptor>> selectedSource;
  Published<StreamMetrics> metrics;
  /// The local viewer's address with the access token as its fragment, or "Unavailable".
  Published<std::string> localViewerURL;
  /// The message that the user last has to see.
  Published<std::optional<std::string>> lastError;
  /// A capture stream has been started and not yet stopped.
  Published<bool> isCapturing;
  /// The server is up and a viewer's request may start capture.
  Published<bool> isRemoteStartArmed;
  /// The server or capture is being started, or capture is on its way back to standby.
  Published<bool> isRemoteStartBusy;
  Published<bool> screenCapturePermissionGranted;
  Published<bool> remoteControlPermissionGranted;
  Published<bool> isUpdatingStreamSettings;
  /// The program starts when the user logs in, or would if the user allowed it.
  Published<bool> launchAtLoginEnabled;
  Published<bool> launchAtLoginNeedsApproval;

  /// What is captured, for a preview at the machine.
  const std::shared_ptr<CapturePreviewHub> previewHub;

  // Settings; each is stored at the moment it changes.

  Published<StreamDisplayMode> streamDisplayMode;
  Published<StreamProfile> profile{StreamProfile::balanced};
  Published<StreamFrameRate> frameRate{StreamFrameRate::fps60};
  Published<StreamVideoCodec> videoCodec{StreamVideoCodec::hevc};
  Published<StreamBitRate> bitRate{StreamBitRate::medium};
  Published<StreamVideoEncoderKind> videoEncoderKind;
  Published<AudioChannelMode> audioChannelMode;
  /// Whether the machine is kept awake while the server is up or a stream runs; takes effect at once.
  Published<bool> preventMacSleep{true};

  // Conditions on which controls depend.

  bool canChangeSource() const;
  bool canEditStreamSettings() const;
  bool canChangeDisplayMode() const;

  // Operations. None of them throws out of its task; failures become state.

  /// Selects the main display, once in the life of the process, if no source is selected.
  Task<void> selectDefaultDisplayIfNeeded();
  /// Brings the server up and arms the standby: capture starts when a viewer asks. Does nothing while a start
  /// runs or the server is up. After a failure everything is torn down and the phase is `failed`.
  Task<void> startServing();
  /// The user's stop: back to standby while that is armed, else everything down.
  Task<void> stop();
  /// Ends every activity, for good.
  Task<void> prepareForTermination();
  /// Overlapping calls share one run, and return after its end.
  Task<void> teardown();

  /// Changes the quality, live if a stream runs. Absent values stay as they are. Requests that come while one
  /// is applied are coalesced: the newest wins.
  Task<void> applyStreamSettings(StreamProfile newProfile, StreamFrameRate newFrameRate,
                                 std::optional<StreamVideoCodec> newCodec = {},
                                 std::optional<StreamBitRate> newBitRate = {},
                                 std::optional<StreamVideoEncoderKind> newEncoderKind = {});

  /// Registers or removes the start at login; the two fields tell what became of it.
  void setLaunchAtLogin(bool enabled);
  /// Reads the two fields anew: they may have been changed from outside.
  void refreshLaunchAtLoginStatus();

  /// A checked transition: one that is not allowed changes nothing and is logged.
  void setPhase(StreamPhase next);

 private:
  using VideoSettings = ScreenCaptureService::VideoSettings;

  explicit StreamCoordinator(StreamCoordinatorDependencies dependencies);

  // Construction (StreamCoordinator.cpp)
  void connect();
  /// Starts `flow` as a task of its own that keeps the coordinator alive.
  TaskHandle startFlow(Task<void> flow);
  static Task<void> keepingAlive(std::shared_ptr<StreamCoordinator> self, Task<void> flow);
  /// Waits for the task in `slot` and clears the slot, unless another task has taken it.
  static Task<void> awaitAndClear(TaskHandle& slot);

  // Stored settings (StreamCoordinatorPreferences.cpp)
  void loadPreferences();
  void storeVideoSettings();
  void takeChangedPreferences(const std::vector<std::string>& changedKeys);
  Task<void> applyEditedSettings();
  void observePreferences();

  // Settings (StreamCoordinatorSettings.cpp)
  VideoSettings currentVideoSettings() const;
  /// With what running and coming changes ask for.
  VideoSettings newestVideoSettings() const;
  /// `active` is what the server told the viewer last.
  Task<void> takeViewerSettings(StreamProfile active);
  Task<void> fallBackToH264();
  Task<void> applyPendingSettings(VideoSettings wanted);
  Task<void> catchUpWithSettings(VideoSettings used);
  void writeVideoSettings(const VideoSettings& settings);
  void announceStreamSettings();

  // Wiring (StreamCoordinatorWiring.cpp)
  void wireCapture();
  void wireServer();
  void wireRemoteControl();
  template <class Body>
  auto onMainQueue(Body body);
  template <class Body>
  auto onMainQueueWhileFew(Body body);

  // Phase and reporting (StreamCoordinatorReporting.cpp)
  StreamPhase restingPhase() const;
  void reportError(const std::exception_ptr& failure, bool setFailed);
  void recordError(const std::optional<std::string>& message);
  void clearErrors();
  void setRouteState(RemoteStreamState state, std::optional<std::string> message = {});
  void publishRemoteError(const std::string& message, bool record);
  void handleCaptureError(const std::exception_ptr& failure);
  void handleVideoPacket(EncodedVideoPacket packet);
  void refreshViewerURLs();
  bool requirePermissions();

  // Start (StreamCoordinatorStart.cpp)
  Task<void> runStartup(Task<void> body);
  Task<void> startServer();
  Task<void> armingBody();
  Task<void> handleStreamStartRequest();
  Task<void> captureBody();

  // Capture (StreamCoordinatorCapture.cpp)
  Task<void> startCapture();
  Task<void> stopCapture();
  Task<void> runCaptureStop();
  Task<void> handleCaptureStopped(std::exception_ptr failure);
  Task<void> returnToStandby();
  void handleSourceChanged(std::optional<CaptureSourceDescriptor> source);
  void resetCaptureMetrics();

  // Viewers (StreamCoordinatorViewers.cpp)
  bool isViewerConnected() const { return localViewerConnected_; }
  void handleLocalViewerChange(bool connected);
  void applyViewerConnectionChange();
  static Task<void> disableEncodingLater(std::weak_ptr<StreamCoordinator> weak);
  void handleViewerTelemetry(const ViewerTelemetry& telemetry);

  // Metrics and cursor (StreamCoordinatorMetrics.cpp)
  void startMetricsTask();
  static Task<void> runMetrics(std::weak_ptr<StreamCoordinator> weak);
  void applyCaptureMetrics(const StreamMetrics& record);
  void refreshCursorSync();
  static Task<void> runCursorSync(std::weak_ptr<StreamCoordinator> weak);
  void publishCursor(bool visible, bool force);

  // Sleep and login (StreamCoordinatorPower.cpp)
  void updateSleepAssertion();

  // Teardown (StreamCoordinatorTeardown.cpp)
  Task<void> runTeardown();

  const StreamCoordinatorDependencies dependencies_;
  const std::shared_ptr<SerialQueue> mainQueue_;
  const std::shared_ptr<Preferences> defaults_;
  const std::shared_ptr<TokenStore> tokenStore_;
  std::shared_ptr<ScreenCaptureService> captureService_;
  std::shared_ptr<StreamingServer> server_;
  std::shared_ptr<RemoteControlService> remoteControlService_;
  std::unique_ptr<SleepAssertion> sleepAssertion_;
  std::vector<Observation> settingObservations_;

  bool localViewerConnected_ = false;  // an authenticated viewer

  // At most one running task each; whoever awaited it clears the handle. Between a task's end and that turn
  // its slot holds a finished task: ask isFinished(), not whether the slot is empty.
  TaskHandle metricsTask_;
  TaskHandle cursorSyncTask_;
  TaskHandle encodingDisableTask_;
  TaskHandle captureStopTask_;
  TaskHandle teardownTask_;
  TaskHandle startupTask_;

  bool ownsActiveResources_ = false;  // the server is up
  bool isTearingDown_ = false;
  /// Raised by what makes a running change of the settings stale: another source, a teardown.
  std::uint64_t streamSettingsGeneration_ = 0;
  /// The newest change that is not taken up yet.
  std::optional<VideoSettings> pendingStreamSettings_;
  /// The newest change while one is applied, pending or not: what a further one starts from.
  std::optional<VideoSettings> newestStreamSettings_;
  /// What edited preferences ask for, until applyStreamSettings() has it.
  std::optional<VideoSettings> editedStreamSettings_;
  /// The encoder gives no picture. A new route state begins the wait for one anew.
  struct EncodingFailure {
    Duration since{};                 // of the continuous clock
    std::optional<std::string> told;  // what the viewer was told is wrong
  };
  std::optional<EncodingFailure> encodingFailure_;
  FailureLog captureFailureLog_;
  bool didSelectDefaultDisplay_ = false;
  /// Of the capture that runs, or ran last; a change of the setting is for the next one.
  AudioChannelMode captureAudioMode_ = AudioChannelMode::stereo;
  std::optional<RemoteCursorState> lastPublishedCursorState_;
};

}  // namespace kestrune
