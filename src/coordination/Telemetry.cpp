#include "coordination/Telemetry.h"

#include <chrono>

namespace kestrune {
namespace {
constexpr std::chrono::seconds kPeriod{1};
}  // namespace

Telemetry::Telemetry(std::shared_ptr<SerialQueue> mainQueue, std::shared_ptr<const ViewerRoutes> routes,
                     ReadCounters readCounters, std::function<StreamFacts()> facts)
    : mainQueue_(std::move(mainQueue)),
      routes_(std::move(routes)),
      readCounters_(std::move(readCounters)),
      facts_(std::move(facts)) {}

void Telemetry::startMetricsTask() {
  task_.cancelAndForget();
  task_.hold(startTask(mainQueue_, run(weak_from_this())));
}

void Telemetry::stop() {
  task_.cancelAndForget();
}

Task<void> Telemetry::run(std::weak_ptr<Telemetry> weak) {
  for (;;) {
    {
      const auto self = weak.lock();
      if (!self) co_return;
      const auto read = self->readCounters_;
      const auto counters = co_await awaitCallback<RouteCounters>(read);
      co_await checkCancellation();
      self->metrics_.update([&](StreamMetrics& record) {
        record.bytesSent = counters.bytesSent;
        record.serverPendingFrames = counters.pendingFrames;
        record.networkDroppedFrames = counters.droppedFrames;
        record.viewerCount = counters.isViewerConnected ? 1 : 0;
      });
    }
    co_await sleepFor(kPeriod);
  }
}

void Telemetry::resetCapture() {
  StreamMetrics kept;
  kept.viewerCount = metrics_->viewerCount;
  kept.bytesSent = metrics_->bytesSent;
  kept.networkDroppedFrames = metrics_->networkDroppedFrames;
  metrics_ = kept;
}

void Telemetry::setLastError(const std::optional<std::string>& message) {
  metrics_.update([&](StreamMetrics& record) { record.lastError = message; });
}

void Telemetry::setViewerPresent(bool present) {
  metrics_.update([&](StreamMetrics& record) { record.viewerCount = present ? 1 : 0; });
}

void Telemetry::applyCaptureMetrics(const StreamMetrics& record) {
  metrics_.update([&](StreamMetrics& mine) {
    mine.capturedFrames = record.capturedFrames;
    mine.encodedFrames = record.encodedFrames;
    mine.droppedFrames = record.droppedFrames;
    mine.captureFPS = record.captureFPS;
    mine.encodeFPS = record.encodeFPS;
    mine.bitRateMbps = record.bitRateMbps;
    mine.encoderPendingFrames = record.encoderPendingFrames;
    if (record.lastError) mine.lastError = record.lastError;
  });
  routes_->updateDiagnostics(diagnostics());
}

void Telemetry::takeViewerTelemetry(const ViewerTelemetry& telemetry) {
  metrics_.update([&](StreamMetrics& record) {
    record.viewerFPS = telemetry.viewerFPS;
    record.decodeMilliseconds = telemetry.decodeMilliseconds;
    record.videoBufferMilliseconds = telemetry.videoBufferMilliseconds;
    record.audioBufferMilliseconds = telemetry.audioBufferMilliseconds;
    record.audioDriftMilliseconds = telemetry.audioDriftMilliseconds;
    record.reconnects = telemetry.reconnects;
  });
}

HostDiagnostics Telemetry::diagnostics() const {
  const StreamFacts facts = facts_();
  HostDiagnostics diagnostics;
  diagnostics.captureMode =
      facts.displayMode == StreamDisplayMode::virtualDisplay ? "virtualDisplay" : "physicalDisplay";
  diagnostics.captureTargetFPS = framesPerSecond(facts.frameRate);
  diagnostics.captureFPS = metrics_->captureFPS;
  diagnostics.encodeFPS = metrics_->encodeFPS;
  diagnostics.bitRateMbps = metrics_->bitRateMbps;
  diagnostics.capturedFrames = metrics_->capturedFrames;
  diagnostics.encodedFrames = metrics_->encodedFrames;
  diagnostics.captureDroppedFrames = metrics_->droppedFrames;
  diagnostics.encoderPendingFrames = metrics_->encoderPendingFrames;
  diagnostics.serverPendingFrames = metrics_->serverPendingFrames;
  diagnostics.networkDroppedFrames = metrics_->networkDroppedFrames;
  diagnostics.audioChannels = channelCount(facts.audioMode);
  return diagnostics;
}

}  // namespace kestrune
