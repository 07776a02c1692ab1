#pragma once

#include <sys/eventfd.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <system_error>

namespace kestrune::linux_platform {

/// Wakes a thread that polls fd(). Any thread may signal.
class EventFd {
 public:
  EventFd() : fd_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
    if (fd_ < 0) throw std::system_error(errno, std::generic_category(), "eventfd");
  }
  ~EventFd() { close(fd_); }
  EventFd(const EventFd&) = delete;
  EventFd& operator=(const EventFd&) = delete;

  int fd() const { return fd_; }
  void signal() const {
    const std::uint64_t one = 1;
    // A counter that is full is a signal that is pending.
    [[maybe_unused]] const ssize_t written = write(fd_, &one, sizeof one);
  }
  void reset() const {
    std::uint64_t count = 0;
    [[maybe_unused]] const ssize_t got = read(fd_, &count, sizeof count);
  }

 private:
  const int fd_;
};

}  // namespace kestrune::linux_platform
