#include "coordination/ApplicationDelegate.h"

#include "coordination/StreamCoordinator.h"

namespace kestrune {

ApplicationDelegate::ApplicationDelegate(std::shared_ptr<SerialQueue> mainQueue,
                                         std::function<void()> terminate, Recovery recovery)
    : mainQueue_(std::move(mainQueue)), terminate_(std::move(terminate)), recovery_(std::move(recovery)) {}

void ApplicationDelegate::attachCoordinator(const std::shared_ptr<StreamCoordinator>& coordinator) {
  coordinator_ = coordinator;
  if (coordinator && !std::exchange(networkMonitoringStarted_, true)) watchForRecoveries();
}

void ApplicationDelegate::watchForRecoveries() {
  const auto weak = weak_from_this();
  if (recovery_.wake) {
    recovery_.wake->start(mainQueue_, [weak] {
      if (const auto self = weak.lock()) self->handleSystemWake();
    });
  }
  if (!recovery_.network) return;
  const auto handler = [queue = mainQueue_, weak](NetworkPathMonitor::Status status) {
    queue->post([weak, status] {
      if (const auto self = weak.lock()) self->handleNetworkStatus(status);
    });
  };
  recovery_.network->start(recovery_.networkQueue, handler);
}

void ApplicationDelegate::handleSystemWake() {
  if (!coordinator_.expired()) recovery_.onRecovery();
}

void ApplicationDelegate::handleNetworkStatus(NetworkPathMonitor::Status status) {
  const auto previous = std::exchange(previousNetworkStatus_, status);
  const bool isRestored = status == NetworkPathMonitor::Status::satisfied && previous &&
                          previous != NetworkPathMonitor::Status::satisfied;
  if (isRestored && !coordinator_.expired()) recovery_.onRecovery();
}

ApplicationDelegate::TerminationReply ApplicationDelegate::applicationShouldTerminate() {
  const auto coordinator = coordinator_.lock();
  if (isReadyToTerminate_ || !coordinator) return TerminationReply::terminateNow;
  if (!isFinishingTermination_) {
    isFinishingTermination_ = true;
    coordinator->clearBrowserDisplaySelection();
    startTask(mainQueue_, finishTermination(weak_from_this(), coordinator));
  }
  return TerminationReply::terminateCancel;
}

Task<void> ApplicationDelegate::finishTermination(std::weak_ptr<ApplicationDelegate> weak,
                                                  std::shared_ptr<StreamCoordinator> coordinator) {
  co_await coordinator->prepareForTermination();
  const auto self = weak.lock();
  if (!self) co_return;
  self->isReadyToTerminate_ = true;
  self->terminate_();
}

}  // namespace kestrune
