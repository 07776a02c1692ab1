#include <gtest/gtest.h>

#include <algorithm>
#include <future>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "runtime/Task.h"
#include "runtime/ThreadQueue.h"
#include "support/ManualTime.h"

namespace kestrune {
namespace {

using namespace std::chrono_literals;
using Notes = std::vector<std::string>;

/// Counts the frames that hold one.
struct Witness {
  explicit Witness(int& alive) : held(&++alive, [](int* count) { --*count; }) {}
  std::shared_ptr<int> held;
};

Task<int> doubled(int value) {
  if (value < 0) throw std::invalid_argument("negative");
  co_await sleepFor(10ms);
  co_return value * 2;
}

Task<std::unique_ptr<int>> boxed(int value) {
  const int result = co_await doubled(value);
  co_return std::make_unique<int>(result);
}

Task<void> addUp(Notes& notes, int value) {
  try {
    const auto box = co_await boxed(value);
    notes.push_back(std::to_string(*box));
  } catch (const std::invalid_argument& error) {
    notes.push_back(error.what());
    throw;
  }
}

Task<void> sleeper(Notes& notes, [[maybe_unused]] Witness witness, Duration span) {
  try {
    co_await sleepFor(span);
    notes.push_back("woke");
  } catch (const CancellationError&) {
    notes.push_back("cancelled");
    throw;
  }
}

Task<void> waitFor(Notes& notes, std::string name, TaskHandle handle) {
  co_await handle.finished();
  notes.push_back(name);
}

class TaskTest : public ::testing::Test {
 protected:
  std::shared_ptr<ManualTime> time = ManualTime::make();
  std::shared_ptr<SerialQueue> queue = time->makeQueue();
  Notes notes;
  int alive = 0;
};

TEST_F(TaskTest, ResultsAndFailuresPassThroughNestedTasks) {
  auto good = startTask(queue, addUp(notes, 21));
  auto bad = startTask(queue, addUp(notes, -1));
  EXPECT_TRUE(notes.empty());  // nothing runs before startTask() has returned
  time->runReady();
  EXPECT_EQ(notes, Notes{"negative"});
  EXPECT_TRUE(bad.isFinished());
  EXPECT_EQ(localizedDescription(bad.failure()), "negative");
  EXPECT_FALSE(isCancellation(bad.failure()));
  EXPECT_FALSE(good.isFinished());
  time->advance(10ms);
  EXPECT_EQ(notes.back(), "42");
  EXPECT_TRUE(good.isFinished());
  EXPECT_FALSE(good.failure());
}

TEST_F(TaskTest, CancellationMeetsATaskBeforeDuringAndAfterItsSleep) {
  auto before = startTask(queue, sleeper(notes, Witness(alive), 1h));
  before.cancel();
  time->runReady();
  EXPECT_EQ(notes, Notes{"cancelled"});
  EXPECT_TRUE(isCancellation(before.failure()));

  auto during = startTask(queue, sleeper(notes, Witness(alive), 1h));
  time->advance(30min);
  during.cancel();
  EXPECT_EQ(notes.size(), 1u);  // it goes on in a turn of its own, not inside cancel()
  time->runReady();
  EXPECT_TRUE(isCancellation(during.failure()));
  EXPECT_EQ(time->pendingDelayedWork(), 0u);

  auto after = startTask(queue, sleeper(notes, Witness(alive), 1s));
  time->advance(1s);
  after.cancel();
  time->advance(1h);
  EXPECT_FALSE(after.failure());
  EXPECT_EQ(notes, (Notes{"cancelled", "cancelled", "woke"}));
  EXPECT_EQ(alive, 0);
}

TEST_F(TaskTest, AnyNumberOfWaitersGoOnHoweverTheTaskEnds) {
  auto slow = startTask(queue, sleeper(notes, Witness(alive), 1s));
  startTask(queue, waitFor(notes, "first", slow));
  slow.whenFinished([this] { notes.push_back("callback"); });
  auto cancelledWaiter = startTask(queue, waitFor(notes, "second", slow));
  cancelledWaiter.cancel();  // does not interrupt the wait
  time->runReady();
  EXPECT_TRUE(notes.empty());
  slow.cancel();
  time->runReady();
  EXPECT_EQ(notes.front(), "cancelled");
  std::sort(notes.begin(), notes.end());
  EXPECT_EQ(notes, (Notes{"callback", "cancelled", "first", "second"}));
  startTask(queue, waitFor(notes, "late", slow));
  startTask(queue, waitFor(notes, "empty", TaskHandle()));
  slow.whenFinished([this] { notes.push_back("late callback"); });
  EXPECT_EQ(notes.size(), 4u);
  time->runReady();
  EXPECT_EQ(notes.size(), 7u);
}

TEST_F(TaskTest, AQueueThatEndsTakesItsTasksWithIt) {
  auto otherTime = ManualTime::make();
  auto sleeping = startTask(queue, sleeper(notes, Witness(alive), 1h));
  time->runReady();
  auto unstarted = startTask(queue, sleeper(notes, Witness(alive), 1h));
  startTask(otherTime->makeQueue(), waitFor(notes, "elsewhere", sleeping));
  auto waiting = otherTime->makeQueue();
  startTask(waiting, waitFor(notes, "waiter", sleeping));
  otherTime->runReady();
  EXPECT_EQ(alive, 2);
  time = nullptr;
  EXPECT_EQ(alive, 0);
  EXPECT_TRUE(isCancellation(sleeping.failure()));
  EXPECT_TRUE(isCancellation(unstarted.failure()));
  otherTime->runReady();
  EXPECT_EQ(notes, Notes{"waiter"});  // the waiter whose own queue is gone went with it
  sleeping.cancel();
}

using Start = std::function<void(Completion<int>)>;

Task<void> awaits(Notes& notes, [[maybe_unused]] Witness witness, Start start) {
  try {
    const int value = co_await awaitCallback<int>(start);
    notes.push_back(std::to_string(value));
  } catch (const std::runtime_error& error) {
    notes.push_back(error.what());
  }
}

TEST_F(TaskTest, CompletionsGiveOneResultOrFailureOrAbandonTheTask) {
  std::optional<Completion<int>> done;
  const Start handsOver = [&done](Completion<int> completion) { done = std::move(completion); };
  auto handle = startTask(queue, awaits(notes, Witness(alive), handsOver));
  time->runReady();
  handle.cancel();  // does not interrupt the wait
  time->runReady();
  EXPECT_FALSE(handle.isFinished());
  (*done)(7);
  (*done)(8);
  EXPECT_TRUE(notes.empty());  // resumed in a turn of its own
  time->runReady();
  EXPECT_EQ(notes, Notes{"7"});

  startTask(queue, awaits(notes, Witness(alive), handsOver));
  time->runReady();
  done->fail(std::make_exception_ptr(std::runtime_error("refused")));
  time->runReady();
  EXPECT_EQ(notes.back(), "refused");

  handle = startTask(queue, awaits(notes, Witness(alive), handsOver));
  time->runReady();
  EXPECT_EQ(alive, 1);
  done.reset();
  EXPECT_EQ(alive, 0);
  EXPECT_TRUE(isCancellation(handle.failure()));
  EXPECT_EQ(notes.size(), 2u);
}

Task<void> countOnThread(std::shared_ptr<SerialQueue> queue, std::shared_ptr<SerialQueue> platform,
                         int& count) {
  for (int i = 0; i < 200; ++i) {
    auto start = [platform, i](Completion<int> done) { platform->post([done, i] { done(i); }); };
    const int value = co_await awaitCallback<int>(start);
    if (value == i && queue->isCurrent()) ++count;
    if (i % 50 == 0) co_await sleepFor(1us);
  }
}

TEST_F(TaskTest, CompletionsAndCancellationsComeFromOtherThreads) {
  auto thread = std::make_shared<ThreadQueue>("task");
  auto platform = std::make_shared<ThreadQueue>("platform");
  const auto awaitEnd = [](const TaskHandle& handle) {
    std::promise<void> ended;
    handle.whenFinished([&] { ended.set_value(); });
    ASSERT_EQ(ended.get_future().wait_for(10s), std::future_status::ready);
  };
  int count = 0;
  awaitEnd(startTask(thread, countOnThread(thread, platform, count)));
  EXPECT_EQ(count, 200);
  for (int round = 0; round < 200; ++round) {
    auto handle = startTask(thread, sleeper(notes, Witness(alive), std::chrono::microseconds(round % 20)));
    handle.cancel();
    awaitEnd(handle);
  }
  // A task that sleeps does not keep the queue alive.
  const auto handle = startTask(thread, sleeper(notes, Witness(alive), 1h));
  thread = nullptr;
  EXPECT_TRUE(isCancellation(handle.failure()));
  EXPECT_EQ(notes.size(), 200u);
  EXPECT_EQ(alive, 0);
}

}  // namespace
}  // namespace kestrune
