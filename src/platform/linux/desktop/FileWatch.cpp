#include "platform/linux/desktop/FileWatch.h"

#include <sys/inotify.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdint>
#include <system_error>
#include <utility>

#include "runtime/Log.h"

namespace kestrune::linux_platform {
namespace {

constexpr Logger kLog("App");
constexpr std::uint32_t kFileChanges = IN_CLOSE_WRITE | IN_MOVED_TO;
constexpr std::uint32_t kDirectoryEnds = IN_DELETE_SELF | IN_MOVE_SELF | IN_IGNORED | IN_UNMOUNT;

int checked(int result, const char* what) {
  if (result < 0) throw std::system_error(errno, std::generic_category(), what);
  return result;
}

}  // namespace

FileWatch::FileWatch(std::shared_ptr<Reactor> reactor, const std::filesystem::path& directory,
                     std::string name, std::function<void()> onChange)
    : name_(std::move(name)),
      onChange_(std::move(onChange)),
      events_(checked(inotify_init1(IN_NONBLOCK | IN_CLOEXEC), "inotify")) {
  checked(inotify_add_watch(events_.get(), directory.c_str(),
                            kFileChanges | IN_DELETE_SELF | IN_MOVE_SELF | IN_ONLYDIR | IN_DONT_FOLLOW),
          "inotify");
  watch_ = DescriptorWatch(std::move(reactor), events_.get(), Readiness::readable, [this] { takeEvents(); });
}

void FileWatch::takeEvents() {
  alignas(inotify_event) std::array<char, 4096> buffer;
  bool hasChanged = false;
  bool isWatching = true;
  for (;;) {
    const ssize_t length = read(events_.get(), buffer.data(), buffer.size());
    if (length < 0 && errno == EINTR) continue;
    if (length <= 0) break;
    for (std::size_t offset = 0; offset < static_cast<std::size_t>(length);) {
      const auto* event = reinterpret_cast<const inotify_event*>(buffer.data() + offset);
      offset += sizeof(inotify_event) + event->len;
      if (event->mask & kDirectoryEnds) isWatching = false;
      // After an overflow of the queue any file may have changed.
      hasChanged |= (event->mask & IN_Q_OVERFLOW) != 0 || (event->len > 0 && name_ == event->name);
    }
  }
  if (hasChanged) onChange_();
  if (isWatching) return;
  kLog.error("The preferences' directory is gone; changes of the file take effect after a restart");
  watch_.cancel();
}

}  // namespace kestrune::linux_platform
