#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <future>
#include <string>
#include <vector>

#include "runtime/Log.h"
#include "runtime/Published.h"
#include "runtime/ThreadQueue.h"
#include "support/ManualTime.h"

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
  // What is dropped may hold its own handle, and may post once more as it goes.
  const auto handle = std::make_shared<DelayedWork>();
  std::shared_ptr<void> dropped(nullptr, [queue = std::weak_ptr(queue_)](void*) {
    if (const auto alive = queue.lock()) alive->post([] { FAIL(); });
  });
  *handle = queue_->postAfter(10ms, [handle, dropped] { FAIL(); });
  queue_->post([dropped] { FAIL(); });
  endQueue();
  EXPECT_EQ(dropped.use_count(), 1);
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
  RunLoopQueue loop("loop");
  int runs = 0;
  for (const int expected : {2, 4}) {
    loop.post([&] {
      ++runs;
      loop.stop();
      loop.post([&] { ++runs; });
    });
    loop.run();
    EXPECT_EQ(runs, expected);
  }
}

TEST(ThreadQueue, KeepsTheOrderOfEachPosterOnItsOwnThread) {
  constexpr int kPieces = 500;
  std::array<std::vector<int>, 4> seen;
  std::promise<void> delayedRan;
  auto queue = std::make_shared<ThreadQueue>("com.example.a-rather-long-name");
  EXPECT_FALSE(queue->isCurrent());
  queue->postAfter(1ms, [&] {
    EXPECT_TRUE(queue->isCurrent());
    delayedRan.set_value();
  });
  std::vector<std::thread> posters;
  for (auto& values : seen) {
    posters.emplace_back([&values, queue] {
      for (int i = 0; i < kPieces; ++i) queue->post([&values, i] { values.push_back(i); });
    });
  }
  for (auto& poster : posters) poster.join();
  delayedRan.get_future().wait();
  posters.clear();
  queue = nullptr;  // runs what was posted, and joins
  for (const auto& values : seen) {
    EXPECT_EQ(values.size(), std::size_t{kPieces});
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
  auto tells = std::shared_ptr<void>(nullptr, [&](void*) { gone.set_value(); });
  auto queue = std::make_shared<ThreadQueue>("self");
  auto* raw = queue.get();
  raw->postAfter(1h, [tells] { FAIL(); });
  raw->post([held = std::move(queue)]() mutable { held = nullptr; });
  tells = nullptr;
  gone.get_future().wait();
}

TEST(Published, TellsOnlyOfChangesAndEachObserverOnce) {
  Published<int> value(1);
  std::vector<std::string> told;
  auto teller = [&](std::string name) {
    return [&told, name](int now) { told.push_back(name + std::to_string(now)); };
  };
  auto first = value.observe(teller("a"));
  auto correcting = value.observe([&](int now) {
    if (now == 5) value = 6;  // what it is being told of
  });
  auto last = value.observe(teller("b"));
  Observation ending;
  ending = value.observe([&](int now) {
    if (now != 7) return;
    last.reset();
    ending.reset();
  });
  auto late = value.observe(teller("c"));
  value.update([](int& same) { same = 1; });
  EXPECT_TRUE(told.empty());
  for (const int next : {5, 7, 8}) value = next;
  EXPECT_EQ(told, (std::vector<std::string>{"a5", "a6", "b6", "c6", "a7", "b7", "c7", "a8", "c8"}));
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
