#include "runtime/WorkSchedule.h"

#include <algorithm>

namespace kestrune {
namespace {

// Below this many timers the cancelled ones are not worth a search.
constexpr std::size_t kFewestTimersToPrune = 256;

}  // namespace

void WorkSchedule::Piece::run() {
  if (delayed_) {
    delayed_->run();
  } else {
    work_();
    work_ = nullptr;
  }
}

DelayedWork WorkSchedule::add(Duration now, Duration delay, SerialQueue::Work work) {
  auto state = std::make_shared<DelayedWork::State>(std::move(work));
  DelayedWork handle(state);
  if (delay <= Duration::zero()) {
    ready_.emplace_back(std::move(state));
  } else {
    pruneCancelled();
    timers_.emplace(std::pair(now + delay, nextTimer_++), std::move(state));
  }
  return handle;
}

void WorkSchedule::collectDue(Duration now) {
  while (!timers_.empty() && timers_.begin()->first.first <= now) {
    ready_.push_back(std::move(timers_.begin()->second));
    timers_.erase(timers_.begin());
  }
}

std::optional<WorkSchedule::Piece> WorkSchedule::take() {
  if (ready_.empty()) return std::nullopt;
  std::optional<Piece> first(std::move(ready_.front()));
  ready_.pop_front();
  return first;
}

std::optional<Duration> WorkSchedule::nextDue() const {
  if (timers_.empty()) return std::nullopt;
  return timers_.begin()->first.first;
}

std::size_t WorkSchedule::pendingDelayedWork() const {
  return static_cast<std::size_t>(std::count_if(
      timers_.begin(), timers_.end(), [](const auto& timer) { return !timer.second.isCancelled(); }));
}

// Cancelled timers go when their time has come; where they are many, they go before the map grows further.
void WorkSchedule::pruneCancelled() {
  if (timers_.size() < std::max(pruneAt_, kFewestTimersToPrune)) return;
  std::erase_if(timers_, [](const auto& timer) { return timer.second.isCancelled(); });
  pruneAt_ = timers_.size() * 2;
}

}  // namespace kestrune
