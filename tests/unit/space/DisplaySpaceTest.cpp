#include <gmock/gmock.h>

#include "platform/linux/space/SpaceDisplays.h"
#include "platform/linux/space/SpaceInputEvents.h"
#include "platform/linux/space/SpaceScreenCapture.h"
#include "platform/linux/space/SpaceWindows.h"
#include "runtime/Error.h"
#include "support/FakeInputEvents.h"
#include "support/FakeScreenCapture.h"

namespace kestrune::linux_platform {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

class FakeWindows final : public Windows {
 public:
  std::vector<WindowInfo> windows;
  std::optional<Rect> placed;

  std::vector<WindowInfo> onScreenWindows() override { return windows; }
  bool placeFirstWindow(ProcessID, const Rect& frame) override {
    placed = frame;
    return true;
  }
};

/// A server of one display.
struct Server {
  Server(DisplayID id, double width, double height) {
    displays->displays = {{id, {0, 0, width, height}}};
    capture->displays = displays->displays;
  }
  ServerPorts ports() const { return {displays, permissions, input, capture, windows, {}, {}}; }

  std::shared_ptr<FakeDisplays> displays = std::make_shared<FakeDisplays>();
  std::shared_ptr<FakePrivacyPermissions> permissions = std::make_shared<FakePrivacyPermissions>();
  std::shared_ptr<FakeInputEvents> input = std::make_shared<FakeInputEvents>();
  std::shared_ptr<FakeScreenCapture> capture = std::make_shared<FakeScreenCapture>();
  std::shared_ptr<FakeWindows> windows = std::make_shared<FakeWindows>();
};

class DisplaySpaceTest : public ::testing::Test {
 protected:
  DisplaySpaceTest() { space->add(id, beside.ports(), {}); }

  void mouse(MouseEventType type, double x, double y) {
    events.createSource()->mouseEvent(type, {x, y}, MouseButton::left)->post();
  }
  void key(std::uint16_t code, bool isDown) { events.createSource()->keyboardEvent(code, isDown)->post(); }
  ContentFilter filterOf(DisplayID display) const {
    return capture.filterForDisplay({display, space->regionOf(display)->bounds(display)});
  }

  Server desktop{66, 800, 600};
  Server beside{66, 640, 480};  // servers number their displays alike
  const std::shared_ptr<DisplaySpace> space = std::make_shared<DisplaySpace>(desktop.ports());
  const DisplayID id = DisplaySpace::newDisplayID();
  SpaceInputEvents events{space};
  SpaceScreenCapture capture{space};
};

TEST_F(DisplaySpaceTest, ADragStaysWithTheServerOfItsPressAndAReleaseFindsIt) {
  mouse(MouseEventType::leftDown, 810, 10);
  key(36, true);
  mouse(MouseEventType::leftDragged, 100, 20);  // beyond the edge
  mouse(MouseEventType::leftUp, 100, 20);
  mouse(MouseEventType::leftDown, 100, 20);
  key(36, false);
  key(53, true);
  EXPECT_THAT(beside.input->takePosted(),
              ElementsAre("mouse 1 (10, 10) button 0", "key 36 down", "mouse 6 (0, 20) button 0",
                          "mouse 2 (0, 20) button 0", "key 36 up"));
  EXPECT_THAT(desktop.input->takePosted(), ElementsAre("mouse 1 (100, 20) button 0", "key 53 down"));
  // Its server goes while a button is held.
  mouse(MouseEventType::leftUp, 100, 20);
  mouse(MouseEventType::leftDown, 810, 10);
  space->remove(id);
  desktop.input->posted.clear();
  mouse(MouseEventType::leftUp, 10, 10);
  key(53, false);
  EXPECT_THAT(desktop.input->takePosted(), ElementsAre("mouse 2 (10, 10) button 0", "key 53 up"));
}

TEST_F(DisplaySpaceTest, APlaceWithoutADisplayBelongsToTheNearest) {
  mouse(MouseEventType::moved, 1440, 480);  // the far corner itself
  mouse(MouseEventType::moved, -5, 700);
  EXPECT_THAT(beside.input->posted, ElementsAre("mouse 5 (639, 479) button 0"));
  EXPECT_THAT(desktop.input->posted, ElementsAre("mouse 5 (0, 599) button 0"));
}

TEST_F(DisplaySpaceTest, TheCursorIsThatOfThePointerMovedLast) {
  desktop.input->cursor = Point{5, 5};
  beside.input->cursor = Point{50, 50};
  EXPECT_EQ(events.cursorLocation(), (Point{5, 5}));
  mouse(MouseEventType::moved, 820.4, 30);
  beside.input->cursor = Point{20, 30};
  EXPECT_EQ(events.cursorLocation(), (Point{820, 30}));
  desktop.input->cursor = Point{9, 9};
  EXPECT_EQ(events.cursorLocation(), (Point{9, 9}));
  events.createSource()->scrollEvent(-10, 0)->post();
  EXPECT_THAT(desktop.input->posted, ElementsAre("scroll -10 0"));
}

TEST_F(DisplaySpaceTest, WithoutADesktopThePrivateDisplayIsTheMainOne) {
  desktop.displays->displays.clear();
  desktop.permissions->input = false;
  desktop.capture->contentFailure = std::make_exception_ptr(std::runtime_error("no desktop"));
  EXPECT_EQ(SpaceDisplays(space).mainDisplay(), id);
  EXPECT_TRUE(SpacePermissions(space).isTrustedForInput());
  key(36, true);
  EXPECT_THAT(beside.input->posted, ElementsAre("key 36 down"));
  std::size_t count = 0;
  capture.shareableContent(false, false, [&](std::optional<ShareableContent> content, std::exception_ptr) {
    count = content.value().displays.size();
  });
  EXPECT_EQ(count, 1U);
  space->remove(id);
  std::exception_ptr failure;
  capture.shareableContent(false, false, [&](auto, std::exception_ptr outcome) { failure = outcome; });
  EXPECT_EQ(localizedDescription(failure), "no desktop");
  EXPECT_FALSE(SpaceDisplays(space).mainDisplay());
}

TEST_F(DisplaySpaceTest, WindowsArePlacedOnTheServerOfTheFrame) {
  beside.windows->windows = {{7, 0, Rect{1, 2, 3, 4}}};
  SpaceWindows windows(space);
  EXPECT_EQ(windows.onScreenWindows().at(0).bounds, (Rect{801, 2, 3, 4}));
  EXPECT_TRUE(windows.placeFirstWindow(7, {800, 0, 640, 480}));
  EXPECT_EQ(beside.windows->placed, (Rect{0, 0, 640, 480}));
  EXPECT_FALSE(desktop.windows->placed);
  key(36, true);
  EXPECT_THAT(beside.input->posted, ElementsAre("key 36 down"));
}

TEST_F(DisplaySpaceTest, AStreamThatCannotBeSwitchedShowsWhatItDid) {
  std::vector<std::string> ends;
  const auto stream = capture.createStream(filterOf(66), {}, [&](const std::exception_ptr& reason) {
    ends.push_back(localizedDescription(reason));
  });
  const auto ignore = [](const std::exception_ptr&) {};
  stream->startCapture(ignore);
  const auto before = desktop.capture->latest();
  beside.capture->outcomes = {std::make_exception_ptr(std::runtime_error("refused"))};
  std::string outcome;
  const auto note = [&](const std::exception_ptr& failure) {
    outcome = failure ? localizedDescription(failure) : "done";
  };
  stream->updateContentFilter(filterOf(id), note);
  EXPECT_EQ(outcome, "refused");
  EXPECT_THAT(before->calls, ElementsAre("start"));

  // What ends of itself, and what is set, while the next one starts.
  beside.capture->holdsStart = true;
  stream->updateContentFilter(filterOf(id), note);
  const auto after = beside.capture->latest();
  EXPECT_EQ(after->filter.includedDisplays.at(0).id, 66U);
  EXPECT_EQ(after->filter.contentRect, (Rect{0, 0, 640, 480}));
  before->onStopped(std::make_exception_ptr(std::runtime_error("gone")));
  ScreenStreamConfiguration small;
  small.width = 10;
  stream->updateConfiguration(small, ignore);
  after->complete();
  EXPECT_EQ(outcome, "done");
  EXPECT_THAT(after->configurations, ElementsAre(small));
  EXPECT_THAT(ends, IsEmpty());
  after->onStopped(std::make_exception_ptr(std::runtime_error("gone as well")));
  EXPECT_THAT(ends, ElementsAre("gone as well"));
}

}  // namespace
}  // namespace kestrune::linux_platform
