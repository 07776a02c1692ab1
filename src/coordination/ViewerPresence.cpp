#include "coordination/ViewerPresence.h"

#include <chrono>
#include <utility>

namespace kestrune {
namespace {
constexpr std::chrono::seconds kEncodingDisableDelay{5};
}  // namespace

ViewerPresence::ViewerPresence(std::shared_ptr<SerialQueue> mainQueue, Joints joints)
    : mainQueue_(std::move(mainQueue)), joints_(std::move(joints)) {}

void ViewerPresence::handleLocalViewerChange(bool connected) {
  if (joints_.isTearingDown()) return;
  isConnected_ = connected;
  if (connected) joints_.onArrived();
  cancelEncodingDisable();
  joints_.onChanged(connected);
  if (!connected && joints_.isCapturing()) {
    encodingDisableTask_.hold(startTask(mainQueue_, disableEncodingLater(weak_from_this())));
  }
}

void ViewerPresence::forget() {
  cancelEncodingDisable();
  isConnected_ = false;
}

Task<void> ViewerPresence::disableEncodingLater(std::weak_ptr<ViewerPresence> weak) {
  co_await sleepFor(kEncodingDisableDelay);
  const auto self = weak.lock();
  if (self && !self->isConnected_) self->joints_.onEncodingUnneeded();
}

}  // namespace kestrune
