#include <gtest/gtest.h>

#include "platform/linux/x11/X11Displays.h"
#include "platform/linux/x11/X11PrivacyPermissions.h"
#include "support/XServerFixture.h"

namespace kestrune::linux_platform {
namespace {

using testing::ChildProcess;
using testing::eventually;
using testing::XServer;

TEST(X11DisplaysTest, KeepsAnOutputsIdentifierThroughModeSwitches) {
  XServer server(800, 600, XServer::Kind::xvnc);
  const X11Displays displays(std::make_shared<X11Server>(server.displayName()));
  const DisplayID only = displays.mainDisplay().value_or(0);
  EXPECT_EQ(displays.activeDisplays(), std::vector{only});
  EXPECT_EQ(displays.bounds(only), (Rect{0, 0, 800, 600}));
  EXPECT_EQ(displays.bounds(only + 1), Rect{});
  ASSERT_EQ(server.run("xrandr -s 1280x720"), 0);
  EXPECT_TRUE(eventually([&] { return displays.bounds(only) == Rect{0, 0, 1280, 720}; }));
  EXPECT_EQ(displays.mainDisplay(), only);
}

TEST(X11DisplaysTest, FollowsOutputsAndModesOfXorg) {
  XServer server(3840, 2160, XServer::Kind::dummy);
  const X11Displays displays(std::make_shared<X11Server>(server.displayName()));
  const auto mainDisplay = displays.mainDisplay();
  ASSERT_TRUE(mainDisplay);
  ASSERT_EQ(server.run("xrandr --addmode DUMMY1 1024x768"), 0);
  ASSERT_EQ(server.run("xrandr --output DUMMY0 --mode 1280x720"
                       " --output DUMMY1 --mode 1024x768 --right-of DUMMY0"),
            0);
  ASSERT_TRUE(eventually([&] { return displays.activeDisplays().size() == 2; }));
  const DisplayID second = displays.activeDisplays().back();
  EXPECT_TRUE(eventually([&] { return displays.bounds(second) == Rect{1280, 0, 1024, 768}; }));
  EXPECT_EQ(displays.bounds(*mainDisplay), (Rect{0, 0, 1280, 720}));

  // Older versions of RandR have no monitors but outputs, and at first nothing but the screen.
  const auto connection = X11Connection::open(server.displayName());
  for (const std::uint32_t version : {5U, 4U, 2U}) {
    const DisplayLayout layout = readDisplayLayout(*connection, version);
    ASSERT_EQ(layout.displays.size(), 2U) << version;
    EXPECT_EQ(layout.displays[0].id, *mainDisplay);
    EXPECT_EQ(layout.displays[1].id, second);
    EXPECT_EQ(layout.bounds(layout.displays[1]), (Rect{1280, 0, 1024, 768}));
  }
  const DisplayLayout screen = readDisplayLayout(*connection, 1);
  ASSERT_EQ(screen.displays.size(), 1U);
  EXPECT_EQ(screen.displays[0].area, (PixelRect{0, 0, 1280 + 1024, 768}));

  ASSERT_EQ(server.run("xrandr --output DUMMY1 --off --output DUMMY0 --mode 1024x768"), 0);
  EXPECT_TRUE(eventually([&] {
    return displays.activeDisplays() == std::vector<DisplayID>{*mainDisplay} &&
           displays.bounds(*mainDisplay) == Rect{0, 0, 1024, 768};
  }));
}

TEST(X11DisplaysTest, WithoutRandrTheWholeScreenIsTheDisplay) {
  XServer server(800, 600, XServer::Kind::xvfb, "-extension RANDR");
  const X11Displays displays(std::make_shared<X11Server>(server.displayName()));
  ASSERT_TRUE(displays.mainDisplay());
  EXPECT_EQ(displays.bounds(*displays.mainDisplay()), (Rect{0, 0, 800, 600}));
}

TEST(X11DisplaysTest, GlobalPointsStartAtTheMainDisplay) {
  XServer server(1600, 600);
  const X11Displays displays(std::make_shared<X11Server>(server.displayName()));
  ASSERT_TRUE(displays.mainDisplay());
  // Two monitors side by side, the right one primary.
  ASSERT_EQ(server.run("xrandr --setmonitor LEFT 800/200x600/150+0+0 none"), 0);
  ASSERT_EQ(server.run("xrandr --setmonitor *RIGHT 800/200x600/150+800+0 screen"), 0);
  ASSERT_TRUE(eventually([&] { return displays.activeDisplays().size() == 2; }));
  const auto all = displays.activeDisplays();
  EXPECT_EQ(all.front(), displays.mainDisplay());
  EXPECT_EQ(displays.bounds(all[0]), (Rect{0, 0, 800, 600}));
  EXPECT_EQ(displays.bounds(all[1]), (Rect{-800, 0, 800, 600}));
}

TEST(X11DisplaysTest, PanelsTakeTheirPartOfTheVisibleBounds) {
  XServer server(1600, 600);
  const X11Displays displays(std::make_shared<X11Server>(server.displayName()));
  ASSERT_EQ(server.run("xrandr --setmonitor LEFT 800/200x600/150+0+0 screen"), 0);
  ASSERT_EQ(server.run("xrandr --setmonitor *RIGHT 800/200x600/150+800+0 none"), 0);
  ASSERT_TRUE(eventually([&] { return displays.activeDisplays().size() == 2; }));
  const auto all = displays.activeDisplays();
  EXPECT_EQ(displays.visibleBounds(all[0]), (Rect{0, 0, 800, 600}));
  ChildProcess manager("env DISPLAY=" + server.displayName() + " openbox");
  ASSERT_TRUE(eventually([&] { return server.run("xprop -root _NET_WORKAREA | grep -q =") == 0; }));
  // As if a panel stood at the bottom of the whole screen, and a dock at its left.
  ASSERT_EQ(server.run("xprop -root -f _NET_WORKAREA 32c -set _NET_WORKAREA 60,0,1540,560"), 0);
  EXPECT_TRUE(eventually([&] { return displays.visibleBounds(all[0]) == Rect{0, 0, 800, 560}; }));
  EXPECT_EQ(displays.visibleBounds(all[1]), (Rect{-740, 0, 740, 560}));
  EXPECT_EQ(displays.visibleBounds(12345), Rect{});
  // What a window manager that was killed has left behind counts no longer.
  manager.signal(SIGKILL);
  EXPECT_TRUE(manager.exitCode());
  ASSERT_EQ(server.run("xprop -root -f _NET_WORKAREA 32c -set _NET_WORKAREA 60,0,1540,561"), 0);
  EXPECT_TRUE(eventually([&] { return displays.visibleBounds(all[0]) == Rect{0, 0, 800, 600}; }));
}

TEST(X11DisplaysTest, PermissionsAreWhatTheServerGrants) {
  XServer server(320, 200);
  const auto known = std::make_shared<X11Server>(server.displayName());
  const X11Displays displays(known);
  const X11PrivacyPermissions permissions(known);
  EXPECT_TRUE(permissions.isScreenCaptureAllowed());
  EXPECT_TRUE(permissions.isTrustedForInput());
  ASSERT_TRUE(displays.mainDisplay());
  // While the server does not answer, the last known state is returned at once.
  server.hang();
  EXPECT_TRUE(permissions.isScreenCaptureAllowed() && permissions.isTrustedForInput());
  EXPECT_TRUE(displays.mainDisplay());
  EXPECT_EQ(X11Server(server.displayName()).state()->failure,
            "The X display " + server.displayName() + " does not answer.");
  server.kill();
  EXPECT_TRUE(eventually([&] { return !permissions.isScreenCaptureAllowed(); }));
  EXPECT_FALSE(permissions.isTrustedForInput());
  EXPECT_FALSE(displays.mainDisplay());
  EXPECT_TRUE(displays.activeDisplays().empty());
}

}  // namespace
}  // namespace kestrune::linux_platform
