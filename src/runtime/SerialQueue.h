#pragma once

#include <atomic>
#include <memory>
#include <string>

#include "runtime/Clock.h"
#include "runtime/MoveOnlyFunction.h"

namespace kestrune {

/// A handle to work that was scheduled for later. Copies name the same work. Dropping every handle does not
/// cancel the work. All operations may be called from any thread.
class DelayedWork {
 public:
  /// Shared with the queue. Whoever claims the state first owns the work: cancel() or the queue's end, which
  /// destroy it, or the queue when it starts it.
  class State {
   public:
    explicit State(MoveOnlyFunction<void()> work) : work_(std::move(work)) {}

    bool isWaiting() const { return waiting_.load(); }
    /// Destroys the work unless it was claimed before; returns whether this call did.
    bool drop() {
      if (!waiting_.exchange(false)) return false;
      work_ = nullptr;
      return true;
    }
    /// Runs the work unless it was claimed before.
    void run() {
      if (!waiting_.exchange(false)) return;
      work_();
      work_ = nullptr;
    }

   private:
    std::atomic<bool> waiting_{true};
    MoveOnlyFunction<void()> work_;
  };

  DelayedWork() = default;
  explicit DelayedWork(std::shared_ptr<State> state) : state_(std::move(state)) {}

  /// Prevents the work from starting if it has not, and destroys it on the calling thread; returns whether it
  /// was prevented by this call.
  bool cancel() const { return state_ && state_->drop(); }
  /// Neither started nor cancelled, and its queue exists.
  bool isPending() const { return state_ && state_->isWaiting(); }

 private:
  std::shared_ptr<State> state_;
};

/// Runs work one piece at a time, first in first out. State that belongs to a queue is touched by its work
/// only.
///
/// Delayed work joins the line when its time has come; pieces due at the same instant run in the order in
/// which they were scheduled. Work that throws ends the process: a piece of work handles its own errors. post
/// and postAfter may be called from any thread, the queue's own included. Work that is still waiting when the
/// queue ends is destroyed without having run.
class SerialQueue {
 public:
  using Work = MoveOnlyFunction<void()>;

  virtual ~SerialQueue() = default;

  virtual void post(Work work) = 0;
  /// A delay of zero or less is due at once: behind what is already waiting, before what is posted later.
  virtual DelayedWork postAfter(Duration delay, Work work) = 0;
  /// True while the calling thread runs a piece of this queue's work.
  virtual bool isCurrent() const = 0;
  virtual const std::string& name() const = 0;
};

}  // namespace kestrune
