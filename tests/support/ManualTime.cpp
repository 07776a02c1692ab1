#include "support/ManualTime.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>

namespace kestrune {

class ManualTime::Queue final : public SerialQueue, public std::enable_shared_from_this<Queue> {
 public:
  Queue(std::weak_ptr<ManualTime> time, std::string name) : time_(std::move(time)), name_(std::move(name)) {}

  void post(Work work) override {
    if (auto time = time_.lock()) time->enqueue({this, shared_from_this(), std::move(work), nullptr});
  }

  DelayedWork postAfter(Duration delay, Work work) override {
    auto time = time_.lock();
    if (!time) return {};
    auto state = std::make_shared<DelayedWork::State>(std::move(work));
    time->schedule(delay, {this, shared_from_this(), nullptr, state});
    return DelayedWork(std::move(state));
  }

  bool isCurrent() const override {
    auto time = time_.lock();
    if (!time) return true;
    std::lock_guard guard(time->lock_);
    return !time->inRun_ || time->running_ == this;
  }

  const std::string& name() const override { return name_; }

 private:
  const std::weak_ptr<ManualTime> time_;
  const std::string name_;
};

std::shared_ptr<SerialQueue> ManualTime::makeQueue(std::string name) {
  return std::make_shared<Queue>(weak_from_this(), std::move(name));
}

void ManualTime::enqueue(Entry entry) {
  std::lock_guard guard(lock_);
  ready_.push_back(std::move(entry));
}

void ManualTime::schedule(Duration delay, Entry entry) {
  std::lock_guard guard(lock_);
  if (delay <= Duration::zero()) {
    ready_.push_back(std::move(entry));
  } else {
    timers_.emplace(std::pair(now_ + delay, nextTimer_++), std::move(entry));
  }
}

void ManualTime::runUntilEmpty() {
  for (int count = 0;; ++count) {
    Entry entry{};
    {
      std::lock_guard guard(lock_);
      while (!timers_.empty() && timers_.begin()->first.first <= now_) {
        ready_.push_back(std::move(timers_.begin()->second));
        timers_.erase(timers_.begin());
      }
      if (ready_.empty()) return;
      entry = std::move(ready_.front());
      ready_.pop_front();
      running_ = entry.queue;
      inRun_ = true;
    }
    if (count == 1'000'000) {
      std::fputs("ManualTime: work keeps posting itself without a delay\n", stderr);
      std::abort();
    }
    if (entry.delayed) {
      entry.delayed->run();
    } else {
      entry.work();
    }
    entry.work = nullptr;
    std::lock_guard guard(lock_);
    running_ = nullptr;
    inRun_ = false;
  }
}

void ManualTime::runReady() {
  runUntilEmpty();
}

void ManualTime::advance(Duration span) {
  Duration end;
  {
    std::lock_guard guard(lock_);
    end = now_ + span;
  }
  for (;;) {
    runUntilEmpty();
    std::lock_guard guard(lock_);
    if (timers_.empty() || timers_.begin()->first.first > end) {
      now_ = end;
      return;
    }
    now_ = std::max(now_, timers_.begin()->first.first);
  }
}

void ManualTime::discardAll() {
  decltype(ready_) ready;
  decltype(timers_) timers;
  {
    std::lock_guard guard(lock_);
    ready.swap(ready_);
    timers.swap(timers_);
  }
  for (const auto& entry : ready) {
    if (entry.delayed) entry.delayed->drop();
  }
  for (const auto& timer : timers) timer.second.delayed->drop();
}

std::size_t ManualTime::pendingDelayedWork() const {
  std::lock_guard guard(lock_);
  return static_cast<std::size_t>(std::count_if(
      timers_.begin(), timers_.end(), [](const auto& item) { return item.second.delayed->isWaiting(); }));
}

Duration ManualTime::continuousNow() const {
  std::lock_guard guard(lock_);
  return now_;
}

double ManualTime::uptimeSeconds() const {
  return std::chrono::duration<double>(continuousNow()).count();
}

std::int64_t ManualTime::wallClockMilliseconds() const {
  constexpr std::int64_t kOrigin = 1'700'000'000'000;
  return kOrigin + std::chrono::duration_cast<std::chrono::milliseconds>(continuousNow()).count();
}

}  // namespace kestrune
