#include "coordination/StreamCoordinator.h"
#include "runtime/Log.h"
#include "server/StreamingServer.h"

namespace kestrune {
namespace {
constexpr Logger kLog("App");
}

Task<void> StreamCoordinator::selectDefaultDisplayIfNeeded() {
  if (didSelectDefaultDisplay_ || selectedSource->has_value() || !canChangeSource()) co_return;
  didSelectDefaultDisplay_ = true;
  if (!dependencies_.permissions->isScreenCaptureAllowed()) {
    kLog.info("Skipped automatic display selection because screen capture access is unavailable");
    co_return;
  }
  const DisplayID display = dependencies_.displays->mainDisplay().value_or(0);
  const std::optional<std::string> title = "Main Display";
  try {
    co_await captureService_->selectDisplay(display, title, false, false);
    kLog.notice("Main display selected automatically");
  } catch (...) {
    reportError(std::current_exception(), false);
  }
}

Task<void> StreamCoordinator::runStartup(Task<void> body) {
  isRemoteStartBusy = true;
  startupTask_ = startFlow(std::move(body));
  co_await awaitAndClear(startupTask_);
  if (!startupTask_) isRemoteStartBusy = false;  // else the next start has begun already
}

Task<void> StreamCoordinator::startServing() {
  if (!startupTask_.isFinished() || ownsActiveResources_ || !teardownTask_.isFinished()) co_return;
  Task<void> body = armingBody();
  co_await runStartup(std::move(body));
}

Task<void> StreamCoordinator::startServer() {
  const auto start = [server = server_](const Completion<Unit>& done) {
    server->start([done](const std::exception_ptr& failure) {
      if (failure) {
        done.fail(failure);
      } else {
        done(Unit{});
      }
    });
  };
  co_await awaitCallback<Unit>(start);
}

Task<void> StreamCoordinator::armingBody() {
  std::exception_ptr failure;
  try {
    // Without a source there is no way to `starting`; the server comes up all the same, to tell a viewer why.
    const bool hasSource = selectedSource->has_value();
    if (hasSource) setPhase(StreamPhase::Case::starting);
    clearErrors();
    setRouteState(RemoteStreamState::starting);
    kLog.info("Starting Kestrune");
    co_await checkCancellation();
    co_await startServer();
    ownsActiveResources_ = true;
    updateSleepAssertion();
    startMetricsTask();
    co_await checkCancellation();
    isRemoteStartArmed = true;
    refreshViewerURLs();
    setRouteState(RemoteStreamState::armed);
    if (hasSource) setPhase(StreamPhase::Case::remoteReady);
    kLog.notice("Remote Start is armed; screen capture remains off");
    co_return;
  } catch (...) {
    failure = std::current_exception();
  }
  const bool isCancelled = co_await isTaskCancelled();
  const std::string message = localizedDescription(failure);
  co_await teardown();
  if (isCancelled || isCancellation(failure)) {
    clearErrors();
    setPhase(restingPhase());
    co_return;
  }
  setPhase(StreamPhase::failed(message));
  recordError(message);
  kLog.error("Stream startup failed: " + message);
}

Task<void> StreamCoordinator::handleStreamStartRequest() {
  if (!requirePermissions()) {
    publishRemoteError(
        localized(
            "Screen Recording and Accessibility must be allowed on the Mac before streaming can start."),
        true);
    co_return;
  }
  if (isCapturing) {
    setRouteState(RemoteStreamState::streaming);
    co_return;
  }
  if (!teardownTask_.isFinished()) co_return;
  if (!startupTask_.isFinished()) {
    setRouteState(RemoteStreamState::starting);
    co_return;
  }
  Task<void> body = captureBody();
  co_await runStartup(std::move(body));
}

Task<void> StreamCoordinator::captureBody() {
  if (!isRemoteStartArmed) co_return;
  const bool hasSource = selectedSource->has_value();
  if (hasSource) setPhase(StreamPhase::Case::starting);
  clearErrors();
  setRouteState(RemoteStreamState::starting);
  kLog.info("Starting screen capture from Remote Start standby");
  std::exception_ptr failure;
  try {
    co_await startCapture();
  } catch (...) {
    failure = std::current_exception();
  }
  if (!failure) {
    setRouteState(RemoteStreamState::streaming);
    setPhase(isViewerConnected() ? StreamPhase::Case::streaming : StreamPhase::Case::remoteReady);
    kLog.notice("Screen capture started from Remote Start standby");
    co_return;
  }
  const bool isCancelled = co_await isTaskCancelled();
  co_await stopCapture();
  if (isCancelled || isCancellation(failure)) co_return;  // whoever cancelled it says what comes next
  const std::string message = localizedDescription(failure);
  recordError(message);
  if (hasSource) setPhase(StreamPhase::Case::remoteReady);
  publishRemoteError(
      localized("The Mac could not start screen capture. Check Screen Recording permission and "
                "reselect the display."),
      true);
  kLog.error("Remote screen capture failed: " + message);
}

}  // namespace kestrune
