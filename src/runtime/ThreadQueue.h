#pragma once

#include <condition_variable>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <utility>

#include "runtime/SerialQueue.h"
#include "runtime/WorkSchedule.h"

namespace kestrune {

/// A queue that runs on the thread that calls run(), such as the main thread of a program without a window.
class RunLoopQueue : public SerialQueue {
 public:
  explicit RunLoopQueue(std::string name, std::shared_ptr<const Clock> clock = systemClock());
  ~RunLoopQueue() override;

  /// Runs work until stop() is called; what was posted before the stop still runs. One caller at a time.
  void run() noexcept;
  /// Ends run(), from any thread. A later run() works again.
  void stop();

  void post(Work work) override;
  DelayedWork postAfter(Duration delay, Work work) override;
  bool isCurrent() const override;
  const std::string& name() const override { return name_; }

 private:
  const std::string name_;
  const std::shared_ptr<const Clock> clock_;
  std::mutex lock_;  // guards everything below
  std::condition_variable changed_;
  WorkSchedule schedule_;
  bool stopping_ = false;
};

/// A queue with a thread of its own, named as the queue (cut to the 15 characters that the system keeps).
/// Destruction runs what was posted before it, drops delayed work and joins; on its own thread it detaches
/// instead, and the thread ends by itself.
class ThreadQueue final : public SerialQueue {
 public:
  explicit ThreadQueue(std::string name, std::shared_ptr<const Clock> clock = systemClock());
  ~ThreadQueue() override;

  void post(Work work) override { loop_->post(std::move(work)); }
  DelayedWork postAfter(Duration delay, Work work) override {
    return loop_->postAfter(delay, std::move(work));
  }
  bool isCurrent() const override { return loop_->isCurrent(); }
  const std::string& name() const override { return loop_->name(); }

 private:
  std::shared_ptr<RunLoopQueue> loop_;
  std::thread thread_;
};

}  // namespace kestrune
