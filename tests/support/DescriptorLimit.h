#pragma once

#include <fcntl.h>
#include <sys/resource.h>
#include <unistd.h>

namespace kestrune {

/// A lower limit of open descriptors for as long as it lives.
class DescriptorLimit {
 public:
  explicit DescriptorLimit(rlim_t limit) {
    getrlimit(RLIMIT_NOFILE, &before_);
    const rlimit tight{limit, before_.rlim_max};
    setrlimit(RLIMIT_NOFILE, &tight);
  }
  DescriptorLimit(const DescriptorLimit&) = delete;
  ~DescriptorLimit() { setrlimit(RLIMIT_NOFILE, &before_); }

  /// The limit that leaves `count` descriptors beyond the lowest free one.
  static rlim_t leaving(rlim_t count) {
    const int lowest = fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, 0);
    close(lowest);
    return static_cast<rlim_t>(lowest) + count;
  }

 private:
  rlimit before_{};
};

}  // namespace kestrune
