#include <gtest/gtest.h>

#include "platform/linux/windows/RandRDisplayModes.h"
#include "platform/linux/x11/X11Displays.h"
#include "support/XServerFixture.h"

namespace kestrune::linux_platform {
namespace {

using testing::eventually;
using testing::XServer;

/// Two displays beside each other: 1280 x 720 and, at its right, 1024 x 768.
class RandRDisplayModesTest : public ::testing::Test {
 protected:
  void SetUp() override {
    // A mode that is no mode for a desktop, at 50 fields in a second: 74.25 MHz / (2640 * 1125 / 2).
    ASSERT_EQ(server_.run("xrandr --newmode lace 74.25 1920 2448 2492 2640 1080 1084 1094 1125 interlace"),
              0);
    for (const auto* mode : {"DUMMY0 lace", "DUMMY0 1920x1080", "DUMMY1 1024x768"}) {
      ASSERT_EQ(server_.run("xrandr --addmode " + std::string(mode)), 0);
    }
    ASSERT_EQ(server_.run("xrandr --output DUMMY0 --primary --mode 1280x720"
                          " --output DUMMY1 --mode 1024x768 --right-of DUMMY0"),
              0);
    ASSERT_TRUE(eventually([&] {
      const auto all = displays_.activeDisplays();
      return all.size() == 2 && displays_.bounds(all[1]) == Rect{1280, 0, 1024, 768};
    }));
    first_ = displays_.activeDisplays()[0];
    second_ = displays_.activeDisplays()[1];
  }
  static std::optional<DisplayMode> find(const DisplayModes& modes, DisplayID display, int width,
                                         int height) {
    for (const auto& each : modes.allModes(display).value_or(std::vector<DisplayMode>())) {
      if (each.width == width && each.height == height && each.isUsableForDesktop) return each;
    }
    return std::nullopt;
  }
  Rect first() const { return displays_.bounds(first_); }
  Rect second() const { return displays_.bounds(second_); }
  bool screenIs(const std::string& size) const {
    return server_.run("xrandr | grep -q 'current " + size + ",'") == 0;
  }
  std::size_t recordCount() const {
    std::error_code failure;
    const std::filesystem::directory_iterator records(folder_, failure);
    return failure ? 0U : static_cast<std::size_t>(std::distance(begin(records), end(records)));
  }

  XServer server_{3840, 2160, XServer::Kind::dummy};
  const std::shared_ptr<X11Server> known_ = std::make_shared<X11Server>(server_.displayName());
  const X11Displays displays_{known_};
  const TemporaryDirectory top_;
  const std::filesystem::path folder_ = top_.path() / "state";
  DisplayID first_ = 0;
  DisplayID second_ = 0;
};

TEST_F(RandRDisplayModesTest, MakesRoomAndGivesItBack) {
  RandRDisplayModes modes(known_, folder_);
  const auto original = modes.currentMode(first_);
  ASSERT_TRUE(original);
  EXPECT_EQ(std::pair(original->width, original->height), std::pair(1280, 720));
  EXPECT_NEAR(original->refreshRate, 60, 0.5);
  EXPECT_FALSE(modes.currentMode(12345) || modes.allModes(12345));
  const auto all = modes.allModes(first_).value();
  const auto lace = std::find_if(all.begin(), all.end(), [](auto& each) { return !each.isUsableForDesktop; });
  ASSERT_NE(lace, all.end());
  EXPECT_NEAR(lace->refreshRate, 50, 0.01);
  // What another display has, and what does not exist.
  EXPECT_FALSE(modes.setMode(first_, {original->id + 100000, 1280, 720, 60, true}));
  EXPECT_FALSE(modes.setMode(12345, *original));
  EXPECT_EQ(recordCount(), 0U);

  // No wait: what is known is new when the call returns.
  ASSERT_TRUE(modes.setMode(first_, find(modes, first_, 1920, 1080).value()));
  EXPECT_EQ(first(), (Rect{0, 0, 1920, 1080}));
  EXPECT_EQ(second(), (Rect{1920, 0, 1024, 768}));
  EXPECT_TRUE(screenIs("2944 x 1080"));
  ASSERT_TRUE(modes.setMode(first_, find(modes, first_, 1024, 768).value()));
  EXPECT_EQ(second(), (Rect{1920, 0, 1024, 768}));
  EXPECT_TRUE(screenIs("2944 x 768"));
  EXPECT_EQ(recordCount(), 1U);
  ASSERT_TRUE(modes.setMode(first_, *original));
  EXPECT_EQ(first(), (Rect{0, 0, 1280, 720}));
  EXPECT_EQ(second(), (Rect{1280, 0, 1024, 768}));
  EXPECT_TRUE(screenIs("2304 x 768"));
  EXPECT_EQ(recordCount(), 0U);
}

TEST_F(RandRDisplayModesTest, TheNextStartPutsBackWhatACrashHasLeft) {
  // The number of a process that died is ours now, which began at another time.
  const auto leaveBehind = [&] {
    RandRDisplayModes died(known_, folder_);
    if (!died.setMode(first_, find(died, first_, 1920, 1080).value())) return false;
    const auto file = std::filesystem::directory_iterator(folder_)->path();
    std::string text = readText(file);
    text.insert(text.find(':', text.find("startTime")) + 1, "1");
    writeText(file, text);
    return true;
  };
  ASSERT_TRUE(leaveBehind());
  EXPECT_EQ(recordCount(), 1U);
  RandRDisplayModes modes(known_, folder_);
  EXPECT_EQ(first(), (Rect{0, 0, 1280, 720}));
  EXPECT_EQ(second(), (Rect{1280, 0, 1024, 768}));
  EXPECT_EQ(recordCount(), 0U);

  // What the user has chosen since stays.
  ASSERT_TRUE(leaveBehind());
  ASSERT_EQ(server_.run("xrandr --output DUMMY0 --mode 1024x768"), 0);
  ASSERT_TRUE(eventually([&] { return first() == Rect{0, 0, 1024, 768}; }));
  const RandRDisplayModes later(known_, folder_);
  EXPECT_EQ(first(), (Rect{0, 0, 1024, 768}));
  EXPECT_EQ(recordCount(), 0U);

  // What a program has set that runs stays, too.
  ASSERT_TRUE(modes.setMode(first_, find(modes, first_, 1280, 720).value()));
  const RandRDisplayModes beside(known_, folder_);
  EXPECT_EQ(first(), (Rect{0, 0, 1280, 720}));
  EXPECT_EQ(recordCount(), 1U);
}

TEST(RandRDisplayModesAloneTest, AServerThatRefusesOrHangsChangesNothing) {
  const TemporaryDirectory folder;
  XServer server(800, 600, XServer::Kind::xvfb, "-extension RANDR");
  const auto known = std::make_shared<X11Server>(server.displayName());
  RandRDisplayModes modes(known, folder.path());
  const DisplayID display = X11Displays(known).mainDisplay().value();
  EXPECT_FALSE(modes.currentMode(display) || modes.allModes(display));
  server.hang();
  EXPECT_FALSE(modes.setMode(display, {1, 640, 480, 60, true}));
}

}  // namespace
}  // namespace kestrune::linux_platform
