#include "platform/linux/applications/ProcessFamily.h"

#include <signal.h>

#include <algorithm>
#include <set>
#include <tuple>

#include "platform/linux/applications/ProcessDescriptor.h"

namespace kestrune::linux_platform {

std::vector<ProcessStatus> ProcessFamily::look() {
  std::vector<ProcessStatus> others = allProcesses();
  std::vector<ProcessStatus> members;
  std::set<pid_t> numbers;
  const auto isMember = [&](const ProcessStatus& each) {
    return numbers.contains(each.parent) || (ownsSession_ && each.session == first_.session) ||
           std::any_of(known_.begin(), known_.end(),
                       [&](const ProcessStatus& known) { return known.isSameProcess(each); });
  };
  // Numbers say nothing about who started whom: until no parent is found any more.
  for (bool hasFound = true; hasFound;) {
    const auto found = std::stable_partition(others.begin(), others.end(),
                                             [&](const ProcessStatus& each) { return !isMember(each); });
    hasFound = found != others.end();
    for (auto each = found; each != others.end(); ++each) numbers.insert(each->id);
    members.insert(members.end(), found, others.end());
    others.erase(found, others.end());
  }
  std::erase_if(members, [](const ProcessStatus& each) { return each.hasEnded; });
  std::sort(members.begin(), members.end(), [](const ProcessStatus& a, const ProcessStatus& b) {
    return std::tie(a.startTime, a.id) < std::tie(b.startTime, b.id);
  });
  known_ = members;
  return members;
}

bool ProcessFamily::kill() {
  const auto members = look();
  for (const ProcessStatus& each : members) {
    if (const auto process = openProcess(each)) signalProcess(process, SIGKILL);
  }
  return !members.empty();
}

}  // namespace kestrune::linux_platform
