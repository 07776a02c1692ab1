#pragma once

#include <chrono>
#include <functional>
#include <memory>

#include "platform/linux/files/UniqueDescriptor.h"
#include "platform/linux/reactor/DescriptorWatch.h"
#include "runtime/SerialQueue.h"

namespace kestrune {

/// SIGINT, SIGTERM and SIGHUP as work on a queue; not SIGHUP where the program was started with it ignored.
/// block() must have been called before any other thread started, so that none of them takes the signals
/// away.
///
/// A shutdown must not hang on a service that has stopped answering, such as the X server: from the first
/// signal on this object has kLongestShutdown to live, then the process ends where it stands with status 1.
class TerminationSignals {
 public:
  static constexpr std::chrono::seconds kLongestShutdown{5};

  /// Blocks the signals in the calling thread and in those that it starts from now on.
  static void block();

  /// Calls `handler` on `queue` for each signal that comes, as `reactor` notices it; nothing on that may wait
  /// for what a shutdown could hang on. Throws a std::system_error where the system gives no descriptor.
  TerminationSignals(std::shared_ptr<linux_platform::Reactor> reactor, std::shared_ptr<SerialQueue> queue,
                     std::function<void()> handler);
  ~TerminationSignals();
  TerminationSignals(const TerminationSignals&) = delete;
  TerminationSignals& operator=(const TerminationSignals&) = delete;

 private:
  void takeSignals();

  const std::shared_ptr<linux_platform::Reactor> reactor_;
  const std::shared_ptr<SerialQueue> queue_;
  const std::function<void()> handler_;
  const linux_platform::UniqueDescriptor signals_;  // signalfd
  DelayedWork forcedExit_;                          // on the reactor's queue
  linux_platform::DescriptorWatch watch_;
};

}  // namespace kestrune
