#include <gtest/gtest.h>
#include <sys/eventfd.h>

#include <chrono>
#include <system_error>
#include <thread>
#include <vector>

#include "platform/linux/files/UniqueDescriptor.h"
#include "platform/linux/reactor/DescriptorWatch.h"
#include "platform/linux/reactor/ReactorThread.h"
#include "support/FirstOutcome.h"
#include "support/QueueContract.h"

namespace kestrune::linux_platform {
namespace {

using namespace std::chrono_literals;

TEST(Reactor, WorkOfAllThreadsRunsInOneOrder) {
  const ReactorThread thread("test");
  const auto queue = thread.reactor();
  EXPECT_FALSE(queue->isCurrent());
  std::vector<int> order;
  runOn(*queue, [&] {
    EXPECT_TRUE(queue->isCurrent());
    queue->post([&] { order.push_back(1); });
    // What another thread posts after this thread has posted stands behind it.
    std::thread([&] { queue->post([&] { order.push_back(2); }); }).join();
    queue->post([&] { order.push_back(3); });
  });
  runOn(*queue, [&] { EXPECT_EQ(order, (std::vector{1, 2, 3})); });
}

TEST(Reactor, EndRunsWhatWasPostedAndDropsWhatComesLater) {
  const auto token = std::make_shared<int>();
  int ran = 0;
  auto thread = std::make_unique<ReactorThread>("test");
  const auto queue = thread->reactor();
  for (int i = 0; i < 10; ++i) queue->post([&ran, token] { ++ran; });
  thread.reset();
  queue->post([&ran, token] { ++ran; });
  EXPECT_FALSE(queue->postAfter(0s, [&ran, token] { ++ran; }).isPending());
  EXPECT_FALSE(queue->postAfter(1s, [&ran, token] { ++ran; }).isPending());
  EXPECT_EQ(ran, 10);
  EXPECT_EQ(token.use_count(), 1);
}

TEST(Reactor, MayEndOnItsOwnThread) {
  auto thread = std::make_unique<ReactorThread>("test");
  const auto queue = thread->reactor();
  runOn(*queue, [&] { thread.reset(); });
}

TEST(DescriptorWatch, TellsForAsLongAsItIsReadyAndNotOnceCancelled) {
  auto thread = std::make_unique<ReactorThread>("test");
  const auto reactor = thread->reactor();
  const UniqueDescriptor counter(eventfd(0, EFD_CLOEXEC | EFD_SEMAPHORE));
  DescriptorWatch watch;
  int calls = 0;
  FirstOutcome<bool> done;
  watch = DescriptorWatch(reactor, counter.get(), Readiness::readable, [&] {
    EXPECT_TRUE(reactor->isCurrent());
    eventfd_t one = 0;
    eventfd_read(counter.get(), &one);
    if (++calls != 3) return;
    watch.cancel();
    reactor->postAfter(1ms, [&] { done.set(true); });
  });
  eventfd_write(counter.get(), 5);
  done.get();
  EXPECT_EQ(calls, 3);

  // A writable eventfd is so until its end: the watch has to wait for a call that runs.
  bool isOver = false;
  FirstOutcome<bool> first;
  watch = DescriptorWatch(reactor, counter.get(), Readiness::readableOrWritable, [&] {
    EXPECT_FALSE(isOver);
    first.set(true);
  });
  first.get();
  watch.cancel();
  isOver = true;

  watch = DescriptorWatch(reactor, counter.get(), Readiness::failed, [] { FAIL(); });
  thread.reset();
  watch.cancel();
  EXPECT_THROW(DescriptorWatch(reactor, -1, Readiness::readable, [] {}), std::system_error);
}

}  // namespace
}  // namespace kestrune::linux_platform

namespace kestrune {

INSTANTIATE_TEST_SUITE_P(Reactor, QueueContract, ::testing::Values([]() -> std::unique_ptr<QueueLab> {
                           return std::make_unique<ThreadQueueLab<linux_platform::ReactorThread>>(
                               [](const auto& owner) { return owner->reactor(); });
                         }));

}  // namespace kestrune
