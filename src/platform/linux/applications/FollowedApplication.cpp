#include "platform/linux/applications/FollowedApplication.h"

#include <signal.h>
#include <sys/wait.h>

#include <utility>

#include "platform/linux/applications/ProcessDescriptor.h"
#include "runtime/MonotonicTime.h"

namespace kestrune::linux_platform {
namespace {

constexpr std::chrono::milliseconds kLookAgain{20};
/// A process that the kernel does not end within a second hangs in it.
constexpr int kKillRounds = 50;
/// A script hands over to the browser soon after the start. What is left of a browser that ends later are
/// programs that it has started, such as a viewer of what was downloaded.
constexpr Duration kHandOverTime = std::chrono::seconds(10);

}  // namespace

FollowedApplication::FollowedApplication(std::shared_ptr<Reactor> reactor, WindowActions windows,
                                         UniqueDescriptor process, const ProcessStatus& status,
                                         bool isStarted)
    : reactor_(std::move(reactor)),
      windows_(std::move(windows)),
      started_(isStarted ? status.id : 0),
      identifier_(status.id),
      process_(std::move(process)),
      // One that was adopted leads a session where an earlier run of this program has started it; else the
      // session is that of a terminal or of the desktop.
      family_(status, isStarted || status.session == status.id) {}

void FollowedApplication::follow(Ended ended) {
  reactor_->post([self = shared_from_this(), ended = std::move(ended)]() mutable {
    self->ended_ = std::move(ended);
    self->handOverEnd_ = monotonicNow() + kHandOverTime;
    self->family_.look();
    self->watch();
  });
}

ProcessID FollowedApplication::processIdentifier() const {
  const std::lock_guard guard(lock_);
  return identifier_;
}

bool FollowedApplication::isTerminated() const {
  const std::lock_guard guard(lock_);
  return isTerminated_;
}

void FollowedApplication::terminate() {
  reactor_->post([self = shared_from_this()] {
    self->isTerminating_ = true;
    self->family_.look();  // once it has ended, what it had started has another parent
    if (self->process_) signalProcess(self->process_, SIGTERM);
  });
}

void FollowedApplication::forceTerminate() {
  reactor_->post([self = shared_from_this()] { self->killAll(kKillRounds); });
}

void FollowedApplication::watch() {
  watch_ = DescriptorWatch(reactor_, process_.get(), Readiness::readable, [weak = weak_from_this()] {
    if (const auto self = weak.lock()) self->onEnd();
  });
}

void FollowedApplication::onEnd() {
  watch_.cancel();
  if (started_ == identifier_) waitpid(started_, nullptr, WNOHANG);
  const auto left = family_.look();
  if (!left.empty() && monotonicNow() < handOverEnd_) {
    if (auto next = openProcess(left.front())) {
      goOnWith(std::move(next), left.front().id);
    } else {
      // It has ended since, or the system is short of descriptors.
      reactor_->postAfter(kLookAgain, [self = shared_from_this()] { self->onEnd(); });
    }
    return;
  }
  process_.reset();
  {
    const std::lock_guard guard(lock_);
    isTerminated_ = true;
  }
  if (const auto ended = std::exchange(ended_, nullptr)) ended(*this);
}

void FollowedApplication::goOnWith(UniqueDescriptor process, ProcessID identifier) {
  process_ = std::move(process);
  {
    const std::lock_guard guard(lock_);
    identifier_ = identifier;
  }
  if (isTerminating_) signalProcess(process_, SIGTERM);
  watch();
}

void FollowedApplication::killAll(int rounds) {
  // Those that were just being started are found in the next round.
  if (isTerminated() || !family_.kill() || rounds == 0) return;
  reactor_->postAfter(kLookAgain, [self = shared_from_this(), rounds] { self->killAll(rounds - 1); });
}

}  // namespace kestrune::linux_platform
