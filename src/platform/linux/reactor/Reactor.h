#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>

#include "runtime/SerialQueue.h"
#include "runtime/WorkSchedule.h"

namespace boost::asio {
class io_context;
}

namespace kestrune::linux_platform {

/// A serial queue whose thread also waits for descriptors (DescriptorWatch).
///
/// Work and timers are kept here rather than in Boost.Asio's loop, so that work of all threads runs first in
/// first out, and timers by a clock that goes on while the machine sleeps (a timerfd on CLOCK_BOOTTIME).
/// Descriptors get their turn between two batches of work.
class Reactor final : public SerialQueue {
 public:
  /// Throws a std::system_error where the system gives no descriptor.
  explicit Reactor(std::string name, std::shared_ptr<const Clock> clock = systemClock());
  ~Reactor() override;

  /// Runs the loop on the calling thread until stop(). Once; work that comes later is dropped.
  void run();
  /// Ends run() after what was posted so far. Any thread.
  void stop();

  void post(Work work) override;
  DelayedWork postAfter(Duration delay, Work work) override;
  bool isCurrent() const override;
  const std::string& name() const override { return name_; }

  /// Runs `work` on the queue and waits for it; at once if the caller is there already. False if the loop has
  /// ended and the work was not run.
  bool runAndWait(const std::function<void()>& work);

  /// For adapters that use Boost.Asio themselves.
  boost::asio::io_context& context();

 private:
  class Loop;

  void takeTurn();
  void waitForTimer();
  void onTimer();
  void wakeLocked();
  void armLocked();

  const std::string name_;
  const std::shared_ptr<const Clock> clock_;
  const std::unique_ptr<Loop> loop_;

  std::mutex lock_;  // guards the next three
  WorkSchedule schedule_;
  bool isWoken_ = false;
  enum class Phase { open, stopping, ended } phase_ = Phase::open;
};

}  // namespace kestrune::linux_platform
