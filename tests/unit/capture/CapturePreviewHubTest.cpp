#include <gtest/gtest.h>

#include <atomic>
#include <future>
#include <string>
#include <thread>
#include <vector>

#include "capture/CapturePreviewHub.h"
#include "runtime/ThreadQueue.h"
#include "support/ManualTime.h"

namespace kestrune {
namespace {

constexpr CapturePreviewHub::ObserverID kFirst{1};
constexpr CapturePreviewHub::ObserverID kSecond{2};

VideoSample frame(int number) {
  VideoSample sample;
  sample.presentationMicroseconds = number;
  return sample;
}

TEST(CapturePreviewHubTest, OnlyTheNewestFrameIsDelivered) {
  using Lines = std::vector<std::string>;
  const auto time = ManualTime::make();
  const auto capture = time->makeQueue("capture");
  const auto hub = std::make_shared<CapturePreviewHub>(time->makeQueue("main"));
  Lines seen;
  const auto noting = [&](std::string name) {
    return [&, name](const std::optional<VideoSample>& shown) {
      seen.push_back(name + (shown ? std::to_string(*shown->presentationMicroseconds) : "none"));
    };
  };
  const auto take = [&] {
    time->runReady();
    return std::exchange(seen, {});
  };
  capture->post([&] {
    for (int number = 1; number <= 10; ++number) hub->publish(frame(number));
  });
  EXPECT_EQ(take(), Lines{});  // nobody looks, and the next delivery is scheduled all the same
  hub->addObserver(kSecond, noting("b"));
  EXPECT_EQ(seen, Lines{"b10"});  // at once, of the stored frame
  hub->addObserver(kFirst, noting("a"));
  EXPECT_EQ(take(), (Lines{"b10", "a10"}));
  capture->post([&] {
    for (int number = 11; number <= 20; ++number) hub->publish(frame(number));
  });
  EXPECT_EQ(take(), (Lines{"a20", "b20"}));
  capture->post([&] {
    hub->publish(frame(21));
    hub->clear();
  });
  EXPECT_EQ(take(), (Lines{"anone", "bnone"}));
  hub->removeObserver(kSecond);
  hub->publish(frame(22));  // on the main queue
  EXPECT_EQ(seen, Lines{"a22"});
}

// What the thread sanitizer is to see: producers, and observers that come and go, at the same time.
TEST(CapturePreviewHubThreadTest, ThreadsMeetWithoutARace) {
  const auto main = std::make_shared<ThreadQueue>("main");
  const auto hub = std::make_shared<CapturePreviewHub>(main);
  constexpr int kFrames = 5000;
  std::atomic<std::int64_t> newest{0};
  std::atomic<int> wrongQueue{0};
  const auto observer = [&](const std::optional<VideoSample>& shown) {
    if (!main->isCurrent()) ++wrongQueue;
    if (shown) newest = *shown->presentationMicroseconds;
  };
  hub->addObserver(kFirst, observer);
  std::thread producer([&] {
    for (int number = 1; number <= kFrames; ++number) hub->publish(frame(number));
  });
  for (int turn = 0; turn < 500; ++turn) {
    hub->addObserver(kSecond, observer);
    hub->removeObserver(kSecond);
  }
  producer.join();
  std::promise<void> reached;
  main->post([&] { reached.set_value(); });
  ASSERT_EQ(reached.get_future().wait_for(std::chrono::seconds(10)), std::future_status::ready);
  EXPECT_EQ(newest, kFrames);
  EXPECT_EQ(wrongQueue, 0);
}

}  // namespace
}  // namespace kestrune
