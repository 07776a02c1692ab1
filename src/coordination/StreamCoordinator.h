#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "model/CaptureSource.h"
#include "model/StreamMetrics.h"
#include "model/StreamPhase.h"
#include "model/StreamSettings.h"
#include "platform/Platform.h"
#include "runtime/Published.h"
#include "runtime/SerialQueue.h"
#include "runtime/Task.h"

namespace kestrune {

class CapturePreviewHub;
struct CoordinatorParts;

/// The one owner of the services and of all state that is shown. It makes the parts (CoordinatorParts.h),
/// joins them, and passes on what they publish and do; each rule stands in the part that owns the state.
///
/// Everything here is confined to the main queue, long flows being tasks on it. There is one instance, made
/// by make() and owned by a shared_ptr until the process ends. A task returned from here must be awaited, or
/// started on the main queue, by someone who holds the coordinator.
class StreamCoordinator final : public std::enable_shared_from_this<StreamCoordinator> {
  const std::unique_ptr<CoordinatorParts> parts_;

 public:
  /// Makes the services, reads the stored settings (writing back what they resolve to) and the permissions,
  /// and connects everything. It may block for as long as the credential helper takes to answer. Nothing is
  /// started. `viewerPort`: of the local viewer server, on 127.0.0.1.
  static std::shared_ptr<StreamCoordinator> make(const Platform& platform,
                                                 std::shared_ptr<SerialQueue> mainQueue,
                                                 std::uint16_t viewerPort = 8080);
  ~StreamCoordinator();
  StreamCoordinator(const StreamCoordinator&) = delete;
  StreamCoordinator& operator=(const StreamCoordinator&) = delete;

  const Observable<StreamPhase>& phase;
  /// What capture would show.
  const Observable<std::optional<CaptureSourceDescriptor>>& selectedSource;
  const Observable<StreamMetrics>& metrics;
  /// The local viewer's address with the access token as its fragment, or "Unavailable".
  const Observable<std::string>& localViewerURL;
  /// The message that the user last has to see.
  const Observable<std::optional<std::string>>& lastError;
  /// A capture stream has been started and not yet stopped.
  const Observable<bool>& isCapturing;
  /// The server is up and a viewer's request may start capture.
  const Observable<bool>& isRemoteStartArmed;
  /// The server or capture is being started, or capture is on its way back to standby.
  const Observable<bool>& isRemoteStartBusy;
  const Observable<bool>& screenCapturePermissionGranted;
  const Observable<bool>& remoteControlPermissionGranted;
  const Observable<bool>& isUpdatingStreamSettings;
  /// The private virtual display exists and is the selected source.
  const Observable<bool>& isBrowserDisplayActive;
  const Observable<bool>& isPreparingBrowserDisplay;
  /// The program starts when the user logs in, or would if the user allowed it.
  const Observable<bool>& launchAtLoginEnabled;
  const Observable<bool>& launchAtLoginNeedsApproval;

  // Settings; each is stored at the moment it changes.

  const Observable<StreamDisplayMode>& streamDisplayMode;
  const Observable<std::string>& browserStartURL;
  const Observable<StreamProfile>& profile;
  const Observable<StreamFrameRate>& frameRate;
  const Observable<StreamVideoCodec>& videoCodec;
  const Observable<StreamBitRate>& bitRate;
  const Observable<StreamVideoEncoderKind>& videoEncoderKind;
  const Observable<AudioChannelMode>& audioChannelMode;
  /// Whether the machine is kept awake while the server is up or a stream runs; takes effect at once.
  const Observable<bool>& preventMacSleep;

  /// What is captured, for a preview at the machine.
  const std::shared_ptr<CapturePreviewHub>& previewHub;

  // Conditions on which controls depend.

  bool canChangeSource() const;
  bool canEditStreamSettings() const;
  bool canChangeDisplayMode() const;

  // Operations. None of them throws out of its task; failures become state.

  /// Selects the main display, once in the life of the process, if no source is selected.
  Task<void> selectDefaultDisplayIfNeeded();
  /// Selects the main display and opens the managed Chrome on it; whether both succeeded. Does nothing while
  /// the source may not be changed.
  Task<bool> prepareMainDisplaySource();
  /// Closes the managed browser and its display, for the end of the program.
  void clearBrowserDisplaySelection();
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
  void setPreventMacSleep(bool prevents);

  /// Registers or removes the start at login; the two fields tell what became of it.
  void setLaunchAtLogin(bool enabled);
  /// Reads the two fields anew: they may have been changed from outside.
  void refreshLaunchAtLoginStatus();

  /// A checked transition: one that is not allowed changes nothing and is logged.
  void setPhase(StreamPhase next);

 private:
  explicit StreamCoordinator(std::unique_ptr<CoordinatorParts> parts);

  /// Starts `flow` as a task of its own that keeps the coordinator alive.
  TaskHandle startFlow(Task<void> flow);
  static Task<void> keepingAlive(std::shared_ptr<StreamCoordinator> self, Task<void> flow);

  // Who takes the events of the services (StreamCoordinatorWiring.cpp)
  class LocalViewerRequests;
  void connect();
  void wireCapture();
  void wireServer();
};

}  // namespace kestrune
