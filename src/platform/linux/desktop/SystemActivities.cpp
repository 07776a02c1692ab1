#include "platform/linux/desktop/SystemActivities.h"

#include <poll.h>

#include <initializer_list>
#include <map>
#include <optional>
#include <utility>
#include <vector>

#include "platform/linux/desktop/BusInhibitor.h"
#include "platform/linux/desktop/XScreenSaverSuspension.h"
#include "platform/linux/reactor/DescriptorWatch.h"
#include "runtime/Log.h"

namespace kestrune::linux_platform {
namespace {

constexpr Logger kLog("App");
using State = BusInhibitor::State;

/// Logs each change in one line, and nothing of what is off or not known yet.
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

/// What is wanted and what is held. On the reactor's queue, but for its construction.
class SystemActivities::Worker : public std::enable_shared_from_this<Worker> {
 public:
  Worker(std::shared_ptr<Reactor> reactor, const Settings& settings)
      : reactor_(std::move(reactor)),
        idle_({settings.systemBus, settings.answerTimeout, settings.retryDelay}),
        screenSaver_({settings.sessionBus, settings.answerTimeout, settings.retryDelay}),
        suspension_(settings.displayName),
        retryDelay_(settings.retryDelay) {}

  void add(std::uint64_t number, ActivityOptions options, std::string reason) {
    activities_.emplace(number, WantedActivity{options, std::move(reason)});
    scheduleUpdate();
  }
  void remove(std::uint64_t number) {
    activities_.erase(number);
    scheduleUpdate();
  }
  void end() {
    watches_.clear();
    timer_.cancel();
    isEnded_ = true;
    idle_.release();
    screenSaver_.release();
    suspension_.release();
  }

 private:
  struct WantedActivity {
    ActivityOptions options;
    std::string reason;
  };

  /// The reason of the oldest activity with this option, or nothing.
  std::optional<std::string> reasonFor(ActivityOptions option) const {
    for (const auto& [number, activity] : activities_) {
      if ((activity.options & option) != 0) return activity.reason;
    }
    return {};
  }

  /// Coalesces queued changes: one update follows the last of them.
  void scheduleUpdate() {
    if (std::exchange(isUpdateScheduled_, true)) return;
    reactor_->post([weak = weak_from_this()] {
      const auto self = weak.lock();
      if (!self) return;
      self->isUpdateScheduled_ = false;
      self->update();
    });
  }

  void update() {
    if (isEnded_) return;
    watches_.clear();  // what follows may close the descriptors
    timer_.cancel();
    const auto now = std::chrono::steady_clock::now();
    apply(idle_, reasonFor(kActivityIdleSystemSleepDisabled), now);
    apply(screenSaver_, reasonFor(kActivityIdleDisplaySleepDisabled), now);
    suspendWithoutService(now);
    report();
    wait();
  }

  static void apply(BusInhibitor& inhibitor, const std::optional<std::string>& reason, SteadyTime now) {
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

  void report() {
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

  static Readiness readiness(int events) {
    const bool wantsToRead = (events & POLLIN) != 0;
    if ((events & POLLOUT) != 0) return wantsToRead ? Readiness::readableOrWritable : Readiness::writable;
    return wantsToRead ? Readiness::readable : Readiness::failed;
  }

  void wait() {
    const auto onReady = [this] { scheduleUpdate(); };
    for (const BusInhibitor* inhibitor : std::initializer_list<const BusInhibitor*>{&idle_, &screenSaver_}) {
      const int descriptor = inhibitor->descriptor();
      if (descriptor < 0) continue;
      watches_.emplace_back(reactor_, descriptor, readiness(inhibitor->events()), onReady);
    }
    if (const int descriptor = suspension_.descriptor(); descriptor >= 0) {
      watches_.emplace_back(reactor_, descriptor, Readiness::readable, onReady);
    }
    std::optional<SteadyTime> next = idle_.deadline();
    if (const auto other = screenSaver_.deadline(); other && (!next || *other < *next)) next = other;
    if (!next) return;
    timer_ = reactor_->postAfter(*next - std::chrono::steady_clock::now(), [weak = weak_from_this()] {
      if (const auto self = weak.lock()) self->update();
    });
  }

  const std::shared_ptr<Reactor> reactor_;
  IdleInhibitor idle_;
  ScreenSaverInhibitor screenSaver_;
  XScreenSaverSuspension suspension_;
  const std::chrono::milliseconds retryDelay_;
  SteadyTime suspendAt_;  // the next try, after a failed one
  std::string suspensionFailure_;
  Report idleReport_;
  Report displayReport_;
  std::map<std::uint64_t, WantedActivity> activities_;  // by number: the oldest first
  bool isUpdateScheduled_ = false;
  bool isEnded_ = false;
  std::vector<DescriptorWatch> watches_;  // behind what they watch
  DelayedWork timer_;
};

class SystemActivities::RunningActivity final : public Activity {
 public:
  RunningActivity(std::shared_ptr<Reactor> reactor, std::shared_ptr<Worker> worker, std::uint64_t number)
      : reactor_(std::move(reactor)), worker_(std::move(worker)), number_(number) {}
  ~RunningActivity() override {
    reactor_->post([worker = worker_, number = number_] { worker->remove(number); });
  }

 private:
  const std::shared_ptr<Reactor> reactor_;
  const std::shared_ptr<Worker> worker_;
  const std::uint64_t number_;
};

SystemActivities::SystemActivities(const Settings& settings)
    : thread_("power"), worker_(std::make_shared<Worker>(thread_.reactor(), settings)) {}

SystemActivities::~SystemActivities() {
  thread_.reactor()->runAndWait([this] { worker_->end(); });
}

std::unique_ptr<Activity> SystemActivities::beginActivity(ActivityOptions options, std::string reason) {
  const std::uint64_t number = ++latest_;
  const auto& reactor = thread_.reactor();
  reactor->post([worker = worker_, number, options, reason = std::move(reason)]() mutable {
    worker->add(number, options, std::move(reason));
  });
  return std::make_unique<RunningActivity>(reactor, worker_, number);
}

}  // namespace kestrune::linux_platform
