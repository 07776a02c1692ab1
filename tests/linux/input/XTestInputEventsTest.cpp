#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <thread>

#include "linux/input/InputLab.h"
#include "platform/linux/input/InputBacklog.h"
#include "platform/linux/input/XTestInputEvents.h"

namespace kestrune::linux_platform {
namespace {

using ::testing::ElementsAre;
using namespace kestrune::testing;

constexpr xcb_keysym_t kPlaySymbol = 0x1008FF14;

class XTestInputEventsTest : public ::testing::Test {
 protected:
  void press(std::uint16_t code) {
    for (const bool isDown : {true, false}) events.createSource()->keyboardEvent(code, isDown)->post();
  }
  void mouse(MouseEventType type, double x, double y, MouseButton button = MouseButton::left) {
    events.createSource()->mouseEvent(type, {x, y}, button)->post();
  }
  void scroll(std::int32_t wheel1, std::int32_t wheel2) {
    events.createSource()->scrollEvent(wheel1, wheel2)->post();
  }
  /// What has come by the time `isEnough` of it.
  template <class Condition>
  static std::vector<std::string> takenUntil(RecordingWindow& from, Condition isEnough) {
    std::vector<std::string> lines;
    EXPECT_TRUE(eventually([&] {
      for (auto& line : from.take()) lines.push_back(std::move(line));
      return isEnough(lines);
    }));
    return lines;
  }
  static std::vector<std::string> taken(RecordingWindow& from, std::size_t count) {
    return takenUntil(from, [count](const auto& lines) { return lines.size() >= count; });
  }
  bool isPointerSeenAt(Point position) {
    return eventually([&] { return events.cursorLocation() == position; });
  }

  XServer server{800, 600};
  RecordingWindow window{server};
  XTestInputEvents events{std::make_shared<X11Server>(server.displayName())};
};

TEST_F(XTestInputEventsTest, PointerMovesDragsAndClicks) {
  mouse(MouseEventType::moved, 10, 20);
  mouse(MouseEventType::leftDown, 10, 20);
  mouse(MouseEventType::leftDragged, 110.4, 120.6);
  // At once, whether or not it was sent.
  EXPECT_EQ(events.cursorLocation(), (Point{110, 121}));
  mouse(MouseEventType::leftUp, 110.4, 120.6);
  mouse(MouseEventType::rightDown, 30, 40, MouseButton::right);
  mouse(MouseEventType::rightUp, 30, 40, MouseButton::right);
  EXPECT_THAT(taken(window, 7), ElementsAre("motion 10,20 state 0", "press 1", "motion 110,121 state 256",
                                            "release 1", "motion 30,40 state 0", "press 3", "release 3"));

  // The right and lower edges themselves are one pixel outside.
  mouse(MouseEventType::moved, 800, 600);
  EXPECT_TRUE(isPointerSeenAt({799, 599}));
  mouse(MouseEventType::moved, 1e300, -1e300);
  EXPECT_TRUE(isPointerSeenAt({799, 0}));
  // Somebody else moves it.
  const auto& connection = window.keyboard().connection();
  xcb_warp_pointer(connection, 0, connection.root(), 0, 0, 0, 0, 7, 8);
  window.keyboard().sync();
  EXPECT_TRUE(isPointerSeenAt({7, 8}));
}

TEST_F(XTestInputEventsTest, PixelsCollectIntoStepsOfTheWheel) {
  mouse(MouseEventType::moved, 5, 5);
  taken(window, 1);
  // 20 pixels are left over downward; they do not hinder the way up. Each axis has its own remainder.
  for (const int pixels : {-120, -30, -30, 30, 10}) scroll(pixels, 0);
  scroll(-20, 20);
  scroll(0, 20);
  scroll(-20, -40);
  auto lines = taken(window, 16);
  std::erase_if(lines, [](const auto& line) { return line.starts_with("release"); });
  EXPECT_THAT(lines, ElementsAre("press 5", "press 5", "press 5", "press 5", "press 4", "press 6", "press 5",
                                 "press 7"));
}

TEST_F(XTestInputEventsTest, NamedKeysOnAnyLayout) {
  const std::vector<std::pair<std::uint16_t, std::string>> keys{
      {3, "66"},    {36, "ff0d"},  {48, "ff09"},  {49, "20"},    {51, "ff08"},
      {53, "ff1b"}, {123, "ff51"}, {124, "ff53"}, {125, "ff54"}, {126, "ff52"}};
  for (const auto* layout : {"us", "de", "fr"}) {
    ASSERT_EQ(server.run(std::string("setxkbmap ") + layout), 0);
    for (const auto& [code, symbol] : keys) {
      press(code);
      EXPECT_THAT(taken(window, 2), ElementsAre("key 0x" + symbol + " down", "key 0x" + symbol + " up"))
          << layout;
    }
  }
  // A layout without Latin letters has no key for f.
  ASSERT_EQ(server.run("setxkbmap ru"), 0);
  press(3);
  EXPECT_THAT(taken(window, 2), ElementsAre("key 0x66 down", "key 0x66 up"));
  EXPECT_EQ(events.createSource()->keyboardEvent(99, true), nullptr);
}

TEST_F(XTestInputEventsTest, PlayKeyEvenWhereTheKeyboardHasNone) {
  const auto systemEvent = [this](std::int64_t data) {
    SystemDefinedEvent event;
    event.subtype = 8;
    event.data1 = data;
    return events.systemDefinedEvent(event);
  };
  for (const bool hasKey : {true, false}) {
    if (!hasKey) window.keyboard().unmap(kPlaySymbol);
    systemEvent(0x100A00)->post();
    systemEvent(0x100B00)->post();
    EXPECT_THAT(taken(window, 2), ElementsAre("key 0x1008ff14 down", "key 0x1008ff14 up"));
  }
  EXPECT_EQ(systemEvent(0x110A00), nullptr);
}

TEST_F(XTestInputEventsTest, SeveralThreadsAtOnceLoseNothing) {
  std::vector<std::thread> threads;
  for (int number = 0; number < 4; ++number) {
    threads.emplace_back([this, number] {
      for (int count = 0; count < 50; ++count) {
        scroll(40, 0);
        if (number == 0) typeText(events, u"\u4E2D");
        if (number == 1) press(49);
      }
    });
  }
  for (auto& thread : threads) thread.join();
  takenUntil(window, [](const auto& lines) {
    const auto count = [&](std::string_view line) { return std::count(lines.begin(), lines.end(), line); };
    return count("press 4") == 200 && count("key 0x20 up") == 50 && count("key 0x1004e2d up") == 50;
  });
}

TEST_F(XTestInputEventsTest, WhatFollowsATextComesBehindIt) {
  typeText(events, u"a\u4E2Dc");
  mouse(MouseEventType::moved, 70, 80);
  EXPECT_THAT(taken(window, 7),
              ElementsAre("key 0x61 down", "key 0x61 up", "key 0x1004e2d down", "key 0x1004e2d up",
                          "key 0x63 down", "key 0x63 up", "motion 70,80 state 0"));
  EXPECT_TRUE(eventually([&] { return events.cursorLocation() == Point{70, 80}; }));
}

TEST_F(XTestInputEventsTest, LostServerIsARefusalAndNoCrash) {
  const auto event = events.createSource()->mouseEvent(MouseEventType::moved, {1, 1}, MouseButton::left);
  server.kill();
  event->post();
  typeText(events, u"\u4E2D");
  EXPECT_TRUE(eventually([&] { return events.createSource() == nullptr; }));
  EXPECT_EQ(events.cursorLocation(), std::nullopt);
}

TEST_F(XTestInputEventsTest, AServerThatIsBackTakesTheNextTapAndHoldsNothing) {
  events.createSource()->keyboardEvent(49, true)->post();
  mouse(MouseEventType::leftDown, 10, 20);
  ASSERT_TRUE(eventually([&] { return window.keyboard().state() == unsigned{XCB_BUTTON_MASK_1}; }));
  server.restart();
  RecordingWindow next(server);
  mouse(MouseEventType::leftDown, 30, 40);
  mouse(MouseEventType::leftUp, 30, 40);
  EXPECT_THAT(taken(next, 3), ElementsAre("motion 30,40 state 0", "press 1", "release 1"));
}

TEST_F(XTestInputEventsTest, ReleaseArrivesWhileTheServerIsGrabbedForTheDrag) {
  mouse(MouseEventType::leftDown, 10, 20);
  // As a window manager that draws the outline of the window that is dragged.
  const KeyboardView grabbing(server);
  ASSERT_TRUE(eventually([&] { return grabbing.state() == unsigned{XCB_BUTTON_MASK_1}; }));
  xcb_grab_server(grabbing.connection());
  grabbing.sync();
  mouse(MouseEventType::leftDragged, 50, 60);
  mouse(MouseEventType::leftUp, 50, 60);
  EXPECT_TRUE(eventually([&] { return grabbing.state() == 0; }));
}

TEST_F(XTestInputEventsTest, ServerThatHangsHoldsUpNobodyAndLeavesNothingHeld) {
  mouse(MouseEventType::leftDown, 10, 20);
  ASSERT_TRUE(eventually([&] { return window.keyboard().state() != 0; }));
  server.hang();
  const auto begin = std::chrono::steady_clock::now();
  // More than the socket takes.
  for (int count = 0; count < 4 * static_cast<int>(InputBacklog::kMostWaiting); ++count) {
    mouse(MouseEventType::leftDragged, count % 700, 30);
    events.cursorLocation();
  }
  mouse(MouseEventType::leftUp, 70, 80);
  // A round trip for each would take the rest of the day.
  EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(2));
  // Those who wait for an answer give up; the button that they hold is released by the next connection.
  EXPECT_TRUE(eventually([&] { return events.createSource() == nullptr; }));
  server.goOn();
  EXPECT_TRUE(eventually([&] { return window.keyboard().state() == 0; }));
  EXPECT_TRUE(eventually([&] { return events.createSource() != nullptr; }));
}

TEST(InputBacklogTest, OverflowTakesMovesAndNeverARelease) {
  InputBacklog backlog;
  using Kind = QueuedInput::Kind;
  constexpr auto kMost = InputBacklog::kMostWaiting;
  EXPECT_TRUE(backlog.push({Kind::press, 1, {}}));
  for (std::size_t count = 1; count < kMost; ++count) EXPECT_TRUE(backlog.push({Kind::move, 0, {}}));
  EXPECT_FALSE(backlog.push({Kind::release, 1, {}}));  // took the place of a move
  for (std::uint32_t key = 2; key < kMost; ++key) EXPECT_FALSE(backlog.push({Kind::press, key, {}}));
  // Presses alone are left: no room, but for the releases that they need, each once.
  EXPECT_FALSE(backlog.push({Kind::move, 0, {}}));
  EXPECT_FALSE(backlog.push({Kind::press, kMost, {}}));
  EXPECT_FALSE(backlog.push({Kind::release, kMost, {}}));
  for (int time = 0; time < 2; ++time) backlog.push({Kind::release, 2, {}});
  std::vector<std::pair<Kind, std::uint32_t>> waiting;
  while (const auto next = backlog.pop()) waiting.emplace_back(next->kind, next->control);
  ASSERT_EQ(waiting.size(), kMost + 1);
  EXPECT_EQ(waiting[0], std::pair(Kind::press, 1U));
  EXPECT_EQ(waiting[1], std::pair(Kind::release, 1U));
  EXPECT_EQ(waiting[2], std::pair(Kind::press, 2U));
  EXPECT_EQ(waiting.back(), std::pair(Kind::release, 2U));
}

}  // namespace
}  // namespace kestrune::linux_platform
