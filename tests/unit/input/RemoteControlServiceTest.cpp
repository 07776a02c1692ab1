#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <limits>

#include "input/ControlTargetMapping.h"
#include "input/RemoteControlService.h"
#include "platform/support/Encoding.h"
#include "support/FakeInputEvents.h"
#include "support/FakeScreenCapture.h"
#include "support/ManualTime.h"

namespace kestrune {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using Phase = RemotePointerPhase;
using Result = RemoteTapResult;

constexpr double kNaN = std::numeric_limits<double>::quiet_NaN();
constexpr double kInfinity = std::numeric_limits<double>::infinity();

class RemoteControlServiceTest : public ::testing::Test {
 protected:
  RemoteControlServiceTest() {
    displays->displays = {{1, {100, 200, 1000, 500}}};
    service.setEnabled(true);
    service.setTarget(target);
    // A lock held while an event is posted would be waited for here.
    events->beforePost = [this] { (void)service.cursorState(); };
  }

  /// What one operation posted; it must succeed.
  std::vector<std::string> posted(Result result) {
    EXPECT_EQ(result, Result::clicked);
    return events->takePosted();
  }
  static std::string at(int type, const std::string& point) {
    return "mouse " + std::to_string(type) + " (" + point + ") button 0";
  }

  const RemoteControlTarget target{Rect{0, 0, 10, 10}, DisplayID{1}};
  std::shared_ptr<ManualTime> time = ManualTime::make();
  std::shared_ptr<FakeInputEvents> events = std::make_shared<FakeInputEvents>();
  std::shared_ptr<FakeDisplays> displays = std::make_shared<FakeDisplays>();
  std::shared_ptr<FakePrivacyPermissions> permissions = std::make_shared<FakePrivacyPermissions>();
  RemoteControlService service{events, displays, permissions, time->makeQueue("main"), time};
};

TEST_F(RemoteControlServiceTest, ButtonFollowsTheFinger) {
  EXPECT_THAT(posted(service.pointer(Phase::move, 0.5, 0.5)), ElementsAre(at(5, "600, 450")));
  EXPECT_THAT(posted(service.pointer(Phase::down, 0.1, 0.2)), ElementsAre(at(1, "200, 300")));
  EXPECT_THAT(posted(service.pointer(Phase::move, 1, 1)), ElementsAre(at(6, "1100, 700")));
  EXPECT_THAT(posted(service.pointer(Phase::up, 0, 0)), ElementsAre(at(2, "100, 200")));
  // An up without a press posts nothing, but the pointer counts as being there.
  EXPECT_THAT(posted(service.pointer(Phase::up, 0.5, 0.5)), IsEmpty());
  EXPECT_THAT(posted(service.move(0, 0, 1)), ElementsAre(at(5, "600, 450")));
  EXPECT_THAT(posted(service.tap(0.5, 0.5)), ElementsAre(at(1, "600, 450"), at(2, "600, 450")));
}

TEST_F(RemoteControlServiceTest, HeldButtonIsLetGoWhereverControlMayBeLost) {
  const auto press = [this] {
    service.pointer(Phase::down, 0.1, 0.2);
    events->posted.clear();
  };
  const std::string up = at(2, "200, 300");

  press();
  service.pointer(Phase::down, 0.5, 0.5);
  EXPECT_THAT(events->takePosted(), ElementsAre(up, at(1, "600, 450")));

  // Even by a press that is refused itself.
  for (const double bad : {-0.01, 1.01, kNaN, kInfinity}) {
    press();
    EXPECT_EQ(service.pointer(Phase::down, bad, 0.5), Result::invalidCoordinates);
    EXPECT_EQ(service.pointer(Phase::move, 0.5, bad), Result::invalidCoordinates);
    EXPECT_THAT(events->takePosted(), ElementsAre(up));
  }

  press();
  service.setTarget(std::nullopt);
  EXPECT_THAT(events->takePosted(), ElementsAre(up));
  service.setTarget(target);

  // A cancel needs neither permission nor target nor the switch; a second one has nothing left to do.
  press();
  permissions->input = false;
  service.setEnabled(false);
  EXPECT_EQ(service.pointer(Phase::cancel, kNaN, kNaN), Result::clicked);
  service.setTarget(std::nullopt);
  EXPECT_EQ(service.pointer(Phase::cancel, 0, 0), Result::clicked);
  EXPECT_THAT(events->takePosted(), ElementsAre(up));
}

TEST_F(RemoteControlServiceTest, TargetThatChangesMidwayIsNotTouched) {
  displays->onBounds = [this] {
    displays->onBounds = nullptr;
    service.setTarget(RemoteControlTarget{Rect{0, 0, 5, 5}, std::nullopt});
  };
  EXPECT_EQ(service.pointer(Phase::down, 0.5, 0.5), Result::displayRequired);
  service.releaseButton();
  EXPECT_THAT(events->takePosted(), IsEmpty());
}

TEST_F(RemoteControlServiceTest, FrameIsThatOfTheDisplayNowElseTheFallback) {
  displays->displays[0].frame = {-50, 0, 200, 100};
  EXPECT_THAT(posted(service.pointer(Phase::move, 0.5, 0.5)), ElementsAre(at(5, "50, 50")));
  displays->displays.clear();
  EXPECT_THAT(posted(service.pointer(Phase::move, 0.5, 0.5)), ElementsAre(at(5, "5, 5")));
  service.setTarget(RemoteControlTarget{Rect{0, 0, 0, 10}, std::nullopt});
  EXPECT_EQ(service.pointer(Phase::move, 0.5, 0.5), Result::invalidCoordinates);
}

TEST_F(RemoteControlServiceTest, RelativeMoveStaysOnePointInside) {
  events->cursor = Point{110, 210};
  EXPECT_THAT(posted(service.move(0.1, 0.1, 3.0)), ElementsAre(at(5, "410, 360")));      // from the cursor
  EXPECT_THAT(posted(service.move(0.1, -0.1, 0.25)), ElementsAre(at(5, "435, 347.5")));  // from there
  EXPECT_THAT(posted(service.move(9, 9, 1)), ElementsAre(at(5, "1099, 699")));
  EXPECT_THAT(posted(service.move(-9, -9, 1)), ElementsAre(at(5, "100, 200")));
  EXPECT_THAT(posted(service.setButton(true)), ElementsAre(at(1, "110, 210")));
  EXPECT_THAT(posted(service.move(0.1, 0, 1)), ElementsAre(at(6, "210, 210")));
  for (const double sensitivity : {0.2499, 3.01, kNaN}) {
    EXPECT_EQ(service.move(0, 0, sensitivity), Result::invalidCoordinates);
  }
  EXPECT_EQ(service.move(kInfinity, 0, 1), Result::invalidCoordinates);
  EXPECT_THAT(events->takePosted(), IsEmpty());
}

TEST_F(RemoteControlServiceTest, ClicksStartFromTheCursorThenTheLastPointThenTheMiddle) {
  const auto click = [this](RemoteMouseButton button) { return posted(service.click(button)); };
  EXPECT_THAT(click(RemoteMouseButton::left), ElementsAre(at(1, "600, 450"), at(2, "600, 450")));
  posted(service.pointer(Phase::move, 0, 0));
  EXPECT_THAT(click(RemoteMouseButton::left), ElementsAre(at(1, "100, 200"), at(2, "100, 200")));
  events->cursor = Point{7, 8};
  EXPECT_THAT(click(RemoteMouseButton::right),
              ElementsAre("mouse 3 (7, 8) button 1", "mouse 4 (7, 8) button 1"));
  // A click leaves the service's own state alone: no button is held, and the last point is the earlier one.
  service.releaseButton();
  EXPECT_THAT(posted(service.move(0, 0, 1)), ElementsAre(at(5, "100, 200")));
}

TEST_F(RemoteControlServiceTest, ScrollTruncatesAndLimits) {
  for (const auto& [dx, dy, line] : {std::tuple{0.0, 0.2, "scroll -120 0"},
                                     {0.0, 0.001, "scroll 0 0"},
                                     {-0.0999, 0.0, "scroll 0 59"},
                                     {-9.0, -0.05, "scroll 30 120"}}) {
    EXPECT_THAT(posted(service.scroll(dx, dy)), ElementsAre(line));
  }
  EXPECT_EQ(service.scroll(kNaN, 0), Result::invalidCoordinates);
  EXPECT_EQ(service.scroll(0, kInfinity), Result::invalidCoordinates);
}

TEST_F(RemoteControlServiceTest, TextTravelsInChunksThatCutNoCharacter) {
  const auto typed = [this](const std::string& text) {
    events->texts.clear();
    const auto lines = posted(service.typeText(text));
    for (std::size_t index = 0; index < lines.size(); ++index) {
      EXPECT_EQ(lines[index], index % 2 == 0 ? "key 0 down" : "key 0 up");
    }
    // Each chunk is a down and an up with the same text.
    std::vector<std::u16string> chunks;
    for (std::size_t index = 0; index < events->texts.size(); index += 2) {
      EXPECT_EQ(events->texts[index], events->texts[index + 1]);
      chunks.push_back(events->texts[index]);
    }
    return chunks;
  };
  // 11 units a family: the second does not fit behind the first.
  const std::string family = "\U0001F468\u200D\U0001F469\u200D\U0001F467\u200D\U0001F466";
  EXPECT_THAT(typed("ab" + family + family), ElementsAre(u"ab" + utf16(family), utf16(family)));
  // A character longer than a chunk travels alone and whole.
  std::string accents = "e";
  for (int count = 0; count < 25; ++count) accents += "\u0301";
  EXPECT_THAT(typed("x" + accents + "y"), ElementsAre(u"x", utf16(accents), u"y"));
  std::string wide;  // the limit counts UTF-16, not bytes
  for (int count = 0; count < 200; ++count) wide += "\u65E5";
  EXPECT_EQ(typed(wide), std::vector<std::u16string>(10, std::u16string(20, u'\u65E5')));
  EXPECT_EQ(service.typeText(""), Result::eventFailed);
  EXPECT_EQ(service.typeText(std::string(201, 'a')), Result::eventFailed);
  EXPECT_THAT(events->takePosted(), IsEmpty());
}

TEST_F(RemoteControlServiceTest, KeysByName) {
  EXPECT_THAT(posted(service.pressKey("return")), ElementsAre("key 36 down", "key 36 up"));
  EXPECT_THAT(posted(service.pressKey("up")), ElementsAre("key 126 down", "key 126 up"));
  EXPECT_THAT(events->texts, IsEmpty());
  EXPECT_EQ(service.pressKey("Return"), Result::eventFailed);
}

TEST_F(RemoteControlServiceTest, PlayKeyNeedsNoTarget) {
  service.setTarget(std::nullopt);
  EXPECT_EQ(service.togglePlayPause(), Result::clicked);
  ASSERT_EQ(events->systemDefined.size(), 2u);
  for (const auto& [index, flags, data] : {std::tuple{0u, 0x0A00u, 0x100A00}, {1u, 0x0B00u, 0x100B00}}) {
    const auto& event = events->systemDefined[index];
    EXPECT_EQ(std::tuple(event.type, event.subtype, event.timestamp),
              std::tuple(14, 8, time->uptimeSeconds()));
    EXPECT_EQ(std::tuple(event.modifierFlags, event.data1, event.data2), std::tuple(flags, data, -1));
  }
}

TEST_F(RemoteControlServiceTest, ChecksAnswerInTheirOrder) {
  const std::vector<std::function<Result()>> operations{
      [this] { return service.move(0, 0, 1); },
      [this] { return service.click(RemoteMouseButton::right); },
      [this] { return service.setButton(true); },
      [this] { return service.scroll(0, 0); },
      [this] { return service.typeText("a"); },
      [this] { return service.pressKey("f"); },
      [this] { return service.pointer(Phase::move, 0.5, 0.5); },
  };
  events->refusesSources = true;
  for (std::size_t index = 0; index < operations.size(); ++index) {
    SCOPED_TRACE(index);
    service.setEnabled(true);
    service.setTarget(target);
    permissions->input = true;
    EXPECT_EQ(operations[index](), Result::eventFailed);
    permissions->input = false;
    EXPECT_EQ(operations[index](), Result::permissionRequired);
    service.setTarget(std::nullopt);
    EXPECT_EQ(operations[index](), Result::displayRequired);
    service.setEnabled(false);
    EXPECT_EQ(operations[index](), Result::controlDisabled);
  }
  EXPECT_EQ(permissions->prompts, 0);
  time->runReady();  // on the main queue only
  EXPECT_GT(permissions->prompts, 0);
  EXPECT_EQ(service.togglePlayPause(), Result::controlDisabled);
  service.setEnabled(true);
  EXPECT_EQ(service.togglePlayPause(), Result::permissionRequired);
}

TEST_F(RemoteControlServiceTest, EventThatCannotBeMadeLeavesNothingBehind) {
  // A click of which only one half can be made posts neither; no button stays held.
  events->eventsLeft = 1;
  EXPECT_EQ(service.click(RemoteMouseButton::left), Result::eventFailed);
  events->eventsLeft = 1;
  EXPECT_EQ(service.pressKey("f"), Result::eventFailed);
  events->eventsLeft = 0;
  EXPECT_EQ(service.pointer(Phase::down, 0, 0), Result::eventFailed);
  EXPECT_EQ(service.setButton(true), Result::eventFailed);
  events->eventsLeft.reset();
  service.releaseButton();
  EXPECT_THAT(events->takePosted(), IsEmpty());

  // Of a text, what was posted stays posted.
  events->eventsLeft = 3;
  EXPECT_EQ(service.typeText(std::string(30, 'a')), Result::eventFailed);
  EXPECT_THAT(events->texts, ElementsAre(std::u16string(20, u'a'), std::u16string(20, u'a')));
}

TEST_F(RemoteControlServiceTest, CursorIsShownWithinTheTargetEdgesIncluded) {
  EXPECT_EQ(service.cursorState(), (RemoteCursorState{false, 0.5, 0.5}));
  service.pointer(Phase::move, 0.25, 0.75);
  EXPECT_EQ(service.cursorState(), (RemoteCursorState{true, 0.25, 0.75}));
  events->cursor = Point{1100, 200};
  EXPECT_EQ(service.cursorState(), (RemoteCursorState{true, 1, 0}));
  events->cursor = Point{1100.5, 200};
  EXPECT_EQ(service.cursorState(), (RemoteCursorState{false, 0.5, 0.5}));
  EXPECT_EQ(displayPoint(target, *displays, kNaN, 300), std::nullopt);
}

}  // namespace
}  // namespace kestrune
