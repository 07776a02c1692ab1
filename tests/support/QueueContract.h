#pragma once

#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <future>
#include <memory>
#include <utility>
#include <vector>

#include "runtime/SerialQueue.h"

namespace kestrune {

using namespace std::chrono_literals;

/// A clock that a test moves on while a real queue reads it.
class SettableClock final : public Clock {
 public:
  Duration continuousNow() const override { return Duration(now.load()); }
  double uptimeSeconds() const override { return 0; }
  std::int64_t wallClockMilliseconds() const override { return 0; }
  std::atomic<Duration::rep> now{0};
};

/// A queue under test. Nothing runs but within run() and, where the queue runs posted work at its end, end().
class QueueLab {
 public:
  virtual ~QueueLab() = default;
  virtual std::shared_ptr<SerialQueue> queue() = 0;
  /// Lets `span` pass and runs what is due then.
  virtual void run(Duration span) = 0;
  virtual void end() = 0;
  virtual bool runsPostedWorkAtEnd() const = 0;
};

/// A queue that runs on a thread of its own, held by a piece of work outside run(). `Owner` is destroyed to
/// end it.
template <class Owner>
class ThreadQueueLab final : public QueueLab {
 public:
  using GetQueue = std::function<std::shared_ptr<SerialQueue>(const std::shared_ptr<Owner>&)>;

  explicit ThreadQueueLab(GetQueue getQueue)
      : owner_(std::make_shared<Owner>("rules", clock_)), getQueue_(std::move(getQueue)) {
    hold();
  }
  ~ThreadQueueLab() override { end(); }

  std::shared_ptr<SerialQueue> queue() override { return getQueue_(owner_); }
  void run(Duration span) override {
    clock_->now += span.count();
    held_.set_value();
    // One turn to notice what is due, one behind that, one behind what that posts.
    for (int turn = 0; turn < 3; ++turn) {
      std::promise<void> done;
      queue()->post([&] { done.set_value(); });
      ASSERT_EQ(done.get_future().wait_for(10s), std::future_status::ready);
    }
    hold();
  }
  void end() override {
    if (!owner_) return;
    held_.set_value();
    owner_ = nullptr;
  }
  bool runsPostedWorkAtEnd() const override { return true; }

 private:
  void hold() {
    held_ = {};
    queue()->post([held = held_.get_future()] { held.wait(); });
  }

  const std::shared_ptr<SettableClock> clock_ = std::make_shared<SettableClock>();
  std::shared_ptr<Owner> owner_;
  const GetQueue getQueue_;
  std::promise<void> held_;
};

/// The rules that every queue keeps. Each test program that has a queue instantiates it with that.
class QueueContract : public ::testing::TestWithParam<std::function<std::unique_ptr<QueueLab>()>> {
 protected:
  SerialQueue& queue() { return *lab_->queue(); }
  SerialQueue::Work note(int value) {
    return [this, value] { order_.push_back(value); };
  }

  const std::unique_ptr<QueueLab> lab_ = GetParam()();
  std::vector<int> order_;  // read between two runs
};

TEST_P(QueueContract, RunsInOrderOfPostingAndOfDueTime) {
  queue().postAfter(20ms, note(6));
  queue().postAfter(10ms, note(4));
  queue().postAfter(10ms, note(5));
  queue().post(note(1));
  queue().postAfter(-1ms, note(2));
  queue().post([this] {
    order_.push_back(3);
    queue().post(note(33));
  });
  lab_->run(9ms);
  EXPECT_EQ(order_, (std::vector{1, 2, 3, 33}));
  lab_->run(1ms);
  EXPECT_EQ(order_, (std::vector{1, 2, 3, 33, 4, 5}));
  lab_->run(10ms);
  EXPECT_EQ(order_.back(), 6);
}

TEST_P(QueueContract, CancelledWorkNeverStartsAndIsDestroyedAtOnce) {
  auto held = std::make_shared<int>(0);
  DelayedWork timer = queue().postAfter(10ms, [held, this] { order_.push_back(1); });
  EXPECT_TRUE(timer.isPending());
  EXPECT_EQ(held.use_count(), 2);
  EXPECT_TRUE(timer.cancel());
  EXPECT_EQ(held.use_count(), 1);
  EXPECT_FALSE(timer.cancel());
  EXPECT_FALSE(timer.isPending());

  // Due at the same instant: the first may still cancel the second, but no longer itself.
  DelayedWork first;
  DelayedWork second;
  first = queue().postAfter(10ms, [&] {
    order_.push_back(2);
    EXPECT_FALSE(first.cancel());
    EXPECT_TRUE(second.cancel());
  });
  second = queue().postAfter(10ms, note(3));
  lab_->run(1s);
  EXPECT_EQ(order_, std::vector{2});
  EXPECT_FALSE(DelayedWork().cancel());
}

TEST_P(QueueContract, EndDestroysWaitingWork) {
  // What is dropped may hold its own handle, and may post once more as it goes.
  const auto handle = std::make_shared<DelayedWork>();
  std::shared_ptr<void> dropped(nullptr, [queue = std::weak_ptr(lab_->queue())](void*) {
    if (const auto alive = queue.lock()) alive->post([] { FAIL(); });
  });
  *handle = queue().postAfter(10ms, [handle, dropped] { FAIL(); });
  queue().post([this, dropped] { EXPECT_TRUE(lab_->runsPostedWorkAtEnd()); });
  lab_->end();
  EXPECT_EQ(dropped.use_count(), 1);
  EXPECT_EQ(handle.use_count(), 1);
  EXPECT_FALSE(handle->isPending());
}

TEST_P(QueueContract, ManyCancelledTimersDoNotDisturbTheOthers) {
  DelayedWork kept = queue().postAfter(1h, note(1));
  for (int i = 0; i < 2000; ++i) queue().postAfter(1h, note(-1)).cancel();
  queue().postAfter(1h, note(2));
  lab_->run(1h);
  EXPECT_EQ(order_, (std::vector{1, 2}));
  EXPECT_FALSE(kept.isPending());
}

}  // namespace kestrune
