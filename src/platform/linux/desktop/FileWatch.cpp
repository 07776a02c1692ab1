#include "platform/linux/desktop/FileWatch.h"

#include <sys/inotify.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdint>
#include <system_error>
#include <utility>

#include "platform/linux/reactor/Reactor.h"
#include "runtime/Log.h"

namespace kestrune::linux_platform {
namespace {

constexpr Logger kLog("App");
constexpr std::uint32_t kFileChanges = IN_CLOSE_WRITE | IN_MOVED_TO;
constexpr std::uint32_t kDirectoryEnds = IN_DELETE_SELF | IN_MOVE_SELF | IN_IGNORED | IN_UNMOUNT;

}  // namespace

FileWatch::FileWatch(std::shared_ptr<Reactor> reactor, const std::filesystem::path& directory,
                     std::string name, std::function<void()> onChange)
    : reactor_(std::move(reactor)),
      directory_(directory),
      name_(std::move(name)),
      onChange_(std::move(onChange)),
      events_(inotify_init1(IN_NONBLOCK | IN_CLOEXEC)) {
  if (!events_ || !watchDirectory()) throw std::system_error(errno, std::generic_category(), "inotify");
  watch_ = DescriptorWatch(reactor_, events_.get(), Readiness::readable, [this] { takeEvents(); });
}

FileWatch::~FileWatch() {
  const auto end = [this] {
    retry_.cancel();
    watch_.cancel();
  };
  if (!reactor_->runAndWait(end)) end();
}

bool FileWatch::watchDirectory() {
  directoryWatch_ =
      inotify_add_watch(events_.get(), directory_.c_str(),
                        kFileChanges | IN_DELETE_SELF | IN_MOVE_SELF | IN_ONLYDIR | IN_DONT_FOLLOW);
  return directoryWatch_ >= 0;
}

void FileWatch::watchDirectoryAgain() {
  if (watchDirectory()) return onChange_();
  retry_ = reactor_->postAfter(kRetryDelay, [this] { watchDirectoryAgain(); });
}

void FileWatch::takeEvents() {
  alignas(inotify_event) std::array<char, 4096> buffer;
  bool hasChanged = false;
  bool isGone = false;
  for (;;) {
    const ssize_t length = read(events_.get(), buffer.data(), buffer.size());
    if (length < 0 && errno == EINTR) continue;
    if (length <= 0) break;
    for (std::size_t offset = 0; offset < static_cast<std::size_t>(length);) {
      const auto* event = reinterpret_cast<const inotify_event*>(buffer.data() + offset);
      offset += sizeof(inotify_event) + event->len;
      // After an overflow of the queue any file may have changed.
      hasChanged |= (event->mask & IN_Q_OVERFLOW) != 0;
      if (event->wd != directoryWatch_) continue;
      isGone |= (event->mask & kDirectoryEnds) != 0;
      hasChanged |= event->len > 0 && name_ == event->name;
    }
  }
  if (hasChanged) onChange_();
  if (!isGone) return;
  kLog.error("The preferences' directory is gone; changes of the file are noticed once there is one again");
  inotify_rm_watch(events_.get(), directoryWatch_);  // one that was moved is watched where it is now
  watchDirectoryAgain();
}

}  // namespace kestrune::linux_platform
