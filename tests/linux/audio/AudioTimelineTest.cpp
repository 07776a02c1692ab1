#include <gtest/gtest.h>

#include <algorithm>
#include <random>

#include "platform/linux/audio/AudioTimeline.h"
#include "platform/linux/audio/SampleHandover.h"
#include "support/ManualTime.h"

namespace kestrune::linux_platform {
namespace {

TEST(AudioTimelineTest, SmoothsJitterAndFollowsADriftingClock) {
  AudioTimeline timeline(48000);
  std::mt19937 random(7);
  std::uniform_int_distribution<std::int64_t> jitter(-3000, 3000);
  std::int64_t last = 0;
  for (std::int64_t i = 0; i < 50 * 600; ++i) {
    const std::int64_t truth = 1'000'000 + i * 20'004;  // 200 parts per million slow
    if (i % 25 == 0) timeline.measured(truth + jitter(random));
    const std::int64_t time = timeline.stamp(960);
    if (i > 250) {
      ASSERT_NEAR(static_cast<double>(time), static_cast<double>(truth), 3400);
      ASSERT_NEAR(static_cast<double>(time - last), 20'004, 1500);
    }
    last = time;
  }
}

TEST(AudioTimelineTest, TakesOverAJumpAtOnceButNeverGoesBack) {
  AudioTimeline timeline(48000);
  const auto stamped = [&timeline](std::int64_t measured) {
    timeline.measured(measured);
    return timeline.stamp(960);
  };
  EXPECT_EQ(stamped(1'000'000), 1'000'000);
  EXPECT_EQ(timeline.stamp(960), 1'020'000);
  EXPECT_EQ(stamped(7'200'000'000), 7'200'000'000);
  EXPECT_EQ(stamped(5'000'000), 7'200'000'000);
  timeline.restart();
  EXPECT_FALSE(timeline.hasBegun());
  EXPECT_EQ(stamped(7'200'050'000), 7'200'050'000);
}

TEST(SampleHandoverTest, AReceiverThatWasHeldUpGetsTheNewestSecondAndThenGoesOn) {
  const auto time = ManualTime::make();
  std::vector<std::int64_t> received;
  const auto handover = std::make_shared<SampleHandover>(time->makeQueue(), [&](const AudioSample& sample) {
    received.push_back(*sample.presentationMicroseconds);
  });
  AudioTimeline timeline(48000);
  timeline.measured(0);
  const auto push = [&](int count) {
    for (; count > 0; --count) {
      AudioSample sample;
      sample.presentationMicroseconds = timeline.stamp(960);
      handover->push(std::move(sample));
    }
  };
  push(1);
  time->runReady();
  push(200);  // while the receiver stands still
  time->runReady();
  push(1);
  time->runReady();
  std::vector<std::int64_t> expected{0};
  for (std::int64_t piece = 151; piece <= 201; ++piece) expected.push_back(piece * 20'000);
  EXPECT_EQ(received, expected);
  push(3);
  handover->close();
  time->runReady();
  EXPECT_EQ(received, expected);
}

}  // namespace
}  // namespace kestrune::linux_platform
