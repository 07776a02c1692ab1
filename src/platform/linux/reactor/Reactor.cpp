#include "platform/linux/reactor/Reactor.h"

#include <sys/timerfd.h>
#include <unistd.h>

#include <algorithm>
#include <boost/asio/executor_work_guard.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/posix/stream_descriptor.hpp>
#include <boost/asio/post.hpp>
#include <cerrno>
#include <deque>
#include <future>
#include <system_error>
#include <utility>

namespace kestrune::linux_platform {
namespace {

thread_local const Reactor* currentReactor = nullptr;

}  // namespace

class Reactor::Loop {
 public:
  Loop() {
    const int descriptor = timerfd_create(CLOCK_BOOTTIME, TFD_NONBLOCK | TFD_CLOEXEC);
    if (descriptor < 0) throw std::system_error(errno, std::generic_category(), "timerfd_create");
    timer.assign(descriptor);
  }

  boost::asio::io_context context{1};
  boost::asio::posix::stream_descriptor timer{context};
};

Reactor::Reactor(std::string name, std::shared_ptr<const Clock> clock)
    : name_(std::move(name)), clock_(std::move(clock)), loop_(std::make_unique<Loop>()) {}

Reactor::~Reactor() = default;

boost::asio::io_context& Reactor::context() {
  return loop_->context;
}

void Reactor::run() {
  const Reactor* outer = std::exchange(currentReactor, this);
  const auto guard = boost::asio::make_work_guard(loop_->context);
  waitForTimer();
  loop_->context.run();
  {
    // Work that is dropped may post again while it is destroyed; that is dropped by post().
    WorkSchedule dropped;
    const std::lock_guard locked(lock_);
    phase_ = Phase::ended;
    std::swap(dropped, schedule_);
  }
  currentReactor = outer;
}

void Reactor::stop() {
  const std::lock_guard locked(lock_);
  if (phase_ != Phase::open) return;
  phase_ = Phase::stopping;
  wakeLocked();
}

void Reactor::post(Work work) {
  const std::lock_guard locked(lock_);
  if (phase_ == Phase::ended) return;
  schedule_.add(std::move(work));
  wakeLocked();
}

DelayedWork Reactor::postAfter(Duration delay, Work work) {
  WorkSchedule dropped;
  const Duration now = clock_->continuousNow();
  const std::lock_guard locked(lock_);
  if (phase_ == Phase::ended) return dropped.add(now, delay, std::move(work));
  const auto before = schedule_.nextDue();
  auto handle = schedule_.add(now, delay, std::move(work));
  if (schedule_.hasReady()) wakeLocked();
  if (schedule_.nextDue() != before) armLocked();
  return handle;
}

bool Reactor::isCurrent() const {
  return currentReactor == this;
}

bool Reactor::runAndWait(const std::function<void()>& work) {
  if (isCurrent()) {
    work();
    return true;
  }
  // Destroyed with the work: a reactor that has ended breaks the promise.
  std::promise<bool> done;
  auto outcome = done.get_future();
  post([&work, done = std::move(done)]() mutable {
    work();
    done.set_value(true);
  });
  try {
    return outcome.get();
  } catch (const std::future_error&) {
    return false;
  }
}

void Reactor::wakeLocked() {
  if (std::exchange(isWoken_, true)) return;
  boost::asio::post(loop_->context, [this] { takeTurn(); });
}

void Reactor::armLocked() {
  const auto due = schedule_.nextDue();
  if (!due) return;
  // A time of zero would disarm the timer.
  const auto left = std::max<std::int64_t>((*due - clock_->continuousNow()).count(), 1);
  itimerspec when{};
  when.it_value.tv_sec = left / 1'000'000'000;
  when.it_value.tv_nsec = left % 1'000'000'000;
  timerfd_settime(loop_->timer.native_handle(), 0, &when, nullptr);
}

/// Runs what is ready now; what that posts waits for the next turn, so that descriptors get theirs.
void Reactor::takeTurn() {
  std::deque<WorkSchedule::Piece> batch;
  {
    const std::lock_guard locked(lock_);
    isWoken_ = false;
    schedule_.collectDue(clock_->continuousNow());
    batch = schedule_.takeAll();
  }
  while (!batch.empty()) {
    auto piece = std::move(batch.front());
    batch.pop_front();
    piece.run();
  }
  const std::lock_guard locked(lock_);
  if (phase_ == Phase::stopping && !schedule_.hasReady()) loop_->context.stop();
}

void Reactor::waitForTimer() {
  loop_->timer.async_wait(boost::asio::posix::stream_descriptor::wait_read,
                          [this](const boost::system::error_code& error) {
                            if (error) return;
                            onTimer();
                            waitForTimer();
                          });
}

void Reactor::onTimer() {
  std::uint64_t expirations = 0;
  [[maybe_unused]] const auto taken = ::read(loop_->timer.native_handle(), &expirations, sizeof expirations);
  const std::lock_guard locked(lock_);
  schedule_.collectDue(clock_->continuousNow());
  if (schedule_.hasReady()) wakeLocked();
  armLocked();
}

}  // namespace kestrune::linux_platform
