#include <gmock/gmock.h>
#include <signal.h>

#include "VirtualDisplayLab.h"
#include "linux/capture/CaptureTools.h"
#include "linux/input/InputLab.h"
#include "platform/linux/space/SpaceDisplays.h"
#include "platform/linux/space/SpaceInputEvents.h"
#include "platform/linux/space/SpaceScreenCapture.h"
#include "support/CapturedLog.h"

namespace kestrune::linux_platform {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using namespace kestrune::testing;

constexpr std::uint32_t kRed = 0xd02010;
constexpr std::uint32_t kGreen = 0x20c040;

class VirtualDisplayTest : public ::testing::Test {
 protected:
  VirtualDisplayTest() { desktopDisplay_ = displays_.mainDisplay().value(); }

  void bringUp() {
    display_ = virtualDisplays_.create(descriptor());
    id_ = display_->displayID();
    ASSERT_TRUE(display_->applySettings(settings(640, 480)));
    ASSERT_TRUE(eventually([this] { return isListed(id_); }));
  }
  bool isListed(DisplayID display) const {
    const auto all = displays_.activeDisplays();
    return std::find(all.begin(), all.end(), display) != all.end();
  }
  Entrance entrance() const { return Entrance(space_->environmentOf(id_)); }
  bool isOpenTo(const X11Address& address) const {
    try {
      X11Connection::open(address);
      return true;
    } catch (const X11Error&) {
      return false;
    }
  }

  CapturedLog log_;
  XServer desktop_{800, 600};
  const std::shared_ptr<DisplaySpace> space_ =
      std::make_shared<DisplaySpace>(portsOf(std::make_shared<X11Server>(desktop_.displayName())));
  const SpaceDisplays displays_{space_};
  XvfbVirtualDisplays virtualDisplays_{space_, portsOf};
  DisplayID desktopDisplay_ = 0;
  std::shared_ptr<VirtualDisplay> display_;
  DisplayID id_ = 0;
};

TEST_F(VirtualDisplayTest, StandsBesideTheDesktopForAsLongAsItsObject) {
  ASSERT_TRUE(virtualDisplays_.areAvailable());
  bringUp();
  EXPECT_THAT(displays_.activeDisplays(), ElementsAre(desktopDisplay_, id_));
  EXPECT_EQ(displays_.bounds(id_), (Rect{800, 0, 640, 480}));
  SpaceArrangement arrangement(space_);
  const auto configuration = arrangement.begin();
  EXPECT_FALSE(configuration->setOrigin(desktopDisplay_, 10, 10));
  EXPECT_TRUE(configuration->setOrigin(id_, 1000, -50));
  EXPECT_EQ(displays_.bounds(id_).x, 800);
  EXPECT_TRUE(configuration->complete());
  EXPECT_EQ(displays_.visibleBounds(id_), (Rect{1000, -50, 640, 480}));
  EXPECT_EQ(displays_.bounds(desktopDisplay_), (Rect{0, 0, 800, 600}));

  const Entrance before = entrance();
  const auto connection = X11Connection::open(before.address);
  EXPECT_EQ(connection->screen().width_in_millimeters, 169);
  EXPECT_FALSE(display_->applySettings(settings(640, 480)));
  display_.reset();
  EXPECT_THAT(displays_.activeDisplays(), ElementsAre(desktopDisplay_));
  // A program that comes too late does not land on the desktop.
  EXPECT_EQ(entrance().address.name, "");
  EXPECT_TRUE(eventually([&] { return !connection->roundTrip(); }));
  EXPECT_TRUE(eventually([&] {
    return !std::filesystem::exists(before.socket()) &&
           !std::filesystem::exists(before.authority.parent_path());
  }));
  for (const auto& refused : {settings(640, 480, true), settings(641, 480), settings(0, 480), {}}) {
    EXPECT_FALSE(virtualDisplays_.create(descriptor())->applySettings(refused));
  }
}

TEST_F(VirtualDisplayTest, LetsInTheHoldersOfItsKeyOnly) {
  bringUp();
  const Entrance way = entrance();
  EXPECT_TRUE(isOpenTo(way.address));
  EXPECT_FALSE(isOpenTo({way.address.name}));
  EXPECT_FALSE(isOpenTo({way.address.name, std::string(16, 'x')}));
  EXPECT_FALSE(isOpenTo({"127.0.0.1" + way.address.name, way.address.cookie}));
  EXPECT_EQ(modeOf(way.authority), 0600U);
  EXPECT_EQ(modeOf(way.authority.parent_path()), 0700U);
  // Programs find the key in the file.
  EXPECT_EQ(ChildProcess("env -i PATH=/usr/bin:/bin XAUTHORITY=" + way.authority.string() +
                         " DISPLAY=" + way.address.name + " xset q >/dev/null")
                .exitCode(),
            0);
}

TEST_F(VirtualDisplayTest, AStreamGoesFromOneServerToTheOtherAndBack) {
  bringUp();
  Painter(desktop_.displayName()).fill({0, 0, 800, 600}, kGreen);
  Painter painter(entrance().address);
  painter.fill({0, 0, 640, 480}, kRed);
  const auto onDesktop = Receiver::displayFilter(SpaceScreenCapture(space_), 0);
  const auto onVirtual = Receiver::displayFilter(SpaceScreenCapture(space_), 1);
  EXPECT_EQ(onVirtual.contentRect, (Rect{800, 0, 640, 480}));
  const auto shows = [](std::uint32_t colour) {
    return [colour](const PixelBuffer& picture) { return isColour(picture, 160, 120, colour); };
  };
  Receiver receiver(SpaceScreenCapture(space_), sized(320, 240), onDesktop);
  ASSERT_EQ(receiver.start(), "");
  EXPECT_TRUE(receiver.waitForPicture(shows(kGreen)));
  EXPECT_EQ(receiver.update(onVirtual), "");
  EXPECT_TRUE(receiver.waitForPicture(shows(kRed)));
  painter.fill({0, 0, 640, 480}, 0xffffff);
  EXPECT_TRUE(receiver.waitForPicture(shows(0xffffff)));
  EXPECT_EQ(receiver.update(sized(160, 120)), "");
  EXPECT_TRUE(receiver.waitForPicture([](const PixelBuffer& picture) { return picture.width() == 160; }));
  EXPECT_EQ(receiver.update(onDesktop), "");
  EXPECT_TRUE(
      receiver.waitForPicture([](const PixelBuffer& picture) { return isColour(picture, 80, 60, kGreen); }));
  // A display that has gone is refused, and the stream goes on.
  display_.reset();
  EXPECT_NE(receiver.update(onVirtual), "");
  const auto count = receiver.seen().size();
  receiver.stream().requestFrame();
  EXPECT_TRUE(receiver.waitForCount(count + 1));
}

TEST_F(VirtualDisplayTest, InputReachesTheServerOfItsPlace) {
  bringUp();
  RecordingWindow onDesktop(desktop_);
  RecordingWindow onVirtual(entrance().address);
  onVirtual.takeKeyboard();
  SpaceInputEvents events(space_);
  const auto source = events.createSource();
  ASSERT_TRUE(source);
  std::vector<std::string> lines;
  const auto hasCome = [&](const std::string& line) {
    return eventually([&] {
      for (auto& each : onVirtual.take()) lines.push_back(std::move(each));
      return std::find(lines.begin(), lines.end(), line) != lines.end();
    });
  };
  source->mouseEvent(MouseEventType::leftDown, {900, 100}, MouseButton::left)->post();
  source->mouseEvent(MouseEventType::leftUp, {900, 100}, MouseButton::left)->post();
  source->scrollEvent(-40, 0)->post();
  source->keyboardEvent(36, true)->post();
  source->keyboardEvent(36, false)->post();
  EXPECT_TRUE(hasCome("key 0xff0d up"));
  EXPECT_THAT(lines, ElementsAre("motion 100,100 state 0", "press 1", "release 1", "press 5", "release 5",
                                 "key 0xff0d down", "key 0xff0d up"));
  EXPECT_THAT(onDesktop.take(), IsEmpty());
  EXPECT_TRUE(eventually([&] { return events.cursorLocation() == Point{900, 100}; }));
  // The user's own hand, on the desktop.
  Painter(desktop_.displayName()).movePointer(7, 8);
  EXPECT_TRUE(eventually([&] { return events.cursorLocation() == Point{7, 8}; }));
}

TEST_F(VirtualDisplayTest, AMaximizedWindowFillsIt) {
  bringUp();
  const auto connection = X11Connection::open(entrance().address);
  const auto atom = [&](const std::string& name) {
    return waitForReply(
               *connection, xcb_intern_atom_reply,
               xcb_intern_atom(*connection, 0, static_cast<std::uint16_t>(name.size()), name.c_str()))
        ->atom;
  };
  const xcb_window_t window = xcb_generate_id(*connection);
  xcb_create_window(*connection, XCB_COPY_FROM_PARENT, window, connection->root(), 10, 10, 100, 100, 0,
                    XCB_WINDOW_CLASS_INPUT_OUTPUT, XCB_COPY_FROM_PARENT, 0, nullptr);
  const std::array<xcb_atom_t, 2> state{atom("_NET_WM_STATE_MAXIMIZED_HORZ"),
                                        atom("_NET_WM_STATE_MAXIMIZED_VERT")};
  xcb_change_property(*connection, XCB_PROP_MODE_REPLACE, window, atom("_NET_WM_STATE"), XCB_ATOM_ATOM, 32,
                      state.size(), state.data());
  xcb_map_window(*connection, window);
  connection->flush();
  EXPECT_TRUE(eventually([&] {
    const auto size =
        waitForReply(*connection, xcb_get_geometry_reply, xcb_get_geometry(*connection, window));
    const auto place = waitForReply(*connection, xcb_translate_coordinates_reply,
                                    xcb_translate_coordinates(*connection, window, connection->root(), 0, 0));
    const auto focus = waitForReply(*connection, xcb_get_input_focus_reply, xcb_get_input_focus(*connection));
    return size->width == 640 && size->height == 480 && place->dst_x == 0 && place->dst_y == 0 &&
           focus->focus == window;
  }));
}

TEST_F(VirtualDisplayTest, ItsCrashIsNoticedAndLeavesNoFile) {
  bringUp();
  const Entrance way = entrance();
  kill(serverOf(*X11Connection::open(way.address)), SIGKILL);
  EXPECT_TRUE(eventually([this] { return !isListed(id_); }));
  EXPECT_TRUE(eventually([&] { return log_.mentions("The virtual display ended by itself: signal 9"); }));
  EXPECT_TRUE(eventually([&] {
    return !std::filesystem::exists(way.socket()) && !std::filesystem::exists(way.authority.parent_path());
  }));
  EXPECT_TRUE(isListed(desktopDisplay_));
  bringUp();  // another one
}

TEST_F(VirtualDisplayTest, ItEndsWithAProcessThatIsKilled) {
  const TemporaryDirectory folder;
  const auto output = folder.path() / "environment";
  ChildProcess holder(std::string(KESTRUNE_HOLD_VIRTUAL_DISPLAY) + " >" + output.string());
  ASSERT_TRUE(eventually([&] { return readText(output).ends_with("\n\n"); }));
  std::vector<std::string> environment;
  std::istringstream lines(readText(output));
  for (std::string line; std::getline(lines, line);) environment.push_back(line);
  const Entrance way(environment);
  const auto connection = X11Connection::open(way.address);
  holder.signal(SIGKILL);
  EXPECT_TRUE(eventually([&] { return !connection->roundTrip(); }));
  EXPECT_TRUE(eventually([&] { return !std::filesystem::exists(way.socket()); }));
  // The next start removes what is left, but nothing that is recent and may yet be in use.
  ASSERT_TRUE(std::filesystem::exists(way.authority));
  bringUp();
  EXPECT_TRUE(std::filesystem::exists(way.authority));
  std::filesystem::last_write_time(way.authority.parent_path(),
                                   std::filesystem::file_time_type::clock::now() - std::chrono::hours(1));
  bringUp();
  EXPECT_FALSE(std::filesystem::exists(way.authority.parent_path()));
}

}  // namespace
}  // namespace kestrune::linux_platform
