#include "runtime/ThreadQueue.h"

#include <algorithm>
#include <utility>

#include "runtime/ThreadName.h"

namespace kestrune {
namespace {

thread_local const RunLoopQueue* currentLoop = nullptr;

// The condition variable waits on a clock that stands still while the machine sleeps. A short cap on the wait
// keeps delays true to the continuous clock after a wake, at one wake-up a second while a timer is pending.
constexpr Duration kLongestTimerWait = std::chrono::seconds(1);

}  // namespace

RunLoopQueue::RunLoopQueue(std::string name, std::shared_ptr<const Clock> clock)
    : name_(std::move(name)), clock_(std::move(clock)) {}

RunLoopQueue::~RunLoopQueue() {
  // Dropped work may post again while it is destroyed; that is dropped as well.
  for (;;) {
    WorkSchedule dropped;
    const std::lock_guard guard(lock_);
    if (schedule_.isEmpty()) break;
    std::swap(dropped, schedule_);
  }
}

void RunLoopQueue::run() noexcept {
  const RunLoopQueue* outer = std::exchange(currentLoop, this);
  std::unique_lock guard(lock_);
  for (;;) {
    schedule_.collectDue(clock_->continuousNow());
    if (auto piece = schedule_.take()) {
      guard.unlock();
      piece->run();
      piece.reset();  // its captures die outside the lock
      guard.lock();
      continue;
    }
    if (stopping_) break;
    if (const auto due = schedule_.nextDue()) {
      const Duration left = *due - clock_->continuousNow();
      changed_.wait_for(guard, std::clamp(left, Duration::zero(), kLongestTimerWait));
    } else {
      changed_.wait(guard);
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
  schedule_.add(std::move(work));
  changed_.notify_one();
}

DelayedWork RunLoopQueue::postAfter(Duration delay, Work work) {
  std::lock_guard guard(lock_);
  auto handle = schedule_.add(clock_->continuousNow(), delay, std::move(work));
  changed_.notify_one();
  return handle;
}

bool RunLoopQueue::isCurrent() const {
  return currentLoop == this;
}

ThreadQueue::ThreadQueue(std::string name, std::shared_ptr<const Clock> clock)
    : loop_(std::make_shared<RunLoopQueue>(std::move(name), std::move(clock))), thread_([loop = loop_] {
        nameThread(loop->name());
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
