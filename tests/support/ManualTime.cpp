#include "support/ManualTime.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <optional>
#include <utility>

namespace kestrune {

class ManualTime::Queue final : public SerialQueue, public std::enable_shared_from_this<Queue> {
 public:
  Queue(std::weak_ptr<ManualTime> time, std::string name) : time_(std::move(time)), name_(std::move(name)) {}

  void post(Work work) override {
    const auto time = time_.lock();
    if (!time) return;
    std::lock_guard guard(time->lock_);
    time->schedule_.add(asCurrent(std::move(work)));
  }

  DelayedWork postAfter(Duration delay, Work work) override {
    const auto time = time_.lock();
    if (!time) return {};
    std::lock_guard guard(time->lock_);
    return time->schedule_.add(time->now_, delay, asCurrent(std::move(work)));
  }

  bool isCurrent() const override {
    auto time = time_.lock();
    if (!time) return true;
    std::lock_guard guard(time->lock_);
    return !time->inRun_ || time->running_ == this;
  }

  const std::string& name() const override { return name_; }

 private:
  /// `work` while this queue, kept alive, is the one that runs.
  Work asCurrent(Work work) {
    return [self = shared_from_this(), work = std::move(work)] {
      if (const auto time = self->time_.lock()) {
        std::lock_guard guard(time->lock_);
        time->running_ = self.get();
      }
      work();
    };
  }

  const std::weak_ptr<ManualTime> time_;
  const std::string name_;
};

std::shared_ptr<SerialQueue> ManualTime::makeQueue(std::string name) {
  return std::make_shared<Queue>(weak_from_this(), std::move(name));
}

void ManualTime::runUntilEmpty() {
  for (int count = 0;; ++count) {
    std::optional<WorkSchedule::Piece> piece;
    {
      std::lock_guard guard(lock_);
      schedule_.collectDue(now_);
      piece = schedule_.take();
      if (!piece) return;
      inRun_ = true;
    }
    if (count == 1'000'000) {
      std::fputs("ManualTime: work keeps posting itself without a delay\n", stderr);
      std::abort();
    }
    piece->run();
    piece.reset();
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
    const auto due = schedule_.nextDue();
    if (!due || *due > end) {
      now_ = end;
      return;
    }
    now_ = std::max(now_, *due);
  }
}

void ManualTime::discardAll() {
  WorkSchedule dropped;
  std::lock_guard guard(lock_);
  std::swap(dropped, schedule_);
}

std::size_t ManualTime::pendingDelayedWork() const {
  std::lock_guard guard(lock_);
  return schedule_.pendingDelayedWork();
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
