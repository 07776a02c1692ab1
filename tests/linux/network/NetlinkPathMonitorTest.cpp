#include <gtest/gtest.h>
#include <net/if.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <condition_variable>
#include <cstdlib>
#include <mutex>
#include <optional>
#include <thread>
#include <vector>

#include "platform/linux/network/NetlinkPathMonitor.h"
#include "platform/linux/reactor/ReactorThread.h"

namespace kestrune::linux_platform {
namespace {

using Status = NetworkPathMonitor::Status;

class Statuses {
 public:
  void add(Status status) {
    std::lock_guard guard(lock_);
    all_.push_back(status);
    changed_.notify_all();
  }
  /// The latest, once there are `count`; nothing after ten seconds.
  std::optional<Status> waitFor(std::size_t count) {
    std::unique_lock guard(lock_);
    if (!changed_.wait_for(guard, std::chrono::seconds(10), [&] { return all_.size() >= count; })) return {};
    return all_.back();
  }

 private:
  std::mutex lock_;
  std::condition_variable changed_;
  std::vector<Status> all_;
};

TEST(NetlinkPathMonitor, TellsThePresentStatusFirst) {
  Statuses statuses;
  ReactorThread thread("test");
  NetlinkPathMonitor monitor(thread.reactor());
  monitor.start(thread.reactor(), [&](Status status) { statuses.add(status); });
  EXPECT_TRUE(statuses.waitFor(1));
}

TEST(NetlinkPathMonitor, FollowsLinksAddressesAndRoutes) {
  // A thread in a network namespace of its own, where only loopback exists.
  std::thread([] {
    if (unshare(CLONE_NEWNET) != 0 || std::system("command -v ip >/dev/null") != 0) {
      GTEST_SKIP() << "needs the right to make a network namespace, and the ip tool";
    }
    Statuses statuses;
    ReactorThread thread("test");
    NetlinkPathMonitor monitor(thread.reactor());
    monitor.start(thread.reactor(), [&](Status status) { statuses.add(status); });
    EXPECT_EQ(statuses.waitFor(1), Status::unsatisfied);
    const int made = std::system(
        "ip link add left type veth peer name right && ip link set left up && ip link set right up && "
        "ip address add 192.0.2.1/24 dev left && ip route add default via 192.0.2.2");
    if (made != 0) GTEST_SKIP() << "no virtual interfaces here";
    std::size_t count = 2;
    while (statuses.waitFor(count) == Status::unsatisfied) ++count;
    EXPECT_EQ(statuses.waitFor(count), Status::satisfied);
    ASSERT_EQ(std::system("ip link set left down"), 0);
    while (statuses.waitFor(++count) == Status::satisfied) {
    }
    EXPECT_EQ(statuses.waitFor(count), Status::unsatisfied);
  }).join();
}

}  // namespace
}  // namespace kestrune::linux_platform
