#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <optional>
#include <utility>

#include "runtime/SerialQueue.h"

namespace kestrune {

/// The waiting work of a SerialQueue in the order in which it is to run: what is ready, first in first out,
/// and behind it delayed work by due time, then by order of scheduling. Guarded by its owner's lock; what
/// leaves it is run and destroyed outside that lock.
class WorkSchedule {
 public:
  /// Work, or work that can be cancelled until it starts.
  class Piece {
   public:
    explicit Piece(SerialQueue::Work work) : work_(std::move(work)) {}
    explicit Piece(std::shared_ptr<DelayedWork::State> delayed) : delayed_(std::move(delayed)) {}
    Piece(Piece&&) = default;
    Piece& operator=(Piece&& other) noexcept {
      std::swap(work_, other.work_);
      std::swap(delayed_, other.delayed_);
      return *this;
    }
    ~Piece() {
      if (delayed_) delayed_->drop();
    }

    void run();
    bool isCancelled() const { return delayed_ && !delayed_->isWaiting(); }

   private:
    SerialQueue::Work work_;
    std::shared_ptr<DelayedWork::State> delayed_;
  };

  void add(SerialQueue::Work work) { ready_.emplace_back(std::move(work)); }
  /// Due at `now` + `delay`; at once where the delay is zero or less.
  DelayedWork add(Duration now, Duration delay, SerialQueue::Work work);
  /// Makes ready what is due.
  void collectDue(Duration now);

  /// The first that is ready, or nothing.
  std::optional<Piece> take();
  /// All that are ready.
  std::deque<Piece> takeAll() { return std::exchange(ready_, {}); }
  bool hasReady() const { return !ready_.empty(); }
  /// When the next delayed work is due, cancelled or not.
  std::optional<Duration> nextDue() const;
  bool isEmpty() const { return ready_.empty() && timers_.empty(); }
  /// Delayed work that is neither ready nor cancelled.
  std::size_t pendingDelayedWork() const;

 private:
  void pruneCancelled();

  std::deque<Piece> ready_;
  // By due time, then by order of scheduling.
  std::map<std::pair<Duration, std::uint64_t>, Piece> timers_;
  std::uint64_t nextTimer_ = 0;
  std::size_t pruneAt_ = 0;
};

}  // namespace kestrune
