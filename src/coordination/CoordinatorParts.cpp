#include "coordination/CoordinatorParts.h"

#include <utility>

#include "access/CredentialHelperClient.h"
#include "access/TokenStore.h"
#include "capture/PCMConverter.h"
#include "input/RemoteControlService.h"
#include "server/StreamingServer.h"
#include "server/ViewerTokenSource.h"
#include "viewer/AudioChunkStore.h"
#include "viewer/VideoPacketStore.h"

namespace kestrune {
namespace {

/// The server asks for the token through an interface of its own, so that services stay apart.
class StoredTokenSource final : public ViewerTokenSource {
 public:
  explicit StoredTokenSource(std::shared_ptr<TokenStore> store) : store_(std::move(store)) {}
  std::string token() override { return store_->token(); }

 private:
  const std::shared_ptr<TokenStore> store_;
};

ScreenCaptureService::Dependencies captureDependencies(const Platform& platform,
                                                       std::shared_ptr<SerialQueue> mainQueue,
                                                       std::shared_ptr<CapturePreviewHub> previewHub) {
  ScreenCaptureService::Dependencies to;
  to.previewHub = std::move(previewHub);
  to.capture = platform.screenCapture;
  if (platform.sampleRateConverters) {
    to.audioConverter = std::make_shared<PCMConverter>(platform.sampleRateConverters);
  }
  to.displays = platform.displays;
  to.clock = platform.clock;
  to.compression = platform.compression;
  to.pixelTransfer = platform.pixelTransfer;
  to.callbackQueue = std::move(mainQueue);
  to.makeQueue = platform.makeQueue;
  to.picker = platform.picker;
  to.bundleIdentifier = platform.bundle->bundleIdentifier();
  return to;
}

BrowserDisplayService::Dependencies browserDependencies(const Platform& platform,
                                                        std::shared_ptr<SerialQueue> mainQueue) {
  return {.mainQueue = std::move(mainQueue),
          .displays = platform.displays,
          .permissions = platform.permissions,
          .applications = platform.applications,
          .windows = platform.windows,
          .files = platform.files,
          .virtualDisplays = platform.virtualDisplays,
          .arrangement = platform.displayArrangement};
}

Telemetry::ReadCounters countersOf(const std::shared_ptr<StreamingServer>& server) {
  return [server](const Completion<Telemetry::RouteCounters>& done) {
    server->snapshot([done](const StreamingServerSnapshot& snapshot) {
      done({.bytesSent = snapshot.bytesSent,
            .pendingFrames = snapshot.outboundVideoFrames,
            .droppedFrames = snapshot.droppedOutboundFrames,
            .isViewerConnected = snapshot.viewerConnected});
    });
  };
}

}  // namespace

CoordinatorParts::CoordinatorParts(const Platform& platform, std::shared_ptr<SerialQueue> queue,
                                   std::uint16_t viewerPort)
    : mainQueue(std::move(queue)),
      preferences(platform.preferences),
      previewHub(std::make_shared<CapturePreviewHub>(mainQueue)),
      captureService(
          std::make_shared<ScreenCaptureService>(captureDependencies(platform, mainQueue, previewHub))),
      tokenStore(std::make_shared<TokenStore>(std::make_shared<CredentialHelperClient>(platform.credentials),
                                              platform.random)),
      server(std::make_shared<StreamingServer>(
          platform.network, platform.bundle, std::make_shared<StoredTokenSource>(tokenStore),
          std::make_shared<AudioChunkStore>(), std::make_shared<VideoPacketStore>(), platform.clock,
          viewerPort)),
      remoteControl(std::make_shared<RemoteControlService>(platform.inputEvents, platform.displays,
                                                           platform.permissions, mainQueue, platform.clock)),
      browserService(std::make_shared<BrowserDisplayService>(browserDependencies(platform, mainQueue))),
      displayScaling(platform.displayModes),
      routes(std::make_shared<ViewerRoutes>(std::vector<std::shared_ptr<ViewerRoute>>{server})),
      settings(platform.preferences),
      permissions(platform.permissions, errors),
      launchAtLogin(platform.loginItem, errors),
      viewerAddress(server->localURL(), tokenStore, errors),
      wakefulness(platform.activities),
      liveSettings([this](Task<void> flow) { return startFlow(std::move(flow)); }, settings, captureService,
                   routes, errors,
                   {.isCapturing = [this] { return capture.isCapturing().get(); },
                    .isTearingDown = [this] { return lifecycle.isTearingDown(); }}),
      source(captureService, platform.displays, platform.permissions, errors,
             {.canChangeSource = [this] { return canChangeSource(); },
              .onReplaced = [this] { liveSettings.invalidate(); },
              .onReported = [this] { lifecycle.handleSourceReported(); }}),
      browserDisplay(browserService, captureService, platform.displays, errors,
                     {.requirePermissions = [this] { return permissions.require(); },
                      .canChangeSource = [this] { return canChangeSource(); },
                      .selectedSource = [this] { return source.selectedSource().get(); },
                      .displayMode = [this] { return settings.streamDisplayMode().get(); },
                      .startURL = [this] { return settings.browserStartURL().get(); },
                      .onSourceCleared =
                          [this] {
                            source.handleSourceChanged(std::nullopt);
                            remoteControl->setTarget(std::nullopt);
                          },
                      .tellViewers =
                          [this](const std::string& message) {
                            if (lifecycle.isRemoteStartArmed()) lifecycle.publishRemoteError(message, true);
                          }}),
      telemetry(std::make_shared<Telemetry>(mainQueue, routes, countersOf(server),
                                            [this] {
                                              return Telemetry::StreamFacts{settings.streamDisplayMode(),
                                                                            settings.frameRate(),
                                                                            liveSettings.audioMode()};
                                            })),
      cursorSync(std::make_shared<CursorSync>(
          mainQueue, routes,
          [this] { return capture.isCapturing() && viewers->isConnected() && source.isDisplay(); },
          [this] { return remoteControl->cursorState(); })),
      viewers(std::make_shared<ViewerPresence>(
          mainQueue,
          ViewerPresence::Joints{.isCapturing = [this] { return capture.isCapturing().get(); },
                                 .isArmed = [this] { return lifecycle.isRemoteStartArmed().get(); },
                                 .isBusy = [this] { return lifecycle.isRemoteStartBusy().get(); },
                                 .isTearingDown = [this] { return lifecycle.isTearingDown(); },
                                 .onRouteChanged = [this](const auto& change) { handleRouteChange(change); },
                                 .onChanged =
                                     [this](bool isPresent) {
                                       telemetry->setViewerPresent(isPresent);
                                       cursorSync->refreshCursorSync();
                                       lifecycle.handleViewerChanged(isPresent);
                                     },
                                 .onEncodingUnneeded = [this] { lifecycle.handleEncodingUnneeded(); },
                                 .onUnattended = [this] { startFlow(lifecycle.returnToStandby()); }})),
      playback([this] { return remoteControl->togglePlayPause(); }),
      capture([this](Task<void> flow) { return startFlow(std::move(flow)); }, captureService,
              {.requirePermissions = [this] { return permissions.require(); },
               .onStarting = [this] { applyStreamingScale(); },
               // The viewer draws the pointer over a display by itself.
               .startStream = [this] { return liveSettings.startStream(!source.isDisplay()); },
               .onStarted =
                   [this] {
                     cursorSync->refreshCursorSync();
                     updateWakefulness();
                     telemetry->startMetricsTask();
                   },
               .onStopped =
                   [this] {
                     restoreScale();
                     cursorSync->refreshCursorSync();
                   }}),
      encodingWatch(std::make_shared<EncodingWatch>(
          mainQueue, platform.clock, routes, errors,
          EncodingWatch::Joints{
              .isCapturing = [this] { return capture.isCapturing().get(); },
              .isViewerConnected = [this] { return viewers->isConnected().get(); },
              .isEncodingFailing = [this] { return captureService->isEncodingFailing(); }})),
      lifecycle([this](Task<void> flow) { return startFlow(std::move(flow)); }, capture, routes, errors,
                {.requirePermissions = [this] { return permissions.require(); },
                 .hasSource = [this] { return source.selectedSource()->has_value(); },
                 .isViewerConnected = [this] { return viewers->isConnected().get(); },
                 .isPreparingSource = [this] { return browserDisplay.isPreparing().get(); },
                 .prepareSource = [this] { return browserDisplay.prepareSource(); },
                 .onServerStarted =
                     [this] {
                       updateWakefulness();
                       telemetry->startMetricsTask();
                     },
                 .onArmed = [this] { viewerAddress.refresh(); },
                 .onCaptureStarted = [this] { viewers->scheduleViewerDisconnectStop(); },
                 .onStreamEnding =
                     [this] {
                       viewers->cancelTimers();
                       remoteControl->releaseButton();
                     },
                 .onStreamEnded = [this] { telemetry->resetCapture(); },
                 .onTeardownBegan =
                     [this] {
                       liveSettings.abandon();
                       viewers->forget();
                       telemetry->stop();
                       cursorSync->stop();
                     },
                 .onTornDown =
                     [this] {
                       updateWakefulness();
                       viewerAddress.refresh();
                       telemetry->clear();
                     },
                 .onTerminating = [this] { browserDisplay.end(); },
                 .endBrowser = [this] { return browserDisplay.terminate(); }}) {
  errors.setListener([this](const auto& message) { telemetry->setLastError(message); });
  observations_.push_back(settings.preventMacSleep().observe([this](bool) { updateWakefulness(); }));
}

CoordinatorParts::~CoordinatorParts() = default;

void CoordinatorParts::updateWakefulness() {
  const bool isServing =
      lifecycle.ownsActiveResources() || capture.isCapturing() || lifecycle.isRemoteStartArmed();
  wakefulness.update(isServing, settings.preventMacSleep());
}

void CoordinatorParts::handleRouteChange(const ViewerPresence::Change& change) {
  if (change.connected) {  // it starts with no held button and the pointer in the middle
    remoteControl->releaseButton();
    remoteControl->pointer(RemotePointerPhase::move, 0.5, 0.5);
  }
  playback.handleViewerChange({.isLocalViewerConnected = viewers->isConnected(ViewerRouteKind::local),
                               .isHostedViewerConnected = viewers->isConnected(ViewerRouteKind::hosted),
                               .wasPlaying = change.wasPlaying,
                               .isCapturing = capture.isCapturing()});
}

void CoordinatorParts::applyStreamingScale() {
  const auto display = captureService->selectedDisplayID();
  if (!display) return;
  displayScaling.applyStreamingScale(*display, 1440, 900);
  browserService->repositionManagedChrome();  // a new mode moves windows
}

void CoordinatorParts::restoreScale() {
  displayScaling.restoreOriginalMode();
  browserService->repositionManagedChrome();
}

bool CoordinatorParts::canChangeSource() const {
  return (!lifecycle.ownsActiveResources() || lifecycle.isRemoteStartArmed()) &&
         !lifecycle.isRemoteStartBusy() && !capture.isCapturing();
}

bool CoordinatorParts::canEditStreamSettings() const {
  const auto phase = lifecycle.phase()->value;
  return !liveSettings.isUpdatingStreamSettings() && phase != StreamPhase::Case::starting &&
         phase != StreamPhase::Case::recovering;
}

bool CoordinatorParts::canChangeDisplayMode() const {
  return !lifecycle.ownsActiveResources() && !capture.isCapturing() && !lifecycle.isRemoteStartBusy() &&
         !browserDisplay.isPreparing();
}

}  // namespace kestrune
