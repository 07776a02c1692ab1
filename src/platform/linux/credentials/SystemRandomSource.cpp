#include "platform/linux/credentials/SystemRandomSource.h"

#include <sys/random.h>

#include <cerrno>

namespace kestrune::linux_platform {

std::int32_t SystemRandomSource::copyBytes(std::span<std::uint8_t> destination) {
  while (!destination.empty()) {
    const ssize_t count = getrandom(destination.data(), destination.size(), 0);
    if (count < 0 && errno == EINTR) continue;
    if (count < 0) return errno;
    destination = destination.subspan(static_cast<std::size_t>(count));
  }
  return 0;
}

}  // namespace kestrune::linux_platform
