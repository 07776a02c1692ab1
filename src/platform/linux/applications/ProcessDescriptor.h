#pragma once

#include <sys/syscall.h>
#include <unistd.h>

#include "platform/linux/files/ProcessStatus.h"
#include "platform/linux/files/UniqueDescriptor.h"

namespace kestrune::linux_platform {

/// A process by a descriptor, which never means another one, and is readable once the process has ended
/// (pidfd_open(2); the C library of Debian 12 has no names for these calls).
inline UniqueDescriptor openProcess(pid_t process) {
  return UniqueDescriptor(static_cast<int>(syscall(SYS_pidfd_open, process, 0)));
}

/// The same for a process that was seen before; none if that has ended.
inline UniqueDescriptor openProcess(const ProcessStatus& seen) {
  UniqueDescriptor process = openProcess(seen.id);
  const auto now = readProcessStatus(seen.id);
  if (!now || !now->isSameProcess(seen)) process.reset();
  return process;
}

/// Does nothing to a process that has ended.
inline void signalProcess(const UniqueDescriptor& process, int number) {
  syscall(SYS_pidfd_send_signal, process.get(), number, nullptr, 0);
}

}  // namespace kestrune::linux_platform
