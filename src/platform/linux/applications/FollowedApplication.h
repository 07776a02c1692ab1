#pragma once

#include <functional>
#include <memory>
#include <mutex>
#include <vector>

#include "platform/Applications.h"
#include "platform/linux/applications/ProcessFamily.h"
#include "platform/linux/files/UniqueDescriptor.h"
#include "platform/linux/reactor/DescriptorWatch.h"
#include "platform/linux/reactor/Reactor.h"

namespace kestrune::linux_platform {

/// What the display server does for a process. Neither waits.
struct WindowActions {
  std::function<void(ProcessID)> activate;
  std::function<void(ProcessID)> unhide;
};

/// An application whose processes are watched from a reactor, which also reaps the one that this program has
/// started. When the process that it is known by ends within seconds of the start, and others of it run on,
/// it is the oldest of these from then on; else it has ended. Any thread may call, while the reactor runs.
class FollowedApplication final : public RunningApplication,
                                  public std::enable_shared_from_this<FollowedApplication> {
 public:
  using Ended = std::function<void(const FollowedApplication&)>;

  /// `process` is the descriptor of `status`. `isStarted`: by this program, in a session of its own.
  FollowedApplication(std::shared_ptr<Reactor> reactor, WindowActions windows, UniqueDescriptor process,
                      const ProcessStatus& status, bool isStarted);

  /// Watches from now on; `ended` is called once, on the reactor.
  void follow(Ended ended);

  ProcessID processIdentifier() const override;
  bool isTerminated() const override;
  void activate() override { windows_.activate(processIdentifier()); }
  void unhide() override { windows_.unhide(processIdentifier()); }
  /// SIGTERM to the process that it is known by, and to each that takes its place from then on.
  void terminate() override;
  /// SIGKILL to all of its processes, until none is left.
  void forceTerminate() override;

 private:
  // On the reactor.
  void watch();
  void onEnd();
  void goOnWith(UniqueDescriptor process, ProcessID identifier);
  void killAll(int rounds);

  const std::shared_ptr<Reactor> reactor_;
  const WindowActions windows_;
  const ProcessID started_;  // the child of this program; 0: none

  mutable std::mutex lock_;  // guards the next two; the reactor alone changes them
  ProcessID identifier_;
  bool isTerminated_ = false;

  // The reactor's.
  UniqueDescriptor process_;  // none once it has ended
  bool isTerminating_ = false;
  Duration handOverEnd_{};
  ProcessFamily family_;
  DescriptorWatch watch_;  // on process_
  Ended ended_;
};

}  // namespace kestrune::linux_platform
