#pragma once

#include <sys/types.h>

#include <cstdint>
#include <optional>
#include <vector>

namespace kestrune::linux_platform {

/// A process as /proc shows it. The number is used again after its end, the number with the start time is
/// not.
struct ProcessStatus {
  pid_t id = 0;
  pid_t parent = 0;
  pid_t session = 0;
  std::uint64_t startTime = 0;  // clock ticks since boot
  bool hasEnded = false;        // and waits for its parent to notice

  bool isSameProcess(const ProcessStatus& other) const {
    return id == other.id && startTime == other.startTime;
  }
};

/// Nothing if there is no such process.
std::optional<ProcessStatus> readProcessStatus(pid_t process);
/// All that this program can see, zombies among them.
std::vector<ProcessStatus> allProcesses();

}  // namespace kestrune::linux_platform
