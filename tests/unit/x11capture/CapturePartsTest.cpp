#include <gtest/gtest.h>

#include <random>

#include "platform/linux/capture/DirtyRegion.h"
#include "platform/linux/capture/DrawingWatch.h"
#include "platform/linux/capture/FramePacer.h"
#include "platform/linux/capture/FramePool.h"

namespace kestrune::linux_platform {
namespace {

using namespace std::chrono_literals;

TEST(DirtyRegionTest, CoversWhatWasAddedWithFewRectangles) {
  std::mt19937 random(3);
  const auto below = [&random](int limit) {
    return static_cast<int>(random() % static_cast<unsigned>(limit));
  };
  for (int round = 0; round < 50; ++round) {
    DirtyRegion region;
    std::vector<PixelRect> added;
    for (int i = 0; i < 100; ++i) {
      added.push_back({below(1900), below(1000), 1 + below(20), 1 + below(round + 1) + below(80)});
      region.add(added.back());
      ASSERT_LE(region.rectangles().size(), DirtyRegion::kLimit);
    }
    for (const PixelRect& each : added) {
      // Merging makes bounding boxes, so that each lies within one.
      ASSERT_TRUE(std::any_of(region.rectangles().begin(), region.rectangles().end(),
                              [&each](const PixelRect& outer) { return contains(outer, each); }));
    }
  }
}

TEST(DirtyRegionTest, KeepsApartWhatIsFarApart) {
  DirtyRegion region;
  region.add({0, 0, 0, 10});
  EXPECT_TRUE(region.isEmpty());
  region.add({0, 0, 10, 10});
  region.add({1800, 1000, 10, 10});
  EXPECT_EQ(region.rectangles().size(), 2U);
  region.add({12, 0, 10, 10});
  EXPECT_EQ(region.rectangles().size(), 2U);
  EXPECT_EQ(region.area(), 220 + 100);
}

TEST(FramePacerTest, RepeatsAfterALargeChangeThenGivesASignOfLife) {
  FramePacer pacer(16ms);
  EXPECT_FALSE(pacer.nextRepeat());
  EXPECT_LT(pacer.earliest(), 0ms);
  pacer.delivered(1000ms, 1.0);
  EXPECT_EQ(pacer.earliest(), 1016ms);
  for (const Duration repeat : FramePacer::kRepeats) {
    ASSERT_EQ(pacer.nextRepeat(), 1000ms + repeat);
    pacer.delivered(1000ms + repeat, 0);
  }
  EXPECT_EQ(pacer.nextRepeat(), 1000ms + FramePacer::kRepeats.back() + FramePacer::kSignOfLife);
  // A change starts over, and small ones after a large one neither take its repeats away nor prolong them.
  pacer.delivered(4000ms, 0.5);
  Duration time = 4020ms;
  for (; time < 5500ms; time += 20ms) {
    pacer.delivered(time, 0.001);
    ASSERT_LE(*pacer.nextRepeat(), time + FramePacer::kSmallRepeat);
  }
  pacer.delivered(5520ms, 0.001);
  EXPECT_EQ(pacer.nextRepeat(), 5520ms + FramePacer::kSmallRepeat);
}

TEST(FramePacerTest, SmallChangeIsRepeatedOnce) {
  FramePacer pacer(16ms);
  pacer.delivered(0ms, 0.001);
  const Duration repeat = FramePacer::kSmallRepeat;
  ASSERT_EQ(pacer.nextRepeat(), repeat);
  pacer.delivered(repeat, 0);
  EXPECT_EQ(pacer.nextRepeat(), repeat + 1s);
  // Whoever begins with a picture gets it sharp.
  pacer.delivered(repeat + 60ms, 0);
  pacer.startedAnew();
  EXPECT_EQ(pacer.nextRepeat(), repeat + 60ms + FramePacer::kRepeats.front());
  // Never before the minimum interval has passed.
  FramePacer slow(1500ms);
  slow.delivered(0ms, 0.001);
  EXPECT_EQ(slow.nextRepeat(), 1500ms);
}

TEST(FramePacerTest, NeitherALateWakeUpNorARepeatPutsOffTheNextChange) {
  FramePacer pacer(16ms);
  pacer.delivered(pacer.timeOf(100ms), 1);
  EXPECT_EQ(pacer.timeOf(117ms), 116ms);
  EXPECT_EQ(pacer.timeOf(118ms), 118ms);
  pacer.delivered(pacer.timeOf(117ms), 1);
  EXPECT_EQ(pacer.earliest(), 132ms);
  pacer.delivered(150ms, 0);
  EXPECT_EQ(pacer.earliest(), 132ms);
  EXPECT_EQ(pacer.earliestRepeat(), 166ms);
  // Just after a repeat of the same instant a time must still rise.
  pacer.delivered(200ms, 1);
  pacer.delivered(216ms, 0);
  EXPECT_EQ(pacer.timeOf(217ms), 217ms);
}

TEST(DrawingWatchTest, WaitsForThePiecesOnlyWherePicturesComeInPieces) {
  DrawingWatch watch;
  // In one go: never a wait.
  for (Duration time = 0ms; time < 1000ms; time += 33ms) {
    watch.drawn(time);
    ASSERT_FALSE(watch.pauseExpectedAt());
    watch.captured(time);
  }
  // The first picture in pieces is seen to be so by the piece that comes too late.
  watch.drawn(1000ms);
  watch.captured(1000ms);
  watch.drawn(1002ms);
  watch.captured(1016ms);
  for (Duration time = 1033ms; time < 2000ms; time += 33ms) {
    watch.drawn(time);
    ASSERT_EQ(watch.pauseExpectedAt(), time + DrawingWatch::kPause) << time.count();
    watch.drawn(time + 1ms);
    ASSERT_EQ(watch.pauseExpectedAt(), time + 1ms + DrawingWatch::kPause);
    for (Duration more = 2ms; more < 20ms; more += 1ms) watch.drawn(time + more);
    ASSERT_EQ(watch.pauseExpectedAt(), time + DrawingWatch::kPatience);
    watch.captured(time + DrawingWatch::kPatience);
  }
}

TEST(FramePoolTest, CarriesOverWhatDidNotChange) {
  int released = 0;
  FramePool pool(64, 32, 2, [&released] { ++released; });
  const auto paint = [](const PixelBuffer& picture, const PixelRect& area, int value) {
    for (int y = area.y; y < area.y + area.height; ++y) {
      std::fill_n(picture.plane(0).data + y * picture.plane(0).stride + area.x, area.width,
                  static_cast<std::uint8_t>(value));
    }
  };
  const auto luma = [](const PixelBuffer& picture, int x, int y) {
    return int{picture.plane(0).data[y * picture.plane(0).stride + x]};
  };
  const auto deliver = [&](const PixelRect& area, int value) {
    paint(*pool.beginPicture({area}), area, value);
    return pool.finishPicture();
  };
  EXPECT_FALSE(pool.hasPicture());
  auto first = deliver({0, 0, 64, 32}, 50);
  auto second = deliver({16, 0, 16, 16}, 60);
  EXPECT_FALSE(pool.isAvailable());
  first.reset();
  EXPECT_EQ(released, 1);
  EXPECT_TRUE(pool.isAvailable());
  auto third = deliver({32, 16, 16, 16}, 70);
  second.reset();
  auto fourth = deliver({0, 0, 2, 2}, 80);
  for (const auto& [x, y, value] : {std::tuple{0, 0, 80}, {20, 4, 60}, {40, 20, 70}, {63, 31, 50}}) {
    EXPECT_EQ(luma(*fourth, x, y), value) << x << "," << y;
  }
  EXPECT_EQ(luma(*third, 0, 0), 50) << "a picture that is out must not change";
  third.reset();
  // One that is begun and given up is not relied on.
  paint(*pool.beginPicture({{0, 0, 64, 32}}), {0, 0, 64, 32}, 99);
  auto fifth = deliver({2, 2, 2, 2}, 90);
  EXPECT_EQ(luma(*fifth, 20, 4), 60);
  EXPECT_EQ(luma(*fifth, 2, 2), 90);
  fourth.reset();
  const auto again = pool.repeatPicture();
  EXPECT_EQ(again->plane(0).data, fifth->plane(0).data);
}

}  // namespace
}  // namespace kestrune::linux_platform
