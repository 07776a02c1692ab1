#include "coordination/CaptureControl.h"

#include <exception>
#include <utility>

#include "model/KestruneError.h"
#include "platform/Bundle.h"
#include "runtime/Log.h"

namespace kestrune {
namespace {
constexpr Logger kLog("Capture");
}

CaptureControl::CaptureControl(FlowStarter startFlow, std::shared_ptr<ScreenCaptureService> service,
                               Joints joints)
    : startFlow_(std::move(startFlow)), service_(std::move(service)), joints_(std::move(joints)) {}

Task<void> CaptureControl::startCapture() {
  if (!joints_.requirePermissions()) {
    throw KestruneError::operationFailed(
        localized("Screen Recording and Accessibility are required before streaming can start."));
  }
  joints_.onStarting();
  Task<void> start = joints_.startStream();
  co_await start;
  isCapturing_ = true;
  joints_.onStarted();
  co_await checkCancellation();
}

Task<void> CaptureControl::stopCapture() {
  if (!captureStopTask_.isRunning() && service_->isRunning()) captureStopTask_.hold(startFlow_(runStop()));
  ++stopsUnderWay_;
  co_await captureStopTask_.join();
  --stopsUnderWay_;
  isCapturing_ = false;
  joints_.onStopped();
}

Task<void> CaptureControl::runStop() {
  try {
    co_await service_->stop();
  } catch (...) {
    kLog.error("Capture shutdown failed: " + localizedDescription(std::current_exception()));
  }
}

void CaptureControl::streamEnded() {
  isCapturing_ = false;
  setVideoEncodingEnabled(false);
  joints_.onStopped();
}

}  // namespace kestrune
