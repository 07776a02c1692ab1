#pragma once

#include <vector>

#include "platform/linux/files/ProcessStatus.h"

namespace kestrune::linux_platform {

/// The processes of an application: one, all that descend from it, and all of its session where it has one of
/// its own. A descendant that has been seen once stays one when its parents end. Confined to one thread.
class ProcessFamily {
 public:
  /// `ownsSession`: nothing else runs in the session of `first`, also after that has ended.
  ProcessFamily(const ProcessStatus& first, bool ownsSession)
      : first_(first), ownsSession_(ownsSession), known_{first} {}

  /// Those that run, each in front of those that it started. Reads /proc.
  std::vector<ProcessStatus> look();
  /// SIGKILL to all that run; whether there were any.
  bool kill();

 private:
  const ProcessStatus first_;
  const bool ownsSession_;
  std::vector<ProcessStatus> known_;
};

}  // namespace kestrune::linux_platform
