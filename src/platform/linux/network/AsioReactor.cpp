#include "platform/linux/network/AsioReactor.h"

#include <sys/timerfd.h>
#include <unistd.h>

#include <algorithm>
#include <boost/asio/executor_work_guard.hpp>
#include <boost/asio/post.hpp>
#include <cerrno>
#include <system_error>

namespace kestrune::linux_platform {
namespace {

thread_local const AsioReactor* currentReactor = nullptr;

constexpr std::size_t kReadBufferBytes = 65'536;
// Below this many timers the cancelled ones are not worth a search.
constexpr std::size_t kFewestTimersToPrune = 256;

/// Delayed work that has joined the line.
class DueWork {
 public:
  explicit DueWork(std::shared_ptr<DelayedWork::State> state) : state_(std::move(state)) {}
  DueWork(DueWork&&) = default;
  DueWork& operator=(DueWork&&) = default;
  ~DueWork() {
    if (state_) state_->drop();
  }
  void operator()() { state_->run(); }

 private:
  std::shared_ptr<DelayedWork::State> state_;
};

}  // namespace

AsioReactor::AsioReactor(std::string name) : name_(std::move(name)), readBuffer_(kReadBufferBytes) {
  const int descriptor = timerfd_create(CLOCK_BOOTTIME, TFD_NONBLOCK | TFD_CLOEXEC);
  if (descriptor < 0) throw std::system_error(errno, std::generic_category(), "timerfd_create");
  timer_.assign(descriptor);
}

AsioReactor::~AsioReactor() = default;

void AsioReactor::run() {
  const AsioReactor* outer = std::exchange(currentReactor, this);
  const auto guard = boost::asio::make_work_guard(context_);
  watchTimer();
  context_.run();
  // Work that is dropped may post again while it is destroyed; that is dropped by post().
  std::deque<Work> ready;
  Timers timers;
  {
    std::lock_guard locked(lock_);
    phase_ = Phase::ended;
    ready.swap(ready_);
    timers.swap(timers_);
  }
  ready.clear();
  for (const auto& timer : timers) timer.second->drop();
  currentReactor = outer;
}

void AsioReactor::stop() {
  std::lock_guard locked(lock_);
  if (phase_ != Phase::open) return;
  phase_ = Phase::stopping;
  wakeLocked();
}

void AsioReactor::post(Work work) {
  std::lock_guard locked(lock_);
  if (phase_ == Phase::ended) return;
  ready_.push_back(std::move(work));
  wakeLocked();
}

DelayedWork AsioReactor::postAfter(Duration delay, Work work) {
  auto state = std::make_shared<DelayedWork::State>(std::move(work));
  DelayedWork handle(state);
  if (delay <= Duration::zero()) {
    post(DueWork(std::move(state)));
    return handle;
  }
  std::unique_lock locked(lock_);
  if (phase_ == Phase::ended) {
    locked.unlock();
    state->drop();
    return handle;
  }
  pruneLocked();
  const Duration due = systemClock()->continuousNow() + delay;
  const auto added = timers_.emplace(std::pair(due, nextTimer_++), std::move(state)).first;
  if (added == timers_.begin()) armLocked();
  return handle;
}

bool AsioReactor::isCurrent() const {
  return currentReactor == this;
}

// Cancelled timers go when their time has come; where they are many, they go before the map grows further.
void AsioReactor::pruneLocked() {
  if (timers_.size() < std::max(pruneAt_, kFewestTimersToPrune)) return;
  std::erase_if(timers_, [](const auto& timer) { return !timer.second->isWaiting(); });
  pruneAt_ = timers_.size() * 2;
}

void AsioReactor::wakeLocked() {
  if (std::exchange(isWoken_, true)) return;
  boost::asio::post(context_, [this] { runReady(); });
}

void AsioReactor::armLocked() {
  if (timers_.empty()) return;
  // An all-zero time would disarm the timer.
  const auto due = std::max<std::int64_t>(timers_.begin()->first.first.count(), 1);
  itimerspec when{};
  when.it_value.tv_sec = due / 1'000'000'000;
  when.it_value.tv_nsec = due % 1'000'000'000;
  timerfd_settime(timer_.native_handle(), TFD_TIMER_ABSTIME, &when, nullptr);
}

/// Runs what is in the line now; what it posts waits for the next turn, so that sockets get theirs.
void AsioReactor::runReady() {
  std::deque<Work> batch;
  {
    std::lock_guard locked(lock_);
    isWoken_ = false;
    batch.swap(ready_);
  }
  while (!batch.empty()) {
    const Work work = std::move(batch.front());
    batch.pop_front();
    work();
  }
  std::lock_guard locked(lock_);
  if (phase_ == Phase::stopping && ready_.empty()) context_.stop();
}

void AsioReactor::watchTimer() {
  timer_.async_wait(boost::asio::posix::stream_descriptor::wait_read,
                    [this](const boost::system::error_code& error) {
                      if (error) return;
                      onTimer();
                      watchTimer();
                    });
}

void AsioReactor::onTimer() {
  std::uint64_t expirations = 0;
  [[maybe_unused]] const auto taken = ::read(timer_.native_handle(), &expirations, sizeof expirations);
  std::lock_guard locked(lock_);
  const Duration now = systemClock()->continuousNow();
  while (!timers_.empty() && timers_.begin()->first.first <= now) {
    ready_.emplace_back(DueWork(std::move(timers_.begin()->second)));
    timers_.erase(timers_.begin());
  }
  if (!ready_.empty()) wakeLocked();
  armLocked();
}

}  // namespace kestrune::linux_platform
