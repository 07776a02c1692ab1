#include "coordination/StreamCoordinator.h"
#include "input/RemoteControlService.h"
#include "model/KestruneError.h"
#include "runtime/Log.h"

namespace kestrune {
namespace {
constexpr Logger kCaptureLog("Capture");
}

Task<void> StreamCoordinator::startCapture() {
  if (!requirePermissions()) {
    throw KestruneError::operationFailed(
        localized("Screen Recording and Accessibility are required before streaming can start."));
  }
  const auto& source = selectedSource.get();
  const ScreenCaptureService::StreamSettings settings{
      .video = currentVideoSettings(),
      .audioMode = audioChannelMode,
      // The viewer draws the pointer over a display by itself.
      .showsCursor = !source || source->kind != CaptureSourceDescriptor::Kind::display};
  captureAudioMode_ = settings.audioMode;
  co_await captureService_->start(settings);
  co_await catchUpWithSettings(settings.video);
  isCapturing = true;
  refreshCursorSync();
  co_await checkCancellation();
  updateSleepAssertion();
  startMetricsTask();
  if (isViewerConnected()) captureService_->setVideoEncodingEnabled(true);
}

Task<void> StreamCoordinator::stopCapture() {
  if (!captureStopTask_.isFinished()) {
    co_await awaitAndClear(captureStopTask_);
  } else if (captureService_->isRunning()) {
    captureStopTask_ = startFlow(runCaptureStop());
    co_await awaitAndClear(captureStopTask_);
  }
  isCapturing = false;
  refreshCursorSync();
}

Task<void> StreamCoordinator::runCaptureStop() {
  try {
    co_await captureService_->stop();
  } catch (...) {
    kCaptureLog.error("Capture shutdown failed: " + localizedDescription(std::current_exception()));
  }
}

Task<void> StreamCoordinator::handleCaptureStopped(std::exception_ptr failure) {
  if (!ownsActiveResources_ || isTearingDown_ || captureStopTask_) co_return;
  startupTask_.cancel();
  const std::string message = localizedDescription(failure);
  isCapturing = false;
  captureService_->setVideoEncodingEnabled(false);
  remoteControlService_->releaseButton();
  if (!isRemoteStartArmed) {
    setPhase(StreamPhase::Case::recovering);
    co_await teardown();
    recordError(message);
    setPhase(StreamPhase::failed(message));
    co_return;
  }
  resetCaptureMetrics();
  recordError(message);
  setRouteState(RemoteStreamState::error,
                localized("Screen capture stopped on the Mac. Check the selected display, then try again."));
  setPhase(StreamPhase::Case::remoteReady);
}

Task<void> StreamCoordinator::returnToStandby() {
  const bool wasBusy = isRemoteStartBusy;
  isRemoteStartBusy = true;
  encodingDisableTask_.cancel();
  encodingDisableTask_.reset();
  remoteControlService_->releaseButton();
  captureService_->setVideoEncodingEnabled(false);
  co_await stopCapture();
  if (isRemoteStartArmed && !isTearingDown_) {
    resetCaptureMetrics();
    setRouteState(RemoteStreamState::armed);
    setPhase(StreamPhase::Case::remoteReady);
  }
  if (!wasBusy) isRemoteStartBusy = false;
}

void StreamCoordinator::handleSourceChanged(std::optional<CaptureSourceDescriptor> source) {
  if (source != selectedSource.get()) ++streamSettingsGeneration_;
  selectedSource = std::move(source);
  if (!ownsActiveResources_) setPhase(restingPhase());
}

void StreamCoordinator::resetCaptureMetrics() {
  StreamMetrics kept;
  kept.viewerCount = metrics->viewerCount;
  kept.bytesSent = metrics->bytesSent;
  kept.networkDroppedFrames = metrics->networkDroppedFrames;
  metrics = kept;
}

}  // namespace kestrune
