#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <thread>

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

  /// Calls `handler` on `queue` for each signal that comes. Throws a std::system_error where the system gives
  /// no descriptors for it.
  TerminationSignals(std::shared_ptr<SerialQueue> queue, std::function<void()> handler);
  ~TerminationSignals();
  TerminationSignals(const TerminationSignals&) = delete;
  TerminationSignals& operator=(const TerminationSignals&) = delete;

 private:
  void wait(const std::shared_ptr<SerialQueue>& queue, const std::function<void()>& handler) const;

  const int signals_;  // signalfd
  const int end_;      // eventfd, readable when the thread is to end
  std::thread thread_;
};

}  // namespace kestrune
