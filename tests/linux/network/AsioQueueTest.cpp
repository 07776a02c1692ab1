#include <gtest/gtest.h>

#include <chrono>
#include <thread>
#include <vector>

#include "linux/network/LoopbackPeer.h"
#include "platform/linux/network/AsioNetwork.h"

namespace kestrune::linux_platform {
namespace {

using namespace std::chrono_literals;

TEST(AsioQueue, RunsInOrderWhateverTheThread) {
  AsioNetwork network("test");
  const auto queue = network.queue();
  EXPECT_FALSE(queue->isCurrent());
  std::vector<int> order;
  std::promise<void> done;
  queue->post([&] {
    EXPECT_TRUE(queue->isCurrent());
    order.push_back(1);
    queue->post([&] { order.push_back(2); });
    // What another thread posts after this thread has posted stands behind it.
    std::thread([&] { queue->post([&] { order.push_back(3); }); }).join();
    queue->post([&] {
      order.push_back(4);
      done.set_value();
    });
  });
  done.get_future().get();
  EXPECT_EQ(order, (std::vector{1, 2, 3, 4}));
}

TEST(AsioQueue, DelayedWorkIsOrderedAndCancellable) {
  AsioNetwork network("test");
  const auto queue = network.queue();
  std::vector<int> order;
  std::promise<void> done;
  runOn(*queue, [&] {
    queue->postAfter(20ms, [&] {
      order.push_back(4);
      done.set_value();
    });
    queue->postAfter(5ms, [&] { order.push_back(2); });
    const auto dropped = queue->postAfter(6ms, [&] { order.push_back(99); });
    queue->postAfter(5ms, [&] { order.push_back(3); });
    queue->postAfter(-1ms, [&] { order.push_back(1); });
    EXPECT_TRUE(dropped.cancel());
    EXPECT_FALSE(dropped.cancel());
  });
  done.get_future().get();
  runOn(*queue, [&] { EXPECT_EQ(order, (std::vector{1, 2, 3, 4})); });
}

TEST(AsioQueue, EndRunsWhatWasPostedAndDropsTheRest) {
  const auto token = std::make_shared<int>();
  int ran = 0;
  std::shared_ptr<SerialQueue> queue;
  DelayedWork waiting;
  {
    AsioNetwork network("test");
    queue = network.queue();
    waiting = queue->postAfter(1h, [token] {});
    for (int i = 0; i < 10; ++i) queue->post([&ran, token] { ++ran; });
  }
  EXPECT_EQ(ran, 10);
  EXPECT_FALSE(waiting.isPending());
  queue->post([&ran, token] { ++ran; });
  const auto late = queue->postAfter(0s, [&ran, token] { ++ran; });
  const auto later = queue->postAfter(1s, [&ran, token] { ++ran; });
  EXPECT_FALSE(late.isPending() || later.isPending());
  EXPECT_EQ(ran, 10);
  EXPECT_EQ(token.use_count(), 1);
}

TEST(AsioQueue, MayEndOnItsOwnThread) {
  auto network = std::make_unique<AsioNetwork>("test");
  std::promise<void> done;
  network->queue()->post([&] {
    network.reset();
    done.set_value();
  });
  done.get_future().get();
}

}  // namespace
}  // namespace kestrune::linux_platform
