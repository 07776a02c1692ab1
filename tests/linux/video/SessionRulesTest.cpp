#include <gtest/gtest.h>

#include <random>
#include <vector>

#include "platform/linux/video/CompressionSettings.h"
#include "platform/linux/video/KeyframeSchedule.h"
#include "platform/linux/video/RateBudget.h"
#include "platform/linux/video/VideoStatus.h"

namespace kestrune::linux_platform {
namespace {

/// Asks the schedule, and tells it that its answer was followed.
bool isKeyframe(KeyframeSchedule& schedule, std::optional<std::int64_t> microseconds,
                bool isUnchanged = false) {
  const bool isDue = schedule.isDue(microseconds, isUnchanged);
  schedule.noteEncoded(isDue, microseconds, isUnchanged);
  return isDue;
}

TEST(KeyframeSchedule, TheLimitInFramesOrInTimeWhicheverComesFirst) {
  KeyframeSchedule schedule(4, 2'000'000);
  EXPECT_TRUE(isKeyframe(schedule, 0, true));  // the first frame, whatever it is
  KeyframeSchedule moving(4, 2'000'000);
  for (std::int64_t frame = 0; frame < 40; ++frame) {
    ASSERT_EQ(isKeyframe(moving, frame), frame % 4 == 0) << frame;
  }
  EXPECT_TRUE(isKeyframe(moving, 40));
  EXPECT_FALSE(isKeyframe(moving, 2'000'039));
  EXPECT_TRUE(isKeyframe(moving, 2'000'040));
  EXPECT_FALSE(isKeyframe(moving, std::nullopt));
  EXPECT_FALSE(isKeyframe(moving, -5));
}

TEST(KeyframeSchedule, NobodyWaitsForAKeyframeWhereAnUnchangedPictureCanBeOne) {
  constexpr bool kUnchanged = true;
  KeyframeSchedule schedule(120, 2'000'000);
  EXPECT_TRUE(isKeyframe(schedule, 0));
  // A still screen needs none.
  for (std::int64_t time = 1'000'000; time < 9'000'000; time += 1'000'000) {
    ASSERT_FALSE(isKeyframe(schedule, time, kUnchanged));
  }
  // Its change goes first, and the repeat is the keyframe; then it is still again.
  EXPECT_FALSE(isKeyframe(schedule, 9'000'000));
  EXPECT_TRUE(isKeyframe(schedule, 9'050'000, kUnchanged));
  EXPECT_FALSE(isKeyframe(schedule, 9'125'000, kUnchanged));
  // A little early, where there is a repeat.
  EXPECT_FALSE(isKeyframe(schedule, 10'600'000));
  EXPECT_TRUE(isKeyframe(schedule, 10'650'000, kUnchanged));
  // Where repeats come late, the change after the one that was put first is the keyframe.
  EXPECT_FALSE(isKeyframe(schedule, 13'000'000));
  EXPECT_FALSE(isKeyframe(schedule, 13'600'000, kUnchanged));
  EXPECT_TRUE(isKeyframe(schedule, 14'200'000));
}

TEST(RateBudget, HoldsEverySpanToItsRateWhateverTheGaps) {
  constexpr double kRate = 4'000'000;
  constexpr double kSize = 2'000'000;
  constexpr double kInterval = 1.0 / 60;
  std::mt19937 random(1);
  RateBudget budget(static_cast<std::int64_t>(kRate), static_cast<std::int64_t>(kSize), 0.9);
  double model = kSize * 0.9;  // an encoder's: it knows frames only, and spends what it has at times
  std::int64_t now = 0;
  std::vector<std::pair<std::int64_t, double>> sent;
  for (int frame = 0; frame < 3000; ++frame) {
    now += random() % 10 == 0 ? random() % 1'500'000 : 16'667;
    const double credit = budget.creditForFrame(now, 16'667);
    ASSERT_GE(credit, 0);
    ASSERT_LE(credit, kSize);
    EXPECT_LE(model, budget.available() + 1);
    const double share = static_cast<double>(random() % 100) / 100;
    const auto bits = static_cast<std::int64_t>(random() % 5 == 0 ? model : model * share * kInterval);
    model = std::min(kSize, model - static_cast<double>(bits) + credit);
    budget.noteEncoded(bits, credit);
    sent.emplace_back(now, static_cast<double>(bits));
  }
  for (std::size_t first = 0; first < sent.size(); ++first) {
    double bits = 0;
    for (std::size_t last = first; last < sent.size() && sent[last].first < sent[first].first + 1'000'000;
         ++last) {
      bits += sent[last].second;
    }
    ASSERT_LE(bits, kRate + kSize + 1);
  }
}

TEST(RateBudget, APauseFillsTheBucketAndADebtIsPaidFirst) {
  RateBudget budget(1'000'000, 500'000, 1.0);
  budget.noteEncoded(700'000, budget.creditForFrame(0, 0));
  EXPECT_EQ(budget.available(), -200'000);
  // The encoder's model forgave the debt; it is credited with nothing until that is made good.
  EXPECT_EQ(budget.creditForFrame(100'000, 0), 0);
  budget.noteEncoded(0, 0);
  EXPECT_EQ(budget.creditForFrame(300'000, 0), 100'000);
  budget.noteEncoded(0, 100'000);
  EXPECT_EQ(budget.creditForFrame(10'000'000, 0), 400'000);
  budget.noteEncoded(0, 400'000);
  EXPECT_EQ(budget.creditForFrame(5, 0), 0);  // time that runs backwards
  EXPECT_EQ(budget.available(), 500'000);
}

TEST(CompressionSettings, TakesWhatASoftwareSessionCanDoAndRefusesTheRest) {
  using Key = CompressionPropertyKey;
  CompressionSettings settings;
  EXPECT_EQ(settings.apply({Key::realTime, true}), 0);
  EXPECT_EQ(settings.apply({Key::allowFrameReordering, true}), kPropertyNotSupported);
  EXPECT_EQ(settings.apply({Key::maxFrameDelayCount, std::int64_t{1}}), 0);
  EXPECT_EQ(settings.apply({Key::profileLevel, ProfileLevel::hevcMainAuto}), kPropertyNotSupported);
  EXPECT_EQ(settings.apply({Key::averageBitRate, std::int64_t{0}}), kParameterError);
  EXPECT_EQ(settings.apply({Key::averageBitRate, true}), kParameterError);
  EXPECT_EQ(settings.apply({Key::dataRateLimits, DataRateLimit{1000, 0}}), kParameterError);

  // The rate and the burst share the limit between them.
  EXPECT_EQ(settings.apply({Key::averageBitRate, std::int64_t{2'000'000}}), 0);
  EXPECT_EQ(settings.apply({Key::dataRateLimits, DataRateLimit{375'000, 1}}), 0);
  EXPECT_EQ(settings.sustainedBitRate(), 2'000'000);
  EXPECT_EQ(settings.burstBits(), 1'000'000);
  EXPECT_EQ(settings.apply({Key::dataRateLimits, DataRateLimit{125'000, 1}}), 0);
  EXPECT_EQ(settings.sustainedBitRate(), 1'000'000);
  EXPECT_EQ(settings.burstBits(), 50'000);
}

}  // namespace
}  // namespace kestrune::linux_platform
