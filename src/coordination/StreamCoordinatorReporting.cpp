#include <chrono>
#include <utility>

#include "access/TokenStore.h"
#include "coordination/StreamCoordinator.h"
#include "model/KestruneError.h"
#include "platform/support/Url.h"
#include "runtime/Log.h"
#include "server/StreamingServer.h"

namespace kestrune {
namespace {
constexpr Logger kLog("App");
/// Without a picture for this long, a failure of the encoder is more than that of a frame or two.
constexpr std::chrono::seconds kEncodingPatience{1};
}  // namespace

void StreamCoordinator::setPhase(StreamPhase next) {
  if (!isTransitionAllowed(phase->value, next.value)) {
    kLog.error("Rejected invalid stream state transition from " + phase->title() + " to " + next.title());
    return;
  }
  phase = std::move(next);
}

StreamPhase StreamCoordinator::restingPhase() const {
  return selectedSource->has_value() ? StreamPhase::Case::sourceSelected : StreamPhase::Case::idle;
}

void StreamCoordinator::reportError(const std::exception_ptr& failure, bool setFailed) {
  const std::string message = localizedDescription(failure);
  recordError(message);
  if (setFailed) setPhase(StreamPhase::failed(message));
  kLog.error(message);
}

void StreamCoordinator::recordError(const std::optional<std::string>& message) {
  lastError = message;
  metrics.update([&](StreamMetrics& record) { record.lastError = message; });
}

void StreamCoordinator::clearErrors() {
  recordError(std::nullopt);
}

void StreamCoordinator::setRouteState(RemoteStreamState state, std::optional<std::string> message) {
  encodingFailure_.reset();
  server_->updateRemoteStreamState(state, std::move(message));
}

void StreamCoordinator::publishRemoteError(const std::string& message, bool record) {
  setRouteState(RemoteStreamState::error, message);
  if (record) recordError(message);
}

/// The stream survives it. A viewer is told when no picture comes at all, since it would wait for one for
/// ever.
void StreamCoordinator::handleCaptureError(const std::exception_ptr& failure) {
  const std::string message = localizedDescription(failure);
  recordError(message);
  captureFailureLog_.failed(message);
  if (!captureService_->isEncodingFailing()) return;
  const Duration now = dependencies_.clock->continuousNow();
  if (!encodingFailure_) encodingFailure_ = EncodingFailure{now, std::nullopt};
  if (!isCapturing || !isViewerConnected() || now - encodingFailure_->since < kEncodingPatience) return;
  if (encodingFailure_->told == message) return;
  const EncodingFailure told{encodingFailure_->since, message};
  publishRemoteError(
      localized("The Mac could not encode the picture. Check the video encoder setting.") + " " + message,
      false);
  encodingFailure_ = told;
}

void StreamCoordinator::handleVideoPacket(EncodedVideoPacket packet) {
  captureFailureLog_.succeeded();
  const auto failure = std::exchange(encodingFailure_, std::nullopt);
  if (failure && failure->told && isCapturing)
    setRouteState(RemoteStreamState::streaming);  // before its picture
  server_->broadcastVideo(std::move(packet));
}

void StreamCoordinator::refreshViewerURLs() {
  std::string token;
  try {
    token = tokenStore_->token();
  } catch (...) {
    localViewerURL = "Unavailable";
    reportError(std::current_exception(), false);
    return;
  }
  const std::string& plain = server_->localURL();
  localViewerURL = urlWithFragment(plain, token).value_or(plain);
}

bool StreamCoordinator::requirePermissions() {
  screenCapturePermissionGranted = dependencies_.permissions->isScreenCaptureAllowed();
  remoteControlPermissionGranted = dependencies_.permissions->isTrustedForInput();
  if (screenCapturePermissionGranted && remoteControlPermissionGranted) return true;
  reportError(std::make_exception_ptr(KestruneError::operationFailed(localized(
                  "Screen Recording and Accessibility are required before Tesla Access can start."))),
              false);
  return false;
}

}  // namespace kestrune
