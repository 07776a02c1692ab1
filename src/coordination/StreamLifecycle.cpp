#include "coordination/StreamLifecycle.h"

#include <utility>

#include "platform/Bundle.h"
#include "runtime/Log.h"

namespace kestrune {
namespace {
using Case = StreamPhase::Case;
constexpr Logger kLog("App");
}  // namespace

StreamLifecycle::StreamLifecycle(FlowStarter startFlow, CaptureControl& capture,
                                 std::shared_ptr<ViewerRoutes> routes, ErrorReport& errors, Joints joints)
    : startFlow_(std::move(startFlow)),
      capture_(capture),
      routes_(std::move(routes)),
      errors_(errors),
      joints_(std::move(joints)) {}

StreamPhase StreamLifecycle::restingPhase() const {
  return joints_.hasSource() ? Case::sourceSelected : Case::idle;
}

void StreamLifecycle::publishRemoteError(const std::string& message, bool record) {
  routes_->setState(RemoteStreamState::error, message);
  if (record) errors_.record(message);
}

// Start

Task<void> StreamLifecycle::runStartup(Task<void> body) {
  isRemoteStartBusy_ = true;
  startupTask_.hold(startFlow_(std::move(body)));
  co_await startupTask_.join();
  if (!startupTask_.isRunning()) isRemoteStartBusy_ = false;  // else the next start has begun already
}

Task<void> StreamLifecycle::startServing() {
  if (startupTask_.isRunning() || ownsActiveResources_ || isTearingDown_ || teardownTask_.isRunning())
    co_return;
  Task<void> body = armingBody();
  co_await runStartup(std::move(body));
}

Task<void> StreamLifecycle::armingBody() {
  std::exception_ptr failure;
  try {
    // Without a source there is no way to `starting`; the server comes up all the same, to tell a viewer why.
    const bool hasSource = joints_.hasSource();
    if (hasSource) phase_.set(Case::starting);
    errors_.clear();
    routes_->setState(RemoteStreamState::starting);
    kLog.info("Starting Kestrune");
    co_await checkCancellation();
    co_await routes_->start();
    ownsActiveResources_ = true;
    joints_.onServerStarted();
    co_await checkCancellation();
    isRemoteStartArmed_ = true;
    joints_.onArmed();
    routes_->setState(RemoteStreamState::armed);
    if (hasSource) phase_.set(Case::remoteReady);
    kLog.notice("Remote Start is armed; screen capture remains off");
    co_return;
  } catch (...) {
    failure = std::current_exception();
  }
  const bool isCancelled = co_await isTaskCancelled();
  const std::string message = localizedDescription(failure);
  co_await teardown();
  if (isCancelled || isCancellation(failure)) {
    errors_.clear();
    phase_.set(restingPhase());
    co_return;
  }
  phase_.set(StreamPhase::failed(message));
  errors_.record(message);
  kLog.error("Stream startup failed: " + message);
}

Task<void> StreamLifecycle::handleStreamStartRequest() {
  if (!joints_.requirePermissions()) {
    publishRemoteError(
        localized(
            "Screen Recording and Accessibility must be allowed on the Mac before streaming can start."),
        true);
    co_return;
  }
  if (capture_.isCapturing()) {
    routes_->setState(RemoteStreamState::streaming);
    co_return;
  }
  if (isTearingDown_ || teardownTask_.isRunning()) co_return;
  if (startupTask_.isRunning() || joints_.isPreparingSource()) {
    routes_->setState(RemoteStreamState::starting);
    co_return;
  }
  if (!isRemoteStartArmed_) co_return;
  routes_->setState(RemoteStreamState::starting);
  const int endings = endings_;
  Task<bool> preparation = joints_.prepareSource();
  const bool isPrepared = co_await preparation;
  // A stop, or another request, may have come meanwhile.
  if (!isPrepared || endings != endings_ || startupTask_.isRunning() || capture_.isCapturing()) co_return;
  Task<void> body = captureBody();
  co_await runStartup(std::move(body));
}

Task<void> StreamLifecycle::captureBody() {
  if (!isRemoteStartArmed_) co_return;
  const bool hasSource = joints_.hasSource();
  if (hasSource) phase_.set(Case::starting);
  errors_.clear();
  kLog.info("Starting screen capture from Remote Start standby");
  std::exception_ptr failure;
  try {
    co_await capture_.startCapture();
  } catch (...) {
    failure = std::current_exception();
  }
  if (!failure) {
    const bool hasViewer = joints_.isViewerConnected();
    routes_->setState(RemoteStreamState::streaming);  // ahead of the first picture
    if (hasViewer) capture_.setVideoEncodingEnabled(true);
    phase_.set(hasViewer ? Case::streaming : Case::remoteReady);
    joints_.onCaptureStarted();
    kLog.notice("Screen capture started from Remote Start standby");
    co_return;
  }
  const bool isCancelled = co_await isTaskCancelled();
  co_await capture_.stopCapture();
  if (isCancelled || isCancellation(failure)) co_return;  // the flow that cancelled it sets the next phase
  const std::string message = localizedDescription(failure);
  errors_.record(message);
  if (hasSource) phase_.set(Case::remoteReady);
  publishRemoteError(
      localized("The Mac could not start screen capture. Check Screen Recording permission and "
                "reselect the display."),
      true);
  kLog.error("Remote screen capture failed: " + message);
}

// What the other parts report

Task<void> StreamLifecycle::handleCaptureStopped(std::exception_ptr failure) {
  // The end of the program takes the private display away before it ends the stream.
  if (!ownsActiveResources_ || isTearingDown_ || isTerminating_ || capture_.isStopping()) co_return;
  startupTask_.cancel();
  const std::string message = localizedDescription(failure);
  capture_.streamEnded();
  joints_.onStreamEnding();
  if (!isRemoteStartArmed_) {
    phase_.set(Case::recovering);
    co_await teardown();
    errors_.record(message);
    phase_.set(StreamPhase::failed(message));
    co_return;
  }
  joints_.onStreamEnded();
  errors_.record(message);
  routes_->setState(
      RemoteStreamState::error,
      localized("Screen capture stopped on the Mac. Check the selected display, then try again."));
  phase_.set(Case::remoteReady);
}

void StreamLifecycle::handleSourceReported() {
  if (!ownsActiveResources_) phase_.set(restingPhase());
}

void StreamLifecycle::handleViewerChanged(bool isPresent) {
  const bool isStarting = phase_.value() == Case::starting;
  const bool hasSource = joints_.hasSource();  // without one there is no way out of `idle`
  if (isPresent && capture_.isCapturing()) {
    routes_->setState(RemoteStreamState::streaming);  // ahead of the first picture
    capture_.setVideoEncodingEnabled(true);
    phase_.set(Case::streaming);
  } else if (isPresent && isRemoteStartArmed_ && !isStarting) {
    routes_->setState(RemoteStreamState::armed);
    if (hasSource) phase_.set(Case::remoteReady);
  } else if (!isPresent && capture_.isCapturing()) {
    phase_.set(Case::recovering);
  } else if (!isPresent && ownsActiveResources_ && !isStarting && hasSource) {
    phase_.set(Case::remoteReady);
  }
}

void StreamLifecycle::handleEncodingUnneeded() {
  capture_.setVideoEncodingEnabled(false);
  if (!isRemoteStartArmed_ && ownsActiveResources_ && phase_.value() == Case::recovering) {
    phase_.set(Case::remoteReady);
  }
}

// Stop

Task<void> StreamLifecycle::endStartup() {
  if (!startupTask_.isRunning()) co_return;
  startupTask_.cancel();
  co_await startupTask_.join();
}

Task<void> StreamLifecycle::stop() {
  co_await endStartup();
  if (isRemoteStartArmed_) {
    co_await returnToStandby();
    errors_.clear();
    co_return;
  }
  const Case current = phase_.value();
  const bool isActive = current == Case::starting || current == Case::remoteReady ||
                        current == Case::streaming || current == Case::recovering;
  if (ownsActiveResources_ || capture_.isCapturing() || isActive) {
    kLog.info("Stopping Kestrune");
    co_await teardown();
    errors_.clear();
  }
  phase_.set(restingPhase());
}

Task<void> StreamLifecycle::returnToStandby() {
  ++endings_;
  const bool wasBusy = isRemoteStartBusy_;
  isRemoteStartBusy_ = true;
  joints_.onStreamEnding();
  capture_.setVideoEncodingEnabled(false);
  co_await capture_.stopCapture();
  if (isRemoteStartArmed_ && !isTearingDown_) {
    joints_.onStreamEnded();
    routes_->setState(RemoteStreamState::armed);
    phase_.set(Case::remoteReady);
  }
  if (!wasBusy) isRemoteStartBusy_ = false;
}

Task<void> StreamLifecycle::prepareForTermination() {
  isTerminating_ = true;
  joints_.onTerminating();
  co_await endStartup();
  Task<void> ending = joints_.endBrowser();
  co_await ending;
  co_await teardown();
}

Task<void> StreamLifecycle::teardown() {
  if (!teardownTask_.isRunning()) teardownTask_.hold(startFlow_(runTeardown()));
  co_await teardownTask_.join();
}

Task<void> StreamLifecycle::runTeardown() {
  isTearingDown_ = true;
  ++endings_;
  isRemoteStartArmed_ = false;
  joints_.onTeardownBegan();
  capture_.setVideoEncodingEnabled(false);
  co_await capture_.stopCapture();
  co_await routes_->stop();
  ownsActiveResources_ = false;
  isTearingDown_ = false;
  joints_.onTornDown();
}

}  // namespace kestrune
