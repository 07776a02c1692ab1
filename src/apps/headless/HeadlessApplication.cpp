#include "HeadlessApplication.h"

#include <algorithm>
#include <cstdio>
#include <utility>

namespace kestrune {

void printLine(std::string_view label, std::string text) {
  std::replace(text.begin(), text.end(), '\n', ' ');
  std::printf("%.*s: %s\n", static_cast<int>(label.size()), label.data(), text.c_str());
  std::fflush(stdout);
}

HeadlessApplication::HeadlessApplication(std::shared_ptr<RunLoopQueue> mainQueue,
                                         std::shared_ptr<StreamCoordinator> coordinator)
    : mainQueue_(std::move(mainQueue)), coordinator_(std::move(coordinator)) {}

void HeadlessApplication::launch(bool selectsDisplay) {
  observe();
  const auto terminate = [weak = weak_from_this()] {
    if (const auto self = weak.lock()) self->requestTermination();
  };
  delegate_ = std::make_shared<ApplicationDelegate>(mainQueue_, terminate);
  delegate_->attachCoordinator(coordinator_);
  startTask(mainQueue_, run(shared_from_this(), selectsDisplay));
}

void HeadlessApplication::observe() {
  observations_.push_back(
      coordinator_->phase.observe([](const StreamPhase& phase) { printLine("Phase", phase.title()); }));
  const auto printError = [](const std::optional<std::string>& message) {
    if (message) printLine("Error", *message);
  };
  printError(coordinator_->lastError);  // the token may have failed already
  observations_.push_back(coordinator_->lastError.observe(printError));
}

Task<void> HeadlessApplication::run(std::shared_ptr<HeadlessApplication> self, bool selectsDisplay) {
  StreamCoordinator& coordinator = *self->coordinator_;
  if (selectsDisplay) co_await coordinator.selectDefaultDisplayIfNeeded();
  co_await coordinator.startServing();
  if (coordinator.isRemoteStartArmed) {
    printLine("Local viewer", coordinator.localViewerURL);
  } else if (coordinator.phase->value == StreamPhase::Case::failed) {
    self->exitCode_ = 1;
    self->requestTermination();
  }
}

void HeadlessApplication::requestTermination() {
  const auto reply = delegate_->applicationShouldTerminate();
  if (reply == ApplicationDelegate::TerminationReply::terminateNow) mainQueue_->stop();
}

}  // namespace kestrune
