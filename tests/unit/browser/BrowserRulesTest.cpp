#include <gmock/gmock.h>

#include "browser/ChromeLaunch.h"
#include "browser/ChromeWindow.h"
#include "browser/DisplayScalingService.h"
#include "browser/FarRightOrigin.h"
#include "browser/StartPage.h"
#include "support/CapturedLog.h"
#include "support/FakeBrowser.h"

namespace kestrune {
namespace {

TEST(BrowserRules, AStartPageIsAWebAddressWithAHost) {
  EXPECT_EQ(normalizedBrowserURL("example.com/a?b=1#c"), "https://example.com/a?b=1#c");
  EXPECT_EQ(normalizedBrowserURL("\u00A0\t HTTP://Example.com:80/ \r\n"), "HTTP://Example.com:80/");
  for (const char* text : {"", " \n", "ftp://example.com", "https://", "https://:80/", "//example.com",
                           "javascript://%0aalert(1)", "--no-sandbox://x", "https://a b", "http:x?://y"}) {
    EXPECT_EQ(normalizedBrowserURL(text), std::nullopt) << text;
  }
}

TEST(BrowserRules, ALaunchNamesProfileFrameAndPageOrSession) {
  const Rect frame{2159.5, -0.5, 1279.4, 720};
  EXPECT_THAT(chromeLaunchArguments("/a b", frame, ChromeWindowPresentation::maximized, "https://x/"),
              testing::ElementsAre("--user-data-dir=/a b", "--no-first-run", "--no-default-browser-check",
                                   "--disable-session-crashed-bubble", "--disable-gpu",
                                   "--force-color-profile=srgb", "--window-position=2160,-1",
                                   "--window-size=1279,720", "--start-maximized", "https://x/"));
  FakeUserFiles files;
  for (const auto& [path, isSession] : {std::pair{"Sessions/Apps_1", false},
                                        {"Session_1", false},
                                        {"Sessions/Tabs_1", true},
                                        {"Last Tabs", true}}) {
    files.paths = {std::string("/p/Default/") + path};
    EXPECT_EQ(chromeProfileHasSavedSession(files, "/p"), isSession) << path;
  }
}

TEST(BrowserRules, ABrowserWindowIsLargeOrdinaryAndOnTargetByItsMiddle) {
  EXPECT_EQ(chromeWindowFrame({{5, 0, Rect{0, 0, 100, 500}},
                               {5, 3, Rect{0, 0, 900, 900}},
                               {5, 0, std::nullopt},
                               {6, 0, Rect{0, 0, 300, 300}},
                               {5, 0, Rect{7, 8, 101, 101}}},
                              5),
            (Rect{7, 8, 101, 101}));
  const Rect frame{1000, 0, 500, 400};
  EXPECT_TRUE(isOnTarget({897, 100, 202, 200}, frame));  // its middle is 2 points to the left
  EXPECT_FALSE(isOnTarget({896.5, 100, 202, 200}, frame));
  EXPECT_TRUE(isOnTarget({1000, 302, 500, 200}, frame));  // 2 points below
  EXPECT_FALSE(isOnTarget({1000, 303, 500, 200}, frame));
}

TEST(BrowserRules, TheVirtualDisplayGoesToTheFarRight) {
  EXPECT_EQ(farRightOrigin({}), std::nullopt);
  EXPECT_EQ(farRightOrigin({{0, 0, 1440, 900}, {2880, -50, 1920, 1080}, {1440, 0, 1440, 900}}),
            (Point{4800, -50}));
  EXPECT_EQ(farRightOrigin({{0, 0, 1440, 900}, {-480, -1080, 1920, 1080}}), (Point{1440, -1080}));
}

TEST(DisplayScaling, TheClosestRateIsTaken) {
  const DisplayMode at60{1, 1440, 900, 60, true}, at120{2, 1440, 900, 120, true}, at0{3, 1440, 900, 0, true};
  EXPECT_EQ(bestMode({at60, at120}, 1440, 900, 120), at120);
  EXPECT_EQ(bestMode({at60, at120}, 1440, 900, 90), at60);
  EXPECT_EQ(bestMode({at0, at60}, 1440, 900, 60), at0);
  EXPECT_EQ(bestMode({at60, at0, at120}, 1440, 900, 120), at0);
  EXPECT_EQ(bestMode({{4, 1440, 900, 60, false}, {5, 1440, 901, 60, true}}, 1440, 900, 60), std::nullopt);
}

TEST(DisplayScaling, TheFirstModeIsTheOneToReturnTo) {
  const CapturedLog log;
  const auto modes = std::make_shared<FakeDisplayModes>();
  const DisplayMode full{1, 1920, 1080, 60, true}, scaled{2, 1440, 900, 60, true};
  DisplayScalingService scaling(modes);
  modes->modes = {full, scaled};
  for (const bool refuses : {true, false, false}) {
    modes->current = full;
    modes->refuses = refuses;
    scaling.applyStreamingScale(7, 1440, 900);
  }
  EXPECT_EQ(modes->current, full);  // the last one changed nothing
  modes->current = scaled;
  scaling.restoreOriginalMode();
  EXPECT_EQ(modes->current, full);
  modes->current = scaled;  // by the user: this is no mode of ours
  scaling.applyStreamingScale(7, 1440, 900);
  scaling.restoreOriginalMode();
  EXPECT_EQ(modes->current, scaled);
}

}  // namespace
}  // namespace kestrune
