#include "coordination/ViewerPresence.h"

#include <chrono>
#include <utility>

#include "runtime/Log.h"

namespace kestrune {
namespace {
constexpr Logger kLog("App");
constexpr std::chrono::seconds kEncodingDisableDelay{5};
constexpr std::chrono::seconds kViewerDisconnectGracePeriod{60};
}  // namespace

ViewerPresence::ViewerPresence(std::shared_ptr<SerialQueue> mainQueue, Joints joints)
    : mainQueue_(std::move(mainQueue)), joints_(std::move(joints)) {}

void ViewerPresence::handleViewerChange(ViewerRouteKind route, bool connected, bool wasPlaying) {
  if (joints_.isTearingDown()) return;
  const bool hadViewer = isConnected_;
  (route == ViewerRouteKind::local ? localViewerConnected_ : hostedRelayConnected_) = connected;
  const bool isPresent = localViewerConnected_ || hostedRelayConnected_;
  isConnected_ = isPresent;
  joints_.onRouteChanged(
      {.route = route, .connected = connected, .wasPlaying = wasPlaying, .hadViewer = hadViewer});
  cancelTimers();
  joints_.onChanged(isPresent);
  if (isPresent || !joints_.isCapturing()) return;
  scheduleViewerDisconnectStop();
  encodingDisableTask_.hold(startTask(mainQueue_, disableEncodingLater(weak_from_this())));
}

bool ViewerPresence::isUnattended() const {
  return joints_.isArmed() && joints_.isCapturing() && !isConnected_;
}

void ViewerPresence::scheduleViewerDisconnectStop() {
  viewerDisconnectStopTask_.cancelAndForget();
  if (!isUnattended()) return;
  viewerDisconnectStopTask_.hold(startTask(mainQueue_, stopCaptureLater(weak_from_this())));
}

void ViewerPresence::cancelTimers() {
  viewerDisconnectStopTask_.cancelAndForget();
  encodingDisableTask_.cancelAndForget();
}

void ViewerPresence::forget() {
  cancelTimers();
  localViewerConnected_ = hostedRelayConnected_ = false;
  isConnected_ = false;
}

Task<void> ViewerPresence::disableEncodingLater(std::weak_ptr<ViewerPresence> weak) {
  co_await sleepFor(kEncodingDisableDelay);
  const auto self = weak.lock();
  if (self && !self->isConnected_) self->joints_.onEncodingUnneeded();
}

Task<void> ViewerPresence::stopCaptureLater(std::weak_ptr<ViewerPresence> weak) {
  co_await sleepFor(kViewerDisconnectGracePeriod);
  const auto self = weak.lock();
  if (!self || !self->isUnattended() || self->joints_.isBusy() || self->joints_.isTearingDown()) co_return;
  kLog.info("Stopping unattended capture after the viewer disconnect grace period");
  self->joints_.onUnattended();
}

}  // namespace kestrune
