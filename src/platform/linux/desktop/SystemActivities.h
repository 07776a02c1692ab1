#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <memory>
#include <string>

#include "platform/Activities.h"
#include "platform/linux/reactor/ReactorThread.h"

namespace kestrune::linux_platform {

/// Activities that keep the machine awake: idle system sleep is held off through logind, idle display sleep
/// through the screen saver service of the session, and by suspending the X server's screen saver while there
/// is no such service. Everything is tied to connections and descriptors of this process, so it is gone with
/// the process, and to one thread ("power") that talks to the services and logs what is held and what cannot
/// be; beginning or ending an activity never waits for them.
class SystemActivities final : public Activities {
 public:
  struct Settings {
    // Empty for those of the environment.
    std::string systemBus;
    std::string sessionBus;
    std::string displayName;
    std::chrono::milliseconds answerTimeout{10'000};
    /// After which what could not be held is tried again.
    std::chrono::milliseconds retryDelay{60'000};
  };

  /// Throws a std::system_error where the system gives no descriptor or no thread.
  explicit SystemActivities(const Settings& settings);
  SystemActivities() : SystemActivities(Settings()) {}
  /// Ends what is held.
  ~SystemActivities() override;

  std::unique_ptr<Activity> beginActivity(ActivityOptions options, std::string reason) override;

 private:
  class Worker;
  class RunningActivity;

  // Of its own: the suspension of the screen saver waits for the X server.
  ReactorThread thread_;
  const std::shared_ptr<Worker> worker_;
  std::atomic<std::uint64_t> latest_{0};
};

}  // namespace kestrune::linux_platform
