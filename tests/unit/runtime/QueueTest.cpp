#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <future>
#include <stdexcept>
#include <string>
#include <vector>

#include "runtime/Log.h"
#include "runtime/ManualTime.h"
#include "runtime/Published.h"
#include "runtime/ThreadQueue.h"

namespace kestrune {
namespace {

using namespace std::chrono_literals;

/// A clock that a test moves on while a real run loop reads it.
class SettableClock final : public Clock {
 public:
  Duration continuousNow() const override { return Duration(now.load()); }
  double uptimeSeconds() const override { return 0; }
  std::int64_t wallClockMilliseconds() const override { return 0; }
  std::atomic<Duration::rep> now{0};
};

/// Posts a stop behind everything that is due and runs until then.
void drain(RunLoopQueue& loop) {
  loop.stop();
  loop.run();
}

// The rules that every queue keeps, on the manual and on the real one.
class QueueRules : public ::testing::TestWithParam<bool> {
 protected:
  QueueRules() {
    if (GetParam()) {
      time_ = ManualTime::make();
      queue_ = time_->makeQueue("rules");
    } else {
      queue_ = loop_ = std::make_shared<RunLoopQueue>("rules", clock_);
    }
  }
  void run(Duration span = Duration::zero()) {
    if (time_) {
      time_->advance(span);
    } else {
      clock_->now += span.count();
      drain(*loop_);
    }
  }
  SerialQueue::Work note(int value) {
    return [this, value] { order_.push_back(value); };
  }
  void endQueue() {
    time_ = nullptr;
    loop_ = nullptr;
    queue_ = nullptr;
  }

  std::shared_ptr<ManualTime> time_;
  std::shared_ptr<SettableClock> clock_ = std::make_shared<SettableClock>();
  std::shared_ptr<RunLoopQueue> loop_;
  std::shared_ptr<SerialQueue> queue_;
  std::vector<int> order_;
};
INSTANTIATE_TEST_SUITE_P(Kinds, QueueRules, ::testing::Values(true, false));

TEST_P(QueueRules, RunsInOrderOfPostingAndOfDueTime) {
  queue_->postAfter(20ms, note(6));
  queue_->postAfter(10ms, note(4));
  queue_->postAfter(10ms, note(5));
  queue_->post(note(1));
  queue_->postAfter(-1ms, note(2));
  queue_->post([this] {
    order_.push_back(3);
    queue_->post(note(33));
  });
  EXPECT_TRUE(order_.empty());
  run(9ms);
  EXPECT_EQ(order_, (std::vector{1, 2, 3, 33}));
  run(1ms);
  EXPECT_EQ(order_, (std::vector{1, 2, 3, 33, 4, 5}));
  run(10ms);
  EXPECT_EQ(order_.back(), 6);
}

TEST_P(QueueRules, CancelledWorkNeverStartsAndIsDestroyedAtOnce) {
  auto held = std::make_shared<int>(0);
  DelayedWork timer = queue_->postAfter(10ms, [held, this] { order_.push_back(1); });
  EXPECT_TRUE(timer.isPending());
  EXPECT_EQ(held.use_count(), 2);
  EXPECT_TRUE(timer.cancel());
  EXPECT_EQ(held.use_count(), 1);
  EXPECT_FALSE(timer.cancel());
  EXPECT_FALSE(timer.isPending());

  // Due at the same instant: the first may still cancel the second, but no longer itself.
  DelayedWork first;
  DelayedWork second;
  first = queue_->postAfter(10ms, [&] {
    order_.push_back(2);
    EXPECT_FALSE(first.cancel());
    EXPECT_TRUE(second.cancel());
  });
  second = queue_->postAfter(10ms, note(3));
  run(1s);
  EXPECT_EQ(order_, std::vector{2});
  EXPECT_FALSE(DelayedWork().cancel());
}

TEST_P(QueueRules, EndDestroysWaitingWorkUnrun) {
  auto held = std::make_shared<int>(0);
  // What is dropped may hold its own handle, and may post once more as it goes.
  struct PostsWhenDropped {
    std::weak_ptr<SerialQueue> queue;
    ~PostsWhenDropped() {
      if (auto strong = queue.lock()) strong->post([] { FAIL(); });
    }
  };
  auto handle = std::make_shared<DelayedWork>();
  auto dropped = std::make_shared<PostsWhenDropped>(queue_);
  *handle = queue_->postAfter(10ms, [held, handle, dropped] { FAIL(); });
  dropped = nullptr;
  queue_->post([held] { FAIL(); });
  endQueue();
  EXPECT_EQ(held.use_count(), 1);
  EXPECT_EQ(handle.use_count(), 1);
  EXPECT_FALSE(handle->isPending());
}

TEST_P(QueueRules, ManyCancelledTimersDoNotDisturbTheOthers) {
  DelayedWork kept = queue_->postAfter(1h, note(1));
  for (int i = 0; i < 2000; ++i) queue_->postAfter(1h, note(-1)).cancel();
  queue_->postAfter(1h, note(2));
  run(1h);
  EXPECT_EQ(order_, (std::vector{1, 2}));
  EXPECT_FALSE(kept.isPending());
}

TEST(RunLoopQueue, StopEndsTheRunAndALaterRunGoesOn) {
  auto loop = std::make_shared<RunLoopQueue>("loop");
  int runs = 0;
  loop->post([&] {
    loop->stop();
    loop->post([&] { ++runs; });
  });
  loop->run();
  EXPECT_EQ(runs, 1);
  loop->post([&] {
    ++runs;
    loop->stop();
  });
  loop->run();
  EXPECT_EQ(runs, 2);
}

TEST(RunLoopQueueDeathTest, WorkThatThrowsEndsTheProcess) {
  ::testing::FLAGS_gtest_death_test_style = "threadsafe";
  EXPECT_DEATH(
      {
        RunLoopQueue loop("throws");
        loop.post([] { throw std::runtime_error("nobody catches this"); });
        drain(loop);
      },
      "nobody catches this");
}

TEST(ThreadQueue, RunsOnItsOwnThreadOnly) {
  auto queue = std::make_shared<ThreadQueue>("com.example.a-rather-long-name");
  auto other = std::make_shared<ThreadQueue>("other");
  EXPECT_FALSE(queue->isCurrent());
  std::promise<std::pair<bool, bool>> inside;
  queue->post([&] { inside.set_value({queue->isCurrent(), other->isCurrent()}); });
  EXPECT_EQ(inside.get_future().get(), (std::pair{true, false}));
  EXPECT_EQ(queue->name(), "com.example.a-rather-long-name");
}

TEST(ThreadQueue, KeepsTheOrderOfEachPosterAndRunsDelayedWork) {
  constexpr int kPosters = 4;
  constexpr int kPieces = 500;
  std::vector<std::vector<int>> seen(kPosters);
  std::promise<void> delayedRan;
  auto queue = std::make_shared<ThreadQueue>("order");
  queue->postAfter(1ms, [&] { delayedRan.set_value(); });
  std::vector<std::thread> posters;
  for (std::size_t poster = 0; poster < kPosters; ++poster) {
    posters.emplace_back([&seen, queue, poster] {
      for (int i = 0; i < kPieces; ++i) queue->post([&seen, poster, i] { seen[poster].push_back(i); });
    });
  }
  for (auto& poster : posters) poster.join();
  delayedRan.get_future().wait();
  posters.clear();
  queue = nullptr;  // runs what was posted, and joins
  for (const auto& values : seen) {
    ASSERT_EQ(values.size(), static_cast<std::size_t>(kPieces));
    EXPECT_TRUE(std::is_sorted(values.begin(), values.end()));
  }
}

TEST(ThreadQueue, CancelFromAnotherThreadAndStartExcludeEachOther) {
  for (int round = 0; round < 200; ++round) {
    std::atomic<int> ran{0};
    auto queue = std::make_shared<ThreadQueue>("race");
    DelayedWork work = queue->postAfter(Duration::zero(), [&] { ++ran; });
    const bool cancelled = work.cancel();
    queue = nullptr;
    EXPECT_EQ(ran.load(), cancelled ? 0 : 1);
  }
}

TEST(ThreadQueue, MayBeDestroyedByItsOwnWork) {
  std::promise<void> gone;
  struct Tells {
    explicit Tells(std::promise<void>& told) : promise(told) {}
    ~Tells() { promise.set_value(); }
    std::promise<void>& promise;
  };
  auto tells = std::make_shared<Tells>(gone);
  auto queue = std::make_shared<ThreadQueue>("self");
  auto* raw = queue.get();
  raw->postAfter(1h, [tells] { FAIL(); });
  raw->post([held = std::move(queue)]() mutable { held = nullptr; });
  tells = nullptr;
  gone.get_future().wait();
}

TEST(ManualTime, OneLineOfWorkForAllQueuesAndTheClockStandsAtEachInstant) {
  auto time = ManualTime::make();
  auto a = time->makeQueue("a");
  auto b = time->makeQueue("b");
  EXPECT_TRUE(a->isCurrent() && b->isCurrent());
  const Duration start = time->continuousNow();
  std::vector<std::pair<char, Duration>> seen;
  auto see = [&](char name) { seen.emplace_back(name, time->continuousNow() - start); };
  b->postAfter(2s, [&] { see('b'); });
  a->postAfter(1s, [&] {
    see('a');
    EXPECT_TRUE(a->isCurrent());
    EXPECT_FALSE(b->isCurrent());
    b->postAfter(1s, [&] { see('c'); });
  });
  a->postAfter(3s, [&] { see('d'); });
  EXPECT_EQ(time->pendingDelayedWork(), 3u);
  time->runReady();
  EXPECT_TRUE(seen.empty());
  time->advance(2500ms);
  using Seen = std::pair<char, Duration>;
  EXPECT_EQ(seen, (std::vector<Seen>{{'a', 1s}, {'b', 2s}, {'c', 2s}}));
  EXPECT_EQ(time->continuousNow() - start, 2500ms);
  EXPECT_DOUBLE_EQ(time->uptimeSeconds(), std::chrono::duration<double>(start).count() + 2.5);
  EXPECT_EQ(time->pendingDelayedWork(), 1u);
  time->discardAll();
  time->advance(1h);
  EXPECT_EQ(seen.size(), 3u);
  std::weak_ptr<ManualTime> weak = time;
  time = nullptr;
  EXPECT_TRUE(weak.expired());
  a->post([] { FAIL(); });
  EXPECT_FALSE(a->postAfter(1s, [] { FAIL(); }).isPending());
}

TEST(Published, TellsOnlyOfChangesAndEachObserverOnce) {
  Published<int> value(1);
  std::vector<std::string> told;
  auto teller = [&](std::string name) {
    return [&told, name](int now) { told.push_back(name + std::to_string(now)); };
  };
  auto first = value.observe(teller("a"));
  // Corrects what it sees while it is being told of it.
  auto correcting = value.observe([&](int now) {
    if (now == 5) value = 6;
  });
  auto last = value.observe(teller("b"));
  value = 1;
  value.update([](int&) {});
  EXPECT_TRUE(told.empty());
  value = 2;
  value = 5;
  EXPECT_EQ(told, (std::vector<std::string>{"a2", "b2", "a5", "a6", "b6"}));
}

TEST(Published, ObservationsMayEndDuringANotification) {
  auto value = std::make_unique<Published<int>>(0);
  int laterCalls = 0;
  int ownCalls = 0;
  Observation own;
  Observation later;
  own = value->observe([&](int) {
    ++ownCalls;
    own.reset();
    later.reset();
  });
  later = value->observe([&](int) { ++laterCalls; });
  *value = 1;
  *value = 2;
  EXPECT_EQ(ownCalls, 1);
  EXPECT_EQ(laterCalls, 0);
  Observation outlives = value->observe([](int) {});
  value = nullptr;
  outlives.reset();
}

TEST(Log, SinkGetsEveryFieldAndAnEmptySinkDropsLines) {
  struct Sink final : LogSink {
    void write(LogLevel level, std::string_view subsystem, std::string_view category,
               std::string_view message) override {
      lines.push_back(std::to_string(static_cast<int>(level)) + "|" + std::string(subsystem) + "|" +
                      std::string(category) + "|" + std::string(message));
      if (message == "again") Logger("Inner").error("from the sink");
    }
    std::vector<std::string> lines;
  };
  auto sink = std::make_shared<Sink>();
  auto before = setLogSink(sink);
  const Logger logger("Capture");
  logger.notice("up");
  logger.info("again");  // no lock is held while a sink writes
  EXPECT_EQ(setLogSink(nullptr), sink);
  logger.error("nowhere");
  setLogSink(before);
  EXPECT_EQ(sink->lines, (std::vector<std::string>{"2|com.fennwick.Kestrune|Capture|up",
                                                   "1|com.fennwick.Kestrune|Capture|again",
                                                   "3|com.fennwick.Kestrune|Inner|from the sink"}));
}

TEST(Log, StandardErrorLinesAreWholeFilteredAndNotForgeable) {
  auto sink = makeStandardErrorSink(LogLevel::notice);
  ::testing::internal::CaptureStderr();
  sink->write(LogLevel::info, "s", "App", "too low");
  sink->write(LogLevel::error, "s", "App", "one\nfake\x1b[2K\x7f Grüße");
  const std::string text = ::testing::internal::GetCapturedStderr();
  EXPECT_NE(text.find(" error  [App] one?fake?[2K? Grüße\n"), std::string::npos) << text;
  EXPECT_EQ(text.find("too low"), std::string::npos);
  EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 1);
}

}  // namespace
}  // namespace kestrune
