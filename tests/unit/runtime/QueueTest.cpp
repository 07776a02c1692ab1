#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <future>
#include <string>
#include <vector>

#include "runtime/Log.h"
#include "runtime/Published.h"
#include "runtime/ThreadQueue.h"
#include "support/ManualTime.h"
#include "support/QueueContract.h"

namespace kestrune {
namespace {

using namespace std::chrono_literals;

class ManualLab final : public QueueLab {
 public:
  std::shared_ptr<SerialQueue> queue() override { return queue_; }
  void run(Duration span) override { time_->advance(span); }
  void end() override {
    time_ = nullptr;
    queue_ = nullptr;
  }
  bool runsPostedWorkAtEnd() const override { return false; }

 private:
  std::shared_ptr<ManualTime> time_ = ManualTime::make();
  std::shared_ptr<SerialQueue> queue_ = time_->makeQueue("rules");
};

class RunLoopLab final : public QueueLab {
 public:
  std::shared_ptr<SerialQueue> queue() override { return loop_; }
  void run(Duration span) override {
    clock_->now += span.count();
    loop_->stop();
    loop_->run();
  }
  void end() override { loop_ = nullptr; }
  bool runsPostedWorkAtEnd() const override { return false; }

 private:
  const std::shared_ptr<SettableClock> clock_ = std::make_shared<SettableClock>();
  std::shared_ptr<RunLoopQueue> loop_ = std::make_shared<RunLoopQueue>("rules", clock_);
};

INSTANTIATE_TEST_SUITE_P(
    Runtime, QueueContract,
    ::testing::Values([]() -> std::unique_ptr<QueueLab> { return std::make_unique<ManualLab>(); },
                      []() -> std::unique_ptr<QueueLab> { return std::make_unique<RunLoopLab>(); },
                      []() -> std::unique_ptr<QueueLab> {
                        return std::make_unique<ThreadQueueLab<ThreadQueue>>(
                            [](const auto& owner) { return owner; });
                      }));

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
  EXPECT_EQ(gone.get_future().wait_for(10s), std::future_status::ready);
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
