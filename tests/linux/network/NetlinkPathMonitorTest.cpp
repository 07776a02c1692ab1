#include <gtest/gtest.h>
#include <sched.h>

#include <atomic>
#include <cstdlib>
#include <optional>
#include <thread>

#include "platform/linux/network/NetlinkPathMonitor.h"
#include "platform/linux/reactor/ReactorThread.h"
#include "support/ChildProcess.h"

namespace kestrune::linux_platform {
namespace {

using Status = NetworkPathMonitor::Status;

TEST(NetlinkPathMonitor, FollowsLinksAddressesAndRoutes) {
  // A thread in a network namespace of its own, where only loopback exists.
  std::thread([] {
    if (unshare(CLONE_NEWNET) != 0 || std::system("command -v ip >/dev/null") != 0) {
      GTEST_SKIP() << "needs the right to make a network namespace, and the ip tool";
    }
    std::atomic<std::optional<Status>> latest;
    const auto becomes = [&](Status status) {
      return testing::eventually([&] { return latest.load() == status; });
    };
    ReactorThread thread("test");
    NetlinkPathMonitor monitor(thread.reactor());
    monitor.start(thread.reactor(), [&](Status status) { latest = status; });
    EXPECT_TRUE(becomes(Status::unsatisfied));
    const int made = std::system(
        "ip link add left type veth peer name right && ip link set left up && ip link set right up && "
        "ip address add 192.0.2.1/24 dev left && ip route add default via 192.0.2.2");
    if (made != 0) GTEST_SKIP() << "no virtual interfaces here";
    EXPECT_TRUE(becomes(Status::satisfied));
    ASSERT_EQ(std::system("ip link set left down"), 0);
    EXPECT_TRUE(becomes(Status::unsatisfied));
  }).join();
}

}  // namespace
}  // namespace kestrune::linux_platform
