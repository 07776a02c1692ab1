#pragma once

#include <functional>
#include <memory>
#include <optional>

#include "platform/Network.h"
#include "platform/WakeNotifications.h"
#include "runtime/SerialQueue.h"
#include "runtime/Task.h"

namespace kestrune {

class StreamCoordinator;

/// The coordinator's relation to the operating system: a machine that wakes, networks that come back, and an
/// end of the process in two steps, so that a stream is shut down before it. Main queue only; owned by a
/// shared_ptr.
class ApplicationDelegate final : public std::enable_shared_from_this<ApplicationDelegate> {
 public:
  enum class TerminationReply { terminateCancel = 0, terminateNow = 1 };

  /// When connections to other machines may have died unnoticed. A source may be null.
  struct Recovery {
    std::shared_ptr<WakeNotifications> wake;
    std::shared_ptr<NetworkPathMonitor> network;
    std::shared_ptr<SerialQueue> networkQueue;  // on which `network` reports
    /// The machine woke, or the network is back. On the main queue, and only while there is a coordinator.
    std::function<void()> onRecovery;
  };

  /// `terminate` asks for the end of the process once more, by way of applicationShouldTerminate().
  ApplicationDelegate(std::shared_ptr<SerialQueue> mainQueue, std::function<void()> terminate,
                      Recovery recovery = {});

  /// Held weakly. The first one starts the sources of recoveries.
  void attachCoordinator(const std::shared_ptr<StreamCoordinator>& coordinator);

  /// The first request is refused and begins the shutdown, after which `terminate` is called; requests in
  /// between are refused too, those afterwards pass. Without a coordinator there is nothing to wait for.
  TerminationReply applicationShouldTerminate();

 private:
  static Task<void> finishTermination(std::weak_ptr<ApplicationDelegate> weak,
                                      std::shared_ptr<StreamCoordinator> coordinator);
  void watchForRecoveries();
  void handleSystemWake();
  void handleNetworkStatus(NetworkPathMonitor::Status status);

  const std::shared_ptr<SerialQueue> mainQueue_;
  const std::function<void()> terminate_;
  const Recovery recovery_;
  std::weak_ptr<StreamCoordinator> coordinator_;
  bool isFinishingTermination_ = false;
  bool isReadyToTerminate_ = false;
  bool networkMonitoringStarted_ = false;
  std::optional<NetworkPathMonitor::Status> previousNetworkStatus_;
};

}  // namespace kestrune
