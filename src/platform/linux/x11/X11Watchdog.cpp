#include "platform/linux/x11/X11Watchdog.h"

#include <sys/socket.h>

#include <algorithm>

#include "runtime/ThreadName.h"

namespace kestrune::linux_platform {

std::shared_ptr<X11Watchdog> X11Watchdog::shared() {
  static std::mutex lock;
  static std::weak_ptr<X11Watchdog> present;
  const std::lock_guard guard(lock);
  auto watchdog = present.lock();
  if (!watchdog) present = watchdog = std::make_shared<X11Watchdog>();
  return watchdog;
}

X11Watchdog::X11Watchdog() : thread_([this] { run(); }) {}

X11Watchdog::~X11Watchdog() {
  {
    const std::lock_guard guard(lock_);
    isOver_ = true;
    changed_.notify_all();
  }
  thread_.join();
}

std::shared_ptr<X11Watchdog::Line> X11Watchdog::add(int descriptor) {
  std::shared_ptr<Line> line(new Line(*this, descriptor));
  const std::lock_guard guard(lock_);
  lines_.push_back(line);
  return line;
}

void X11Watchdog::remove(const std::shared_ptr<Line>& line) {
  const std::lock_guard guard(lock_);
  std::erase(lines_, line);
}

bool X11Watchdog::beginWait(Line& line) {
  if (line.waits_ % 2 != 0) return false;
  ++line.waits_;
  // The wait is published before isAsleep_ is read; run() does the reverse, so that no wake-up is lost.
  if (line.watchdog_.isAsleep_) line.watchdog_.wake();
  return true;
}

void X11Watchdog::endWait(Line& line) {
  ++line.waits_;
}

void X11Watchdog::wake() {
  const std::lock_guard guard(lock_);
  isAsleep_ = false;
  changed_.notify_all();
}

bool X11Watchdog::takeTurn() {
  bool isUsed = false;
  for (const auto& line : lines_) {
    const std::uint64_t waits = line->waits_;
    isUsed = isUsed || waits != line->seen_ || waits % 2 != 0;
    line->turns_ = waits == line->seen_ && waits % 2 != 0 ? line->turns_ + 1 : 0;
    line->seen_ = waits;
    if (line->turns_ < kAnswerLimit / kTurn || line->isHung_) continue;
    line->isHung_ = true;
    shutdown(line->descriptor_, SHUT_RDWR);
  }
  return isUsed;
}

void X11Watchdog::run() {
  nameThread("x11-watchdog");
  std::unique_lock guard(lock_);
  while (!isOver_) {
    if (!takeTurn()) {
      isAsleep_ = true;
      if (!takeTurn()) changed_.wait(guard, [this] { return isOver_ || !isAsleep_; });
      isAsleep_ = false;
    }
    changed_.wait_for(guard, kTurn, [this] { return isOver_; });
  }
}

}  // namespace kestrune::linux_platform
