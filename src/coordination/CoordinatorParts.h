#pragma once

#include <cstdint>
#include <memory>
#include <vector>

#include "browser/BrowserDisplayService.h"
#include "browser/DisplayScalingService.h"
#include "capture/CapturePreviewHub.h"
#include "capture/ScreenCaptureService.h"
#include "coordination/BrowserDisplay.h"
#include "coordination/CaptureControl.h"
#include "coordination/CursorSync.h"
#include "coordination/EncodingWatch.h"
#include "coordination/ErrorReport.h"
#include "coordination/LaunchAtLogin.h"
#include "coordination/LiveSettings.h"
#include "coordination/PermissionState.h"
#include "coordination/SourcePlayback.h"
#include "coordination/SourceSelection.h"
#include "coordination/StoredSettings.h"
#include "coordination/StreamLifecycle.h"
#include "coordination/Telemetry.h"
#include "coordination/ViewerAddress.h"
#include "coordination/ViewerPresence.h"
#include "coordination/ViewerRoutes.h"
#include "coordination/Wakefulness.h"
#include "platform/Platform.h"

namespace kestrune {

class RemoteControlService;
class StreamingServer;
class TokenStore;

/// The services and the parts of the coordinator, made and joined. A part sees of the others what it is
/// handed, and the joints that it asks for.
struct CoordinatorParts {
  CoordinatorParts(const Platform& platform, std::shared_ptr<SerialQueue> mainQueue,
                   std::uint16_t viewerPort);
  ~CoordinatorParts();
  CoordinatorParts(const CoordinatorParts&) = delete;
  CoordinatorParts& operator=(const CoordinatorParts&) = delete;

  // Conditions that more than one part decides.
  bool canChangeSource() const;
  bool canEditStreamSettings() const;
  bool canChangeDisplayMode() const;
  void updateWakefulness();
  /// A real display is shown at the scale of a car's browser.
  void applyStreamingScale();
  void restoreScale();

  FlowStarter startFlow;  // set by the owner before any part runs

  // Services
  const std::shared_ptr<SerialQueue> mainQueue;
  const std::shared_ptr<Preferences> preferences;
  const std::shared_ptr<CapturePreviewHub> previewHub;
  const std::shared_ptr<ScreenCaptureService> captureService;
  const std::shared_ptr<TokenStore> tokenStore;
  const std::shared_ptr<StreamingServer> server;
  const std::shared_ptr<RemoteControlService> remoteControl;
  const std::shared_ptr<BrowserDisplayService> browserService;
  DisplayScalingService displayScaling;

  // Parts
  const std::shared_ptr<ViewerRoutes> routes;
  ErrorReport errors;
  StoredSettings settings;
  PermissionState permissions;
  LaunchAtLogin launchAtLogin;
  ViewerAddress viewerAddress;
  Wakefulness wakefulness;
  LiveSettings liveSettings;
  SourceSelection source;
  BrowserDisplay browserDisplay;
  const std::shared_ptr<Telemetry> telemetry;
  const std::shared_ptr<CursorSync> cursorSync;
  const std::shared_ptr<ViewerPresence> viewers;
  SourcePlayback playback;
  CaptureControl capture;
  const std::shared_ptr<EncodingWatch> encodingWatch;
  StreamLifecycle lifecycle;

 private:
  void handleRouteChange(const ViewerPresence::Change& change);

  std::vector<Observation> observations_;
};

}  // namespace kestrune
