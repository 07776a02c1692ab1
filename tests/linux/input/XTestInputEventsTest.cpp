#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <thread>

#include "linux/input/InputLab.h"
#include "platform/linux/input/XTestInputEvents.h"

namespace kestrune::linux_platform {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using namespace kestrune::testing;

constexpr xcb_keysym_t kPlaySymbol = 0x1008FF14;

SystemDefinedEvent playKey(bool isDown) {
  SystemDefinedEvent event;
  event.subtype = 8;
  event.data1 = isDown ? 0x100A00 : 0x100B00;
  event.data2 = -1;
  return event;
}

class XTestInputEventsTest : public ::testing::Test {
 protected:
  void mouse(MouseEventType type, double x, double y, MouseButton button = MouseButton::left) {
    events.createSource()->mouseEvent(type, {x, y}, button)->post();
  }
  void scroll(std::int32_t wheel1, std::int32_t wheel2) {
    events.createSource()->scrollEvent(wheel1, wheel2)->post();
  }
  /// What has come by the time `isEnough` of it.
  template <class Condition>
  std::vector<std::string> takenUntil(Condition isEnough) {
    std::vector<std::string> lines;
    EXPECT_TRUE(eventually([&] {
      for (auto& line : taken()) lines.push_back(std::move(line));
      return isEnough(lines);
    }));
    return lines;
  }

  /// What has come of everything posted until now, once; of text only as far as it has been typed.
  std::vector<std::string> taken() {
    // An answer on the connection of the events: the server has handled what was posted before.
    events.cursorLocation();
    return window.take();
  }

  XServer server{800, 600};
  RecordingWindow window{server};
  XTestInputEvents events{server.displayName()};
};

TEST_F(XTestInputEventsTest, PointerMovesDragsAndClicks) {
  mouse(MouseEventType::moved, 10, 20);
  mouse(MouseEventType::leftDown, 10, 20);
  mouse(MouseEventType::leftDragged, 110.4, 120.6);
  EXPECT_EQ(events.cursorLocation(), (Point{110, 121}));
  mouse(MouseEventType::leftUp, 110.4, 120.6);
  mouse(MouseEventType::rightDown, 30, 40, MouseButton::right);
  mouse(MouseEventType::rightUp, 30, 40, MouseButton::right);
  EXPECT_THAT(taken(), ElementsAre("motion 10,20 state 0", "press 1", "motion 110,121 state 256", "release 1",
                                   "motion 30,40 state 0", "press 3", "release 3"));

  // The right and lower edges themselves are one pixel outside.
  mouse(MouseEventType::moved, 800, 600);
  EXPECT_EQ(events.cursorLocation(), (Point{799, 599}));
  mouse(MouseEventType::moved, 1e300, -1e300);
  EXPECT_EQ(events.cursorLocation(), (Point{799, 0}));
}

TEST_F(XTestInputEventsTest, PixelsCollectIntoStepsOfTheWheel) {
  mouse(MouseEventType::moved, 5, 5);
  taken();
  struct Row {
    std::int32_t wheel1, wheel2;
    std::vector<int> buttons;
  };
  for (const Row& row : std::vector<Row>{{-120, 0, {5, 5, 5}},
                                         {-30, 0, {}},
                                         {-30, 0, {5}},
                                         // 20 pixels are left over downward; they do not hinder the way up.
                                         {30, 0, {}},
                                         {10, 0, {4}},
                                         // Each axis has its own remainder.
                                         {-20, 20, {}},
                                         {0, 20, {6}},
                                         {-20, -40, {5, 7}}}) {
    scroll(row.wheel1, row.wheel2);
    std::vector<std::string> expected;
    for (const int button : row.buttons) {
      expected.push_back("press " + std::to_string(button));
      expected.push_back("release " + std::to_string(button));
    }
    EXPECT_EQ(taken(), expected) << row.wheel1 << " " << row.wheel2;
  }
}

TEST_F(XTestInputEventsTest, NamedKeysOnAnyLayout) {
  const std::vector<std::pair<std::uint16_t, std::string>> keys{
      {3, "66"},    {36, "ff0d"},  {48, "ff09"},  {49, "20"},    {51, "ff08"},
      {53, "ff1b"}, {123, "ff51"}, {124, "ff53"}, {125, "ff54"}, {126, "ff52"}};
  for (const auto* layout : {"us", "de", "fr"}) {
    ASSERT_EQ(server.run(std::string("setxkbmap ") + layout), 0);
    for (const auto& [code, symbol] : keys) {
      pressKey(events, code);
      EXPECT_THAT(taken(), ElementsAre("key 0x" + symbol + " down", "key 0x" + symbol + " up")) << layout;
    }
  }
  // A layout without Latin letters lends a key for f.
  ASSERT_EQ(server.run("setxkbmap ru"), 0);
  pressKey(events, 3);
  EXPECT_THAT(taken(), ElementsAre("key 0x66 down", "key 0x66 up"));
  EXPECT_EQ(events.createSource()->keyboardEvent(99, true), nullptr);
}

TEST_F(XTestInputEventsTest, PlayKeyEvenWhereTheKeyboardHasNone) {
  for (const bool hasKey : {true, false}) {
    if (!hasKey) window.keyboard().unmap(kPlaySymbol);
    events.systemDefinedEvent(playKey(true))->post();
    events.systemDefinedEvent(playKey(false))->post();
    EXPECT_THAT(taken(), ElementsAre("key 0x1008ff14 down", "key 0x1008ff14 up"));
  }
  auto unknown = playKey(true);
  unknown.data1 = 0x110A00;
  EXPECT_EQ(events.systemDefinedEvent(unknown), nullptr);
}

TEST_F(XTestInputEventsTest, SeveralThreadsAtOnceLoseNothing) {
  std::vector<std::thread> threads;
  for (int number = 0; number < 4; ++number) {
    threads.emplace_back([this, number] {
      for (int count = 0; count < 50; ++count) {
        scroll(40, 0);
        if (number == 0) typeText(events, u"\u4E2D");
        if (number == 1) pressKey(events, 49);
      }
    });
  }
  for (auto& thread : threads) thread.join();
  takenUntil([](const auto& lines) {
    const auto count = [&](std::string_view line) { return std::count(lines.begin(), lines.end(), line); };
    return count("press 4") == 200 && count("key 0x20 up") == 50 && count("key 0x1004e2d up") == 50;
  });
}

TEST_F(XTestInputEventsTest, WhatFollowsATextComesBehindIt) {
  typeText(events, u"a\u4E2Dc");
  mouse(MouseEventType::moved, 70, 80);
  EXPECT_THAT(
      takenUntil([](const auto& lines) { return !lines.empty() && lines.back().starts_with("motion"); }),
      ElementsAre("key 0x61 down", "key 0x61 up", "key 0x1004e2d down", "key 0x1004e2d up", "key 0x63 down",
                  "key 0x63 up", "motion 70,80 state 0"));
  EXPECT_TRUE(eventually([&] { return events.cursorLocation() == Point{70, 80}; }));
}

TEST_F(XTestInputEventsTest, LostServerIsARefusalAndNoCrash) {
  const auto source = events.createSource();
  const auto event = source->mouseEvent(MouseEventType::moved, {1, 1}, MouseButton::left);
  server.kill();
  event->post();
  typeText(events, u"\u4E2D");
  EXPECT_TRUE(eventually([&] { return events.createSource() == nullptr; }));
  EXPECT_EQ(events.cursorLocation(), std::nullopt);
}

}  // namespace
}  // namespace kestrune::linux_platform
