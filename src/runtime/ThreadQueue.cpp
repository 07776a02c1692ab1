#include "runtime/ThreadQueue.h"

#include <pthread.h>

#include <algorithm>

namespace kestrune {
namespace {

thread_local const RunLoopQueue* currentLoop = nullptr;

// The condition variable waits on a clock that stands still while the machine sleeps. A short cap on the wait
// keeps delays true to the continuous clock after a wake, at one wake-up a second while a timer is pending.
constexpr Duration kLongestTimerWait = std::chrono::seconds(1);

// Below this many timers the cancelled ones are not worth a search.
constexpr std::size_t kFewestTimersToPrune = 256;

}  // namespace

RunLoopQueue::RunLoopQueue(std::string name, std::shared_ptr<const Clock> clock)
    : name_(std::move(name)), clock_(std::move(clock)) {}

RunLoopQueue::~RunLoopQueue() {
  // Dropped work may post again while it is destroyed; that is dropped as well.
  for (;;) {
    decltype(ready_) ready;
    decltype(timers_) timers;
    {
      std::lock_guard guard(lock_);
      ready.swap(ready_);
      timers.swap(timers_);
    }
    if (ready.empty() && timers.empty()) break;
    for (const auto& piece : ready) {
      if (piece.delayed) piece.delayed->drop();
    }
    for (const auto& timer : timers) timer.second->drop();
  }
}

void RunLoopQueue::collectDueTimers() {
  const Duration now = clock_->continuousNow();
  while (!timers_.empty() && timers_.begin()->first.first <= now) {
    ready_.push_back({nullptr, std::move(timers_.begin()->second)});
    timers_.erase(timers_.begin());
  }
}

// Cancelled timers go when their time has come; where they are many, they go before the map grows further.
void RunLoopQueue::pruneTimers() {
  if (timers_.size() < std::max(pruneAt_, kFewestTimersToPrune)) return;
  std::erase_if(timers_, [](const auto& timer) { return !timer.second->isWaiting(); });
  pruneAt_ = timers_.size() * 2;
}

void RunLoopQueue::run() noexcept {
  const RunLoopQueue* outer = std::exchange(currentLoop, this);
  std::unique_lock guard(lock_);
  for (;;) {
    collectDueTimers();
    if (!ready_.empty()) {
      Piece piece = std::move(ready_.front());
      ready_.pop_front();
      guard.unlock();
      if (piece.delayed) {
        piece.delayed->run();
      } else {
        piece.work();
      }
      piece = {};  // its captures die outside the lock
      guard.lock();
      continue;
    }
    if (stopping_) break;
    if (timers_.empty()) {
      changed_.wait(guard);
    } else {
      const Duration left = timers_.begin()->first.first - clock_->continuousNow();
      changed_.wait_for(guard, std::clamp(left, Duration::zero(), kLongestTimerWait));
    }
  }
  stopping_ = false;
  currentLoop = outer;
}

void RunLoopQueue::stop() {
  std::lock_guard guard(lock_);
  stopping_ = true;
  changed_.notify_all();
}

void RunLoopQueue::post(Work work) {
  std::lock_guard guard(lock_);
  ready_.push_back({std::move(work), nullptr});
  changed_.notify_one();
}

DelayedWork RunLoopQueue::postAfter(Duration delay, Work work) {
  auto state = std::make_shared<DelayedWork::State>(std::move(work));
  std::lock_guard guard(lock_);
  if (delay <= Duration::zero()) {
    ready_.push_back({nullptr, state});
  } else {
    pruneTimers();
    timers_.emplace(std::pair(clock_->continuousNow() + delay, nextTimer_++), state);
  }
  changed_.notify_one();
  return DelayedWork(std::move(state));
}

bool RunLoopQueue::isCurrent() const {
  return currentLoop == this;
}

ThreadQueue::ThreadQueue(std::string name, std::shared_ptr<const Clock> clock)
    : loop_(std::make_shared<RunLoopQueue>(std::move(name), std::move(clock))), thread_([loop = loop_] {
        const auto& full = loop->name();
        const auto dot = full.find_last_of('.');
        const std::string shortName = full.substr(dot == std::string::npos ? 0 : dot + 1).substr(0, 15);
        pthread_setname_np(pthread_self(), shortName.c_str());
        loop->run();
      }) {}

ThreadQueue::~ThreadQueue() {
  loop_->stop();
  if (loop_->isCurrent()) {
    thread_.detach();
  } else {
    thread_.join();
  }
}

}  // namespace kestrune
