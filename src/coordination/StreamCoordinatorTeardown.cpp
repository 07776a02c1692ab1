#include "coordination/StreamCoordinator.h"
#include "runtime/Log.h"
#include "server/StreamingServer.h"
#include "system/SleepAssertion.h"

namespace kestrune {
namespace {
constexpr Logger kLog("App");
}

Task<void> StreamCoordinator::stop() {
  if (startupTask_) {
    startupTask_.cancel();
    co_await awaitAndClear(startupTask_);
  }
  if (isRemoteStartArmed) {
    co_await returnToStandby();
    clearErrors();
    co_return;
  }
  using Case = StreamPhase::Case;
  const Case current = phase->value;
  const bool isActive = current == Case::starting || current == Case::remoteReady ||
                        current == Case::streaming || current == Case::recovering;
  if (ownsActiveResources_ || isCapturing || isActive) {
    kLog.info("Stopping Kestrune");
    co_await teardown();
    clearErrors();
  }
  setPhase(restingPhase());
}

Task<void> StreamCoordinator::prepareForTermination() {
  if (startupTask_) {
    startupTask_.cancel();
    co_await awaitAndClear(startupTask_);
  }
  co_await teardown();
}

Task<void> StreamCoordinator::teardown() {
  if (teardownTask_.isFinished()) teardownTask_ = startFlow(runTeardown());
  co_await awaitAndClear(teardownTask_);
}

Task<void> StreamCoordinator::runTeardown() {
  isTearingDown_ = true;
  isRemoteStartArmed = false;
  ++streamSettingsGeneration_;
  pendingStreamSettings_.reset();

  for (TaskHandle* task : {&encodingDisableTask_, &metricsTask_, &cursorSyncTask_}) {
    task->cancel();
    task->reset();
  }
  publishCursor(false, true);
  localViewerConnected_ = false;
  captureService_->setVideoEncodingEnabled(false);
  co_await stopCapture();

  const auto stopServer = [server = server_](const Completion<Unit>& done) {
    server->stop([done] { done(Unit{}); });
  };
  co_await awaitCallback<Unit>(stopServer);

  sleepAssertion_->release();
  ownsActiveResources_ = false;
  refreshViewerURLs();
  metrics = StreamMetrics{};
  isTearingDown_ = false;
}

}  // namespace kestrune
