#pragma once

#include <memory>
#include <string>
#include <thread>

#include "platform/linux/reactor/Reactor.h"

namespace kestrune::linux_platform {

/// The thread of a reactor, named as its queue. Destruction runs what was posted before it, drops delayed
/// work and joins; on its own thread it detaches instead. The reactor may outlive it, and drops what comes
/// then.
class ReactorThread {
 public:
  /// Throws a std::system_error where the system gives no descriptor or no thread.
  explicit ReactorThread(std::string name, std::shared_ptr<const Clock> clock = systemClock());
  ~ReactorThread();
  ReactorThread(const ReactorThread&) = delete;
  ReactorThread& operator=(const ReactorThread&) = delete;

  const std::shared_ptr<Reactor>& reactor() const { return reactor_; }

 private:
  const std::shared_ptr<Reactor> reactor_;
  std::thread thread_;
};

}  // namespace kestrune::linux_platform
