#include <chrono>

#include "coordination/StreamCoordinator.h"
#include "input/RemoteControlService.h"

namespace kestrune {
namespace {
/// A page that is loaded anew costs no restart of the encoder.
constexpr std::chrono::seconds kEncodingDisableDelay{5};
}  // namespace

void StreamCoordinator::handleLocalViewerChange(bool connected) {
  if (isTearingDown_) return;  // the teardown has forgotten the viewer already
  localViewerConnected_ = connected;
  if (connected) {
    // The viewer starts with no held button and the pointer in the middle.
    remoteControlService_->releaseButton();
    remoteControlService_->pointer(RemotePointerPhase::move, 0.5, 0.5);
  }
  applyViewerConnectionChange();
}

void StreamCoordinator::applyViewerConnectionChange() {
  const bool viewer = isViewerConnected();
  metrics.update([&](StreamMetrics& record) { record.viewerCount = viewer ? 1 : 0; });
  refreshCursorSync();
  encodingDisableTask_.cancel();
  encodingDisableTask_.reset();
  const bool isStarting = phase->value == StreamPhase::Case::starting;
  const bool hasSource = selectedSource->has_value();  // without one there is no way out of `idle`
  if (viewer && isCapturing) {
    captureService_->setVideoEncodingEnabled(true);
    setRouteState(RemoteStreamState::streaming);
    setPhase(StreamPhase::Case::streaming);
  } else if (viewer && isRemoteStartArmed && !isStarting) {
    setRouteState(RemoteStreamState::armed);
    if (hasSource) setPhase(StreamPhase::Case::remoteReady);
  } else if (!viewer && isCapturing) {
    setPhase(StreamPhase::Case::recovering);
    encodingDisableTask_ = startTask(mainQueue_, disableEncodingLater(weak_from_this()));
  } else if (!viewer && ownsActiveResources_ && !isStarting && hasSource) {
    setPhase(StreamPhase::Case::remoteReady);
  }
}

Task<void> StreamCoordinator::disableEncodingLater(std::weak_ptr<StreamCoordinator> weak) {
  co_await sleepFor(kEncodingDisableDelay);
  const auto self = weak.lock();
  if (!self || self->isViewerConnected()) co_return;
  self->captureService_->setVideoEncodingEnabled(false);
  if (!self->isRemoteStartArmed && self->ownsActiveResources_ &&
      self->phase->value == StreamPhase::Case::recovering) {
    self->setPhase(StreamPhase::Case::remoteReady);
  }
}

void StreamCoordinator::handleViewerTelemetry(const ViewerTelemetry& telemetry) {
  metrics.update([&](StreamMetrics& record) {
    record.viewerFPS = telemetry.viewerFPS;
    record.decodeMilliseconds = telemetry.decodeMilliseconds;
    record.videoBufferMilliseconds = telemetry.videoBufferMilliseconds;
    record.audioBufferMilliseconds = telemetry.audioBufferMilliseconds;
    record.audioDriftMilliseconds = telemetry.audioDriftMilliseconds;
    record.reconnects = telemetry.reconnects;
  });
}

}  // namespace kestrune
