#include "platform/linux/desktop/SystemActivities.h"

#include <poll.h>
#include <pthread.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <map>
#include <mutex>
#include <optional>
#include <system_error>
#include <vector>

#include "platform/linux/desktop/BusInhibitor.h"
#include "platform/linux/desktop/XScreenSaverSuspension.h"
#include "platform/linux/files/UniqueDescriptor.h"
#include "runtime/Log.h"

namespace kestrune::linux_platform {
namespace {

constexpr Logger kLog("App");
using State = BusInhibitor::State;

/// Tells of each change in one line. Nothing is told of what is off or not known yet.
class Report {
 public:
  void off() { last_.clear(); }
  void held(const std::string& line) {
    if (isNew(line)) kLog.info(line);
  }
  void failed(const std::string& line) {
    if (isNew(line)) kLog.notice(line);
  }

 private:
  bool isNew(const std::string& line) { return std::exchange(last_, line) != line; }

  std::string last_;
};

}  // namespace

/// What the running activities want, for the thread to bring about.
class SystemActivities::Wishes {
 public:
  struct Snapshot {
    bool isOver = false;
    // The reason of the oldest activity that wants it, or nothing.
    std::optional<std::string> system;
    std::optional<std::string> display;
  };

  Wishes() : changed_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
    if (!changed_) throw std::system_error(errno, std::generic_category(), "eventfd");
  }

  std::uint64_t add(ActivityOptions options, std::string reason) {
    const std::lock_guard guard(lock_);
    activities_.emplace(++latest_, Wish{options, std::move(reason)});
    wake();
    return latest_;
  }
  void remove(std::uint64_t activity) {
    const std::lock_guard guard(lock_);
    activities_.erase(activity);
    wake();
  }
  void end() {
    const std::lock_guard guard(lock_);
    isOver_ = true;
    wake();
  }

  /// Readable after a change, until the next look.
  int descriptor() const { return changed_.get(); }
  Snapshot look() {
    const std::lock_guard guard(lock_);
    std::uint64_t count = 0;
    [[maybe_unused]] const ssize_t result = read(changed_.get(), &count, sizeof count);
    return {isOver_, reasonFor(kActivityIdleSystemSleepDisabled),
            reasonFor(kActivityIdleDisplaySleepDisabled)};
  }

 private:
  struct Wish {
    ActivityOptions options;
    std::string reason;
  };

  void wake() const {
    const std::uint64_t one = 1;
    [[maybe_unused]] const ssize_t result = write(changed_.get(), &one, sizeof one);
  }
  std::optional<std::string> reasonFor(ActivityOptions option) const {
    for (const auto& [number, wish] : activities_) {
      if ((wish.options & option) != 0) return wish.reason;
    }
    return {};
  }

  const UniqueDescriptor changed_;
  std::mutex lock_;  // guards everything below
  std::map<std::uint64_t, Wish> activities_;
  std::uint64_t latest_ = 0;
  bool isOver_ = false;
};

class SystemActivities::RunningActivity final : public Activity {
 public:
  RunningActivity(std::shared_ptr<Wishes> wishes, std::uint64_t number)
      : wishes_(std::move(wishes)), number_(number) {}
  ~RunningActivity() override { wishes_->remove(number_); }

 private:
  const std::shared_ptr<Wishes> wishes_;
  const std::uint64_t number_;
};

/// The thread's side: everything here is its own.
class SystemActivities::Worker {
 public:
  explicit Worker(const Settings& settings)
      : idle_({settings.systemBus, settings.answerTimeout, settings.retryDelay}),
        screenSaver_({settings.sessionBus, settings.answerTimeout, settings.retryDelay}),
        suspension_(settings.displayName),
        retryDelay_(settings.retryDelay) {}

  void run(Wishes& wishes) {
    for (;;) {
      const auto wanted = wishes.look();
      if (wanted.isOver) break;
      const auto now = std::chrono::steady_clock::now();
      bringAbout(idle_, wanted.system, now);
      bringAbout(screenSaver_, wanted.display, now);
      suspendWithoutService(now);
      tell();
      wait(wishes.descriptor());
    }
    idle_.release();
    screenSaver_.release();
  }

 private:
  static void bringAbout(BusInhibitor& inhibitor, const std::optional<std::string>& reason, SteadyTime now) {
    if (reason) {
      inhibitor.hold(*reason);
    } else {
      inhibitor.release();
    }
    inhibitor.advance(now);
  }

  /// While the service is asked, what is held stays held.
  void suspendWithoutService(SteadyTime now) {
    suspension_.advance();
    switch (screenSaver_.state()) {
      case State::off:
      case State::held:
        suspension_.release();
        suspendAt_ = {};
        break;
      case State::asking:
        break;
      case State::failed:
        if (suspension_.isHeld() || now < suspendAt_) break;
        suspensionFailure_ = suspension_.hold().value_or("");
        suspendAt_ = now + retryDelay_;
        break;
    }
  }

  void tell() {
    switch (idle_.state()) {
      case State::off:
        idleReport_.off();
        break;
      case State::asking:
        break;
      case State::held:
        idleReport_.held("Idle system sleep is held off by logind");
        break;
      case State::failed:
        idleReport_.failed("Idle system sleep cannot be held off: " + idle_.failure());
        break;
    }
    switch (screenSaver_.state()) {
      case State::off:
        displayReport_.off();
        break;
      case State::asking:
        break;
      case State::held:
        displayReport_.held("Idle display sleep is held off by the screen saver service");
        break;
      case State::failed:
        if (suspension_.isHeld()) {
          displayReport_.held("Idle display sleep is held off by the X server");
        } else {
          displayReport_.failed("Idle display sleep cannot be held off: " + screenSaver_.failure() + "; " +
                                suspensionFailure_);
        }
        break;
    }
  }

  void wait(int changed) const {
    std::vector<pollfd> waited{{changed, POLLIN, 0}};
    idle_.addDescriptors(waited);
    screenSaver_.addDescriptors(waited);
    suspension_.addDescriptors(waited);
    std::optional<SteadyTime> next = idle_.deadline();
    if (const auto other = screenSaver_.deadline(); other && (!next || *other < *next)) next = other;
    int timeout = -1;
    if (next) {
      const auto left =
          std::chrono::ceil<std::chrono::milliseconds>(*next - std::chrono::steady_clock::now());
      timeout = static_cast<int>(std::max<std::int64_t>(left.count(), 0));
    }
    poll(waited.data(), waited.size(), timeout);
  }

  IdleInhibitor idle_;
  ScreenSaverInhibitor screenSaver_;
  XScreenSaverSuspension suspension_;
  const std::chrono::milliseconds retryDelay_;
  SteadyTime suspendAt_;  // the next try, after a failed one
  std::string suspensionFailure_;
  Report idleReport_;
  Report displayReport_;
};

SystemActivities::SystemActivities(Settings settings)
    : wishes_(std::make_shared<Wishes>()), thread_([wishes = wishes_, settings = std::move(settings)] {
        pthread_setname_np(pthread_self(), "power");
        Worker(settings).run(*wishes);
      }) {}

SystemActivities::~SystemActivities() {
  wishes_->end();
  thread_.join();
}

std::unique_ptr<Activity> SystemActivities::beginActivity(ActivityOptions options, std::string reason) {
  return std::make_unique<RunningActivity>(wishes_, wishes_->add(options, std::move(reason)));
}

}  // namespace kestrune::linux_platform
