#include <gtest/gtest.h>

#include "CaptureTools.h"
#include "platform/linux/capture/FramePacer.h"
#include "support/XServerFixture.h"

namespace kestrune::linux_platform {
namespace {

using testing::XServer;

constexpr std::uint32_t kRed = 0xd02010;
constexpr std::uint32_t kGreen = 0x20c040;
constexpr std::uint32_t kBlue = 0x1030e0;
constexpr std::uint32_t kWhite = 0xffffff;

class X11CaptureTest : public ::testing::Test {
 protected:
  XServer server{640, 360};
  Painter painter{server.displayName()};
  Receiver receiver{server.displayName(), sized(320, 180)};
};

class X11CapturePictureTest : public ::testing::TestWithParam<const char*> {};

TEST_P(X11CapturePictureTest, WhatIsPaintedComesOutInColourAndPlace) {
  XServer server(640, 360, XServer::Kind::xvfb, GetParam());
  Painter painter(server.displayName());
  painter.fill({0, 0, 640, 360}, kBlue);
  painter.fill({100, 50, 200, 100}, kRed);
  Receiver receiver(server.displayName(), sized(320, 200));
  ASSERT_EQ(receiver.start(), "");
  // 320x180 with bars of 10 rows.
  EXPECT_TRUE(receiver.waitForColours({{0, 9, 0}, {319, 190, 0}, {2, 12, kBlue}, {318, 188, kBlue}}));
  EXPECT_TRUE(receiver.waitForColours({{52, 37, kRed}, {148, 82, kRed}, {46, 37, kBlue}}));
  EXPECT_TRUE(receiver.waitForColours({{154, 82, kBlue}, {100, 88, kBlue}}));
  painter.fill({0, 0, 640, 360}, kGreen);
  EXPECT_TRUE(receiver.waitForColours({{52, 37, kGreen}}));
  EXPECT_EQ(receiver.stop(), "");
  EXPECT_EQ(receiver.stop(), "The stream is not running.");
}

INSTANTIATE_TEST_SUITE_P(WithAndWithoutSharedMemory, X11CapturePictureTest,
                         ::testing::Values("", "-extension MIT-SHM"));

TEST(X11CaptureStreamTest, ADepthThatCannotBeReadIsRefused) {
  for (const std::string depth : {"16", "30"}) {
    XServer server(640, 360, XServer::Kind::xvfb, "-screen 0 640x360x" + depth);
    Receiver receiver(server.displayName(), sized(320, 180));
    EXPECT_EQ(receiver.start(), "The X display's pixel format (depth " + depth +
                                    ") cannot be captured; it needs a depth of 24.");
  }
}

TEST_F(X11CaptureTest, ChangingScreenKeepsTheRateAndTheInterval) {
  ASSERT_EQ(receiver.start(), "");
  ASSERT_EQ(receiver.update(sized(320, 180, 30)), "");
  ASSERT_TRUE(receiver.waitForCount(8));
  const std::size_t before = receiver.seen().size();
  const auto end = std::chrono::steady_clock::now() + 1200ms;
  for (std::uint32_t i = 0; std::chrono::steady_clock::now() < end; ++i) {
    painter.fill({10, 10, 200, 200}, i * 0x10305);
    std::this_thread::sleep_for(1ms);
  }
  const auto seen = receiver.seen();
  for (std::size_t i = before + 1; i < seen.size(); ++i) {
    ASSERT_GE(seen[i].time - seen[i - 1].time, 33'333 - 1);
  }
  EXPECT_GT(seen.size() - before, 27 * 1.2);
}

TEST_F(X11CaptureTest, StillScreenIsRepeatedOnceASecondAndOnDemandAtOnce) {
  ASSERT_EQ(receiver.start(), "");
  const std::size_t all = FramePacer::kRepeats.size() + 2;  // the picture, its repeats, a sign of life
  ASSERT_TRUE(receiver.waitForCount(all));
  const auto seen = receiver.seen();
  for (std::size_t i = 1; i < all; ++i) EXPECT_TRUE(seen[i].isRepeat) << i;
  EXPECT_GE(seen[all - 1].time - seen[0].time, 1'000'000);
  const auto asked = std::chrono::steady_clock::now();
  receiver.stream().requestFrame();
  ASSERT_TRUE(receiver.waitForCount(seen.size() + 1));
  EXPECT_LT(std::chrono::steady_clock::now() - asked, 150ms);
}

TEST_F(X11CaptureTest, WithAllBuffersInUseTheNewestStateComesWhenOneIsBack) {
  receiver.hold(true);
  ASSERT_EQ(receiver.start(), "");
  painter.fill({0, 0, 640, 360}, kRed);
  ASSERT_TRUE(receiver.waitForCount(3));
  painter.fill({0, 0, 640, 360}, kGreen);
  EXPECT_FALSE(receiver.waitForCount(4, 300ms));
  painter.fill({80, 80, 80, 80}, kBlue);
  receiver.hold(false);
  EXPECT_TRUE(receiver.waitForColours({{10, 10, kGreen}, {60, 60, kBlue}}));
}

TEST_F(X11CaptureTest, ConfigurationChangesWithoutStopping) {
  painter.fill({0, 0, 640, 360}, kGreen);
  ASSERT_EQ(receiver.start(), "");
  const auto becomesWide = [this](int width) {
    return receiver.waitForPicture([width](const auto& picture) { return picture.width() == width; });
  };
  EXPECT_EQ(receiver.update(sized(160, 90)), "");
  const auto small = becomesWide(160);
  ASSERT_TRUE(small);
  EXPECT_EQ(small->changes->rectangles, (std::vector<PixelRect>{{0, 0, 160, 90}}));
  EXPECT_TRUE(isColour(*small, 80, 45, kGreen));
  EXPECT_EQ(receiver.update(sized(0, 90)), "The size 0x90 cannot be captured.");

  // The cursor appears where it is, moves, and goes.
  painter.movePointer(320, 180);
  auto withCursor = sized(640, 360);
  withCursor.showsCursor = true;
  EXPECT_EQ(receiver.update(withCursor), "");
  const auto isCursorAt = [](int x, int y) {
    return [x, y](const PixelBuffer& picture) {
      if (picture.width() != 640) return false;
      int strange = 0;
      for (int dy = -12; dy < 12; ++dy) {
        for (int dx = -12; dx < 12; ++dx) strange += isColour(picture, x + dx, y + dy, kGreen) ? 0 : 1;
      }
      return strange > 10;
    };
  };
  EXPECT_TRUE(receiver.waitForPicture(isCursorAt(320, 180)));
  painter.movePointerAsDevice(200, 60);
  EXPECT_TRUE(receiver.waitForPicture(isCursorAt(200, 60), 500ms));
  painter.movePointer(100, 300);
  // A program's move is not told of; the next picture has it.
  receiver.stream().requestFrame();
  const auto moved = receiver.waitForPicture(isCursorAt(100, 300));
  ASSERT_TRUE(moved);
  EXPECT_FALSE(isCursorAt(200, 60)(*moved));
  EXPECT_EQ(receiver.update(sized(640, 360)), "");
  EXPECT_TRUE(receiver.waitForPicture(
      [&](const PixelBuffer& picture) { return picture.width() == 640 && !isCursorAt(100, 300)(picture); }));
}

TEST(X11CaptureStreamTest, StreamOutlivesAModeSwitch) {
  XServer server(800, 600, XServer::Kind::xvnc);
  Painter painter(server.displayName());
  Receiver receiver(server.displayName(), sized(400, 300));
  ASSERT_EQ(receiver.start(), "");
  for (const auto& [mode, width, height] :
       {std::tuple{"640x480", 640, 480}, {"1280x720", 1280, 720}, {"800x600", 800, 600}}) {
    ASSERT_EQ(server.run(std::string("xrandr -s ") + mode), 0) << mode;
    painter.fill({0, 0, width, height}, kRed);
    painter.fill({width / 2, height / 2, width / 2, height / 2}, kWhite);
    const int bar = width == 1280 ? (300 - 400 * 720 / 1280) / 2 : 0;
    EXPECT_TRUE(receiver.waitForColours(
        {{20, bar + 10, kRed}, {380, 290 - bar, kWhite}, {200, 4, bar == 0 ? kRed : 0}}))
        << mode;
  }
  EXPECT_EQ(receiver.stop(), "");
}

TEST_F(X11CaptureTest, EndOfTheServerIsTold) {
  Receiver stopped(server.displayName(), sized(320, 180));
  // With all buffers held, too.
  receiver.hold(true);
  ASSERT_EQ(receiver.start(), "");
  ASSERT_EQ(stopped.start(), "");
  ASSERT_EQ(stopped.stop(), "");
  ASSERT_TRUE(receiver.waitForCount(3));
  server.kill();
  EXPECT_EQ(receiver.waitForStop(), "The connection to the X display was lost.");
  EXPECT_EQ(stopped.waitForStop(50ms), "");
  EXPECT_EQ(receiver.update(sized(320, 180)), "The stream is not running.");
}

TEST_F(X11CaptureTest, ServerThatHangsIsToldAndHoldsUpNothing) {
  Receiver stopped(server.displayName(), sized(320, 180));
  Receiver late(server.displayName(), sized(320, 180));
  ASSERT_EQ(receiver.start(), "");
  ASSERT_EQ(stopped.start(), "");
  server.hang();
  // The screen is still, so that only the sign of life asks for anything.
  EXPECT_EQ(late.start(), "The X display " + server.displayName() + " does not answer.");
  EXPECT_EQ(receiver.waitForStop(), "The X display " + server.displayName() + " has stopped answering.");
  EXPECT_NE(stopped.waitForStop(), "");
  server.goOn();
  Receiver again(server.displayName(), sized(320, 180));
  ASSERT_EQ(again.start(), "");
  // A stop does not wait for the limit.
  server.hang();
  std::this_thread::sleep_for(1200ms);  // a sign of life is being waited for
  const auto asked = std::chrono::steady_clock::now();
  EXPECT_EQ(again.stop(), "");
  EXPECT_LT(std::chrono::steady_clock::now() - asked, 1s);
}

TEST_F(X11CaptureTest, ScreenIsSeenWhileAnotherClientHasGrabbedTheServer) {
  ASSERT_EQ(receiver.start(), "");
  Painter grabbing(server.displayName());
  grabbing.grabServer();
  grabbing.fill({0, 0, 640, 360}, kRed);
  EXPECT_TRUE(receiver.waitForColours({{160, 90, kRed}}));
}

TEST(X11CaptureStreamTest, EndOfTheDisplayIsTold) {
  XServer server(1600, 600);
  Painter painter(server.displayName());
  ASSERT_EQ(server.run("xrandr --setmonitor *LEFT 800/200x600/150+0+0 screen"), 0);
  ASSERT_EQ(server.run("xrandr --setmonitor RIGHT 800/200x600/150+800+0 none"), 0);
  const DisplayLayout layout = painter.layout();
  ASSERT_EQ(layout.displays.size(), 2U);
  const X11Display& right = layout.displays[1];
  painter.fill({0, 0, 800, 600}, kRed);
  painter.fill({800, 0, 800, 600}, kGreen);
  const X11ScreenCapture capture(std::make_shared<X11Server>(server.displayName()));
  Receiver receiver(server.displayName(), sized(400, 300),
                    capture.filterForDisplay({right.id, layout.bounds(right)}));
  ASSERT_EQ(receiver.start(), "");
  EXPECT_TRUE(receiver.waitForColours({{2, 2, kGreen}, {397, 297, kGreen}}));
  ASSERT_EQ(server.run("xrandr --delmonitor RIGHT"), 0);
  EXPECT_EQ(receiver.waitForStop(), "The captured display is no longer there.");
}

TEST_F(X11CaptureTest, StartFailsWithTheReason) {
  const ContentFilter filter = Receiver::mainDisplayFilter(server.displayName());
  Receiver unreachable(":7999", sized(320, 180), filter);
  EXPECT_EQ(unreachable.start(), "The X display :7999 cannot be reached.");
  EXPECT_EQ(unreachable.waitForStop(50ms), "");

  const auto refusal = [&](const ContentFilter& wanted) {
    return Receiver(server.displayName(), sized(320, 180), wanted).start();
  };
  ContentFilter unknown = filter;
  unknown.includedDisplays[0].id = 4711;
  EXPECT_EQ(refusal(unknown), "The display to capture is not there.");
  ContentFilter window = filter;
  window.style = ContentFilter::Style::window;
  EXPECT_EQ(refusal(window), "Only whole displays can be captured.");
}

}  // namespace
}  // namespace kestrune::linux_platform
