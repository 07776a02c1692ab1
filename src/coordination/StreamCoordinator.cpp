#include "coordination/StreamCoordinator.h"

#include <utility>

#include "coordination/CoordinatorParts.h"

namespace kestrune {

std::shared_ptr<StreamCoordinator> StreamCoordinator::make(const Platform& platform,
                                                           std::shared_ptr<SerialQueue> mainQueue,
                                                           std::uint16_t viewerPort) {
  std::shared_ptr<StreamCoordinator> coordinator(
      new StreamCoordinator(std::make_unique<CoordinatorParts>(platform, std::move(mainQueue), viewerPort)));
  coordinator->connect();
  return coordinator;
}

StreamCoordinator::StreamCoordinator(std::unique_ptr<CoordinatorParts> parts)
    : parts_(std::move(parts)),
      phase(parts_->lifecycle.phase()),
      selectedSource(parts_->source.selectedSource()),
      metrics(parts_->telemetry->metrics()),
      localViewerURL(parts_->viewerAddress.local()),
      lastError(parts_->errors.lastError()),
      isCapturing(parts_->capture.isCapturing()),
      isRemoteStartArmed(parts_->lifecycle.isRemoteStartArmed()),
      isRemoteStartBusy(parts_->lifecycle.isRemoteStartBusy()),
      screenCapturePermissionGranted(parts_->permissions.screenCaptureGranted()),
      remoteControlPermissionGranted(parts_->permissions.remoteControlGranted()),
      isUpdatingStreamSettings(parts_->liveSettings.isUpdatingStreamSettings()),
      isBrowserDisplayActive(parts_->browserDisplay.isActive()),
      isPreparingBrowserDisplay(parts_->browserDisplay.isPreparing()),
      launchAtLoginEnabled(parts_->launchAtLogin.isEnabled()),
      launchAtLoginNeedsApproval(parts_->launchAtLogin.needsApproval()),
      streamDisplayMode(parts_->settings.streamDisplayMode()),
      browserStartURL(parts_->settings.browserStartURL()),
      profile(parts_->settings.profile()),
      frameRate(parts_->settings.frameRate()),
      videoCodec(parts_->settings.videoCodec()),
      bitRate(parts_->settings.bitRate()),
      videoEncoderKind(parts_->settings.videoEncoderKind()),
      audioChannelMode(parts_->settings.audioChannelMode()),
      preventMacSleep(parts_->settings.preventMacSleep()),
      previewHub(parts_->previewHub) {
  parts_->startFlow = [this](Task<void> flow) { return startFlow(std::move(flow)); };
}

StreamCoordinator::~StreamCoordinator() = default;

TaskHandle StreamCoordinator::startFlow(Task<void> flow) {
  return startTask(parts_->mainQueue, keepingAlive(shared_from_this(), std::move(flow)));
}

Task<void> StreamCoordinator::keepingAlive([[maybe_unused]] std::shared_ptr<StreamCoordinator> self,
                                           Task<void> flow) {
  Task<void> body = std::move(flow);
  co_await body;
}

bool StreamCoordinator::canChangeSource() const {
  return parts_->canChangeSource();
}
bool StreamCoordinator::canEditStreamSettings() const {
  return parts_->canEditStreamSettings();
}
bool StreamCoordinator::canChangeDisplayMode() const {
  return parts_->canChangeDisplayMode();
}

Task<void> StreamCoordinator::selectDefaultDisplayIfNeeded() {
  return parts_->source.selectDefaultDisplayIfNeeded();
}
Task<bool> StreamCoordinator::prepareMainDisplaySource() {
  return parts_->browserDisplay.prepareMainDisplaySource();
}
void StreamCoordinator::clearBrowserDisplaySelection() {
  parts_->browserDisplay.end();
}
Task<void> StreamCoordinator::startServing() {
  return parts_->lifecycle.startServing();
}
Task<void> StreamCoordinator::stop() {
  return parts_->lifecycle.stop();
}
Task<void> StreamCoordinator::prepareForTermination() {
  return parts_->lifecycle.prepareForTermination();
}
Task<void> StreamCoordinator::teardown() {
  return parts_->lifecycle.teardown();
}

Task<void> StreamCoordinator::applyStreamSettings(StreamProfile newProfile, StreamFrameRate newFrameRate,
                                                  std::optional<StreamVideoCodec> newCodec,
                                                  std::optional<StreamBitRate> newBitRate,
                                                  std::optional<StreamVideoEncoderKind> newEncoderKind) {
  return parts_->liveSettings.applyStreamSettings(newProfile, newFrameRate, newCodec, newBitRate,
                                                  newEncoderKind);
}
void StreamCoordinator::setPreventMacSleep(bool prevents) {
  parts_->settings.setPreventMacSleep(prevents);
}
void StreamCoordinator::setLaunchAtLogin(bool enabled) {
  parts_->launchAtLogin.set(enabled);
}
void StreamCoordinator::refreshLaunchAtLoginStatus() {
  parts_->launchAtLogin.refresh();
}
void StreamCoordinator::setPhase(StreamPhase next) {
  parts_->lifecycle.setPhase(std::move(next));
}

}  // namespace kestrune
