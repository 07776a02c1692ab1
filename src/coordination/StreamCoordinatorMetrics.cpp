#include <chrono>

#include "coordination/StreamCoordinator.h"
#include "input/RemoteControlService.h"
#include "server/StreamingServer.h"

namespace kestrune {
namespace {
constexpr std::chrono::seconds kMetricsPeriod{1};
constexpr std::chrono::milliseconds kCursorPeriod{67};
}  // namespace

void StreamCoordinator::startMetricsTask() {
  metricsTask_.cancel();
  metricsTask_ = startTask(mainQueue_, runMetrics(weak_from_this()));
}

Task<void> StreamCoordinator::runMetrics(std::weak_ptr<StreamCoordinator> weak) {
  for (;;) {
    {
      const auto self = weak.lock();
      if (!self) co_return;
      const auto read = [server = self->server_](const Completion<StreamingServerSnapshot>& done) {
        server->snapshot(done);
      };
      const auto snapshot = co_await awaitCallback<StreamingServerSnapshot>(read);
      co_await checkCancellation();
      self->metrics.update([&](StreamMetrics& record) {
        record.bytesSent = snapshot.bytesSent;
        record.serverPendingFrames = snapshot.outboundVideoFrames;
        record.networkDroppedFrames = snapshot.droppedOutboundFrames;
        record.viewerCount = snapshot.viewerConnected ? 1 : 0;
      });
    }
    co_await sleepFor(kMetricsPeriod);
  }
}

void StreamCoordinator::applyCaptureMetrics(const StreamMetrics& record) {
  metrics.update([&](StreamMetrics& mine) {
    mine.capturedFrames = record.capturedFrames;
    mine.encodedFrames = record.encodedFrames;
    mine.droppedFrames = record.droppedFrames;
    mine.captureFPS = record.captureFPS;
    mine.encodeFPS = record.encodeFPS;
    mine.bitRateMbps = record.bitRateMbps;
    mine.encoderPendingFrames = record.encoderPendingFrames;
    if (record.lastError) mine.lastError = record.lastError;
  });
  HostDiagnostics diagnostics;
  diagnostics.captureMode =
      streamDisplayMode == StreamDisplayMode::virtualDisplay ? "virtualDisplay" : "physicalDisplay";
  diagnostics.captureTargetFPS = framesPerSecond(frameRate);
  diagnostics.captureFPS = metrics->captureFPS;
  diagnostics.encodeFPS = metrics->encodeFPS;
  diagnostics.bitRateMbps = metrics->bitRateMbps;
  diagnostics.capturedFrames = metrics->capturedFrames;
  diagnostics.encodedFrames = metrics->encodedFrames;
  diagnostics.captureDroppedFrames = metrics->droppedFrames;
  diagnostics.encoderPendingFrames = metrics->encoderPendingFrames;
  diagnostics.serverPendingFrames = metrics->serverPendingFrames;
  diagnostics.networkDroppedFrames = metrics->networkDroppedFrames;
  diagnostics.audioChannels = channelCount(captureAudioMode_);
  server_->updateHostDiagnostics(diagnostics);
}

void StreamCoordinator::refreshCursorSync() {
  cursorSyncTask_.cancel();
  cursorSyncTask_.reset();
  lastPublishedCursorState_.reset();
  const auto& source = selectedSource.get();
  const bool isDisplay = source && source->kind == CaptureSourceDescriptor::Kind::display;
  const bool isShown = isCapturing && isViewerConnected() && isDisplay;
  publishCursor(isShown, true);
  if (isShown) cursorSyncTask_ = startTask(mainQueue_, runCursorSync(weak_from_this()));
}

Task<void> StreamCoordinator::runCursorSync(std::weak_ptr<StreamCoordinator> weak) {
  for (;;) {
    co_await sleepFor(kCursorPeriod);
    const auto self = weak.lock();
    if (!self || !self->isCapturing || !self->isViewerConnected()) co_return;
    self->publishCursor(true, false);
  }
}

void StreamCoordinator::publishCursor(bool visible, bool force) {
  RemoteCursorState state;
  if (visible) state = remoteControlService_->cursorState();
  if (!force && lastPublishedCursorState_ == state) return;
  lastPublishedCursorState_ = state;
  server_->updateRemoteCursorState(state);
}

}  // namespace kestrune
