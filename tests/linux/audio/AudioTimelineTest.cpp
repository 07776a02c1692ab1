#include <gtest/gtest.h>

#include <algorithm>
#include <random>

#include "platform/linux/audio/AudioTimeline.h"

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

}  // namespace
}  // namespace kestrune::linux_platform
