#include "coordination/EncodingWatch.h"

#include <chrono>
#include <utility>

#include "platform/Bundle.h"
#include "runtime/Error.h"
#include "runtime/Log.h"

namespace kestrune {
namespace {
/// A failing encoder is reported after this long without a packet.
constexpr std::chrono::seconds kPatience{1};
}  // namespace

EncodingWatch::EncodingWatch(std::shared_ptr<SerialQueue> mainQueue, std::shared_ptr<const Clock> clock,
                             std::shared_ptr<ViewerRoutes> routes, ErrorReport& errors, Joints joints)
    : mainQueue_(std::move(mainQueue)),
      clock_(std::move(clock)),
      routes_(std::move(routes)),
      errors_(errors),
      joints_(std::move(joints)),
      failureLog_(Logger("App"), clock_) {}

void EncodingWatch::handleCaptureError(const std::exception_ptr& failure) {
  const std::string message = localizedDescription(failure);
  errors_.record(message);
  failureLog_.failed(message);
  if (!joints_.isEncodingFailing()) return;
  const Duration now = clock_->continuousNow();
  if (!failure_ || failure_->stateGeneration != routes_->stateGeneration()) {
    failure_ = Failure{routes_->stateGeneration(), now, std::nullopt};
  }
  hasFailure_ = true;
  if (!joints_.isCapturing() || !joints_.isViewerConnected() || now - failure_->since < kPatience) return;
  if (failure_->told == message) return;
  routes_->setState(
      RemoteStreamState::error,
      localized("The Mac could not encode the picture. Check the video encoder setting.") + " " + message);
  failure_->told = message;
  failure_->stateGeneration = routes_->stateGeneration();
}

void EncodingWatch::notePacket() {
  failureLog_.succeeded();
  if (!hasFailure_ || !hasFailure_.exchange(false)) return;
  mainQueue_->post([weak = weak_from_this()] {
    if (const auto self = weak.lock()) self->handleRecovery();
  });
}

void EncodingWatch::handleRecovery() {
  const auto failure = std::exchange(failure_, std::nullopt);
  if (!failure || !failure->told || failure->stateGeneration != routes_->stateGeneration()) return;
  if (joints_.isCapturing()) routes_->setState(RemoteStreamState::streaming);
}

}  // namespace kestrune
