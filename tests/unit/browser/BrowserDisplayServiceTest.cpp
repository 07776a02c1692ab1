#include <gmock/gmock.h>

#include "browser/BrowserDisplayService.h"
#include "support/CapturedLog.h"
#include "support/DiscardValue.h"
#include "support/FakeBrowser.h"
#include "support/FakeInputEvents.h"
#include "support/ManualTime.h"

namespace kestrune {
namespace {

using namespace std::chrono_literals;
using testing::ElementsAre;

class BrowserDisplayServiceTest : public testing::Test {
 protected:
  template <class Value>
  TaskHandle start(Task<Value> task) {
    auto handle = startTask(queue, discardValue(std::move(task)));
    time->runReady();
    return handle;
  }
  /// Empty after a success.
  template <class Value>
  std::string failureOf(Task<Value> task) {
    const auto handle = start(std::move(task));
    time->advance(10s);
    EXPECT_TRUE(handle.isFinished());
    return handle.failure() ? localizedDescription(handle.failure()) : "";
  }
  void prepare() { EXPECT_EQ(failureOf(service->prepareVirtualDisplay("start.example")), ""); }
  FakeChrome& chrome() { return *browser->chromes.back(); }
  const std::string& page() const { return browser->launches.back().arguments.back(); }

  CapturedLog log;
  std::shared_ptr<ManualTime> time = ManualTime::make();
  std::shared_ptr<SerialQueue> queue = time->makeQueue("main");
  std::shared_ptr<FakeDisplays> displays = [] {
    auto made = std::make_shared<FakeDisplays>();
    made->displays = {{7, {0, 0, 1000.5, 500}}};
    return made;
  }();
  std::shared_ptr<FakePrivacyPermissions> permissions = std::make_shared<FakePrivacyPermissions>();
  std::shared_ptr<FakeBrowser> browser = std::make_shared<FakeBrowser>();
  std::shared_ptr<FakeUserFiles> files = std::make_shared<FakeUserFiles>();
  std::shared_ptr<FakeVirtualDisplays> virtualDisplays =
      std::make_shared<FakeVirtualDisplays>(std::vector{&displays->displays});
  std::shared_ptr<BrowserDisplayService> service =
      std::make_shared<BrowserDisplayService>(BrowserDisplayService::Dependencies{
          queue, displays, permissions, browser, browser, files, virtualDisplays, virtualDisplays});
};

TEST_F(BrowserDisplayServiceTest, ChromeOpensOnADisplayThatIsMadeOnce) {
  browser->next.looksUntilWindow = 20;
  prepare();
  EXPECT_EQ(displays->bounds(50), (Rect{1001, 0, 1920, 1080}));
  EXPECT_EQ(browser->launches.back().display, 50u);
  EXPECT_EQ(page(), "https://start.example");
  EXPECT_THAT(chrome().calls, ElementsAre("activate", "place"));

  displays->displays[0].frame.width = 5000;
  files->paths.insert("/data/Kestrune/Chrome Profile/Default/Last Session");
  prepare();
  EXPECT_EQ(virtualDisplays->made, 1);
  EXPECT_EQ(displays->bounds(50).x, 1001);
  EXPECT_EQ(page(), "--restore-last-session");
  EXPECT_EQ(failureOf(service->resetManagedChrome("other.example")), "");
  EXPECT_EQ(page(), "https://other.example");
  EXPECT_EQ(browser->runningCount(), 1);
}

TEST_F(BrowserDisplayServiceTest, AFailedStepLeavesNothing) {
  for (const auto& [step, words] :
       {std::pair{"settings", "macOS could not configure the 1920 × 1080 virtual display."},
        {"screen", "The virtual display was created but did not become available to macOS."},
        {"begin", "macOS could not begin positioning the virtual display."},
        {"origin", "macOS could not position the virtual display."},
        {"complete", "macOS could not place the virtual display to the right of the other displays."}}) {
    virtualDisplays->failingStep = step;
    EXPECT_EQ(failureOf(service->prepareVirtualDisplay("x")), words);
    EXPECT_EQ(displays->displays.size(), 1u) << step;
  }
  virtualDisplays->failingStep.clear();
  displays->displays[0].frame.x = 3e9;
  EXPECT_THAT(failureOf(service->prepareVirtualDisplay("x")), testing::HasSubstr("a safe position"));
  displays->displays[0].frame.x = 0;
  permissions->input = false;  // the window cannot be brought there
  const auto opening = start(service->prepareVirtualDisplay("x"));
  time->advance(4949ms);
  EXPECT_FALSE(opening.isFinished());
  time->advance(1ms);
  EXPECT_THAT(localizedDescription(opening.failure()), testing::HasSubstr("on the selected display."));
  EXPECT_THAT(chrome().calls, ElementsAre("activate", "terminate"));
  EXPECT_EQ(displays->displays.size(), 1u);
  browser->isInstalled = false;
  EXPECT_EQ(failureOf(service->openManagedChromeOnMainDisplay("x")),
            "Google Chrome is not installed in Applications.");
  EXPECT_EQ(failureOf(service->resetManagedChrome("x")), "The managed Chrome display is not available.");
}

TEST_F(BrowserDisplayServiceTest, AChromeThatRefusesToEndIsForcedAndThenLeft) {
  browser->next.refusesToEnd = true;
  prepare();
  start(service->resetManagedChrome("x"));
  time->advance(1999ms);
  EXPECT_THAT(chrome().calls, ElementsAre("activate", "place", "terminate"));
  time->advance(1ms);
  EXPECT_THAT(chrome().calls, ElementsAre("activate", "place", "terminate", "forceTerminate"));
  time->advance(1s);
  EXPECT_EQ(browser->launches.size(), 2u);
  EXPECT_TRUE(log.mentions("Managed Google Chrome did not terminate before shutdown"));
}

TEST_F(BrowserDisplayServiceTest, OfManyRequestsOneRunsAndTheNewestWaits) {
  prepare();
  browser->next.looksUntilWindow = 30;
  for (int count = 0; count < 20; ++count) {
    start(service->resetManagedChrome("https://x/" + std::to_string(count)));
    time->advance(50ms);
  }
  const auto recovery = start(service->recoverManagedChrome("x"));
  EXPECT_EQ(failureOf(service->recoverManagedChrome("x")), "");
  EXPECT_EQ(browser->launches.size(), 3u);
  EXPECT_EQ(page(), "https://x/19");
  EXPECT_TRUE(recovery.isFinished() && !recovery.failure());
  EXPECT_EQ(browser->runningCount(), 1);
  EXPECT_TRUE(log.contains("notice [App] Ignored duplicate managed Chrome recovery request"));
}

/// At any moment of a launch: no Chrome stays, and no display comes back.
TEST_F(BrowserDisplayServiceTest, WhatIsClosedDuringALaunchStaysClosed) {
  for (int moment = 0; moment < 6; ++moment) {
    prepare();
    chrome().behaviour.refusesToEnd = true;
    browser->holdsOpen = true;
    browser->next.looksUntilWindow = 5;
    const auto reset = start(service->resetManagedChrome("x"));
    if (moment > 0) chrome().isRunning = false;
    if (moment > 1) time->advance(50ms);
    if (moment > 2) browser->completeOpen();
    if (moment > 3) time->advance(moment * 50ms);
    service->closeBrowserDisplay();
    const auto ending = start(service->terminateManagedChrome());
    chrome().isRunning = chrome().isRunning && moment > 0;
    time->advance(100ms);
    EXPECT_TRUE(browser->waiting.empty() || !ending.isFinished());  // one will arrive
    browser->completeOpen();
    time->advance(100ms);
    EXPECT_TRUE(reset.isFinished() && ending.isFinished()) << moment;
    EXPECT_EQ(browser->runningCount(), 0) << moment;
    EXPECT_EQ(displays->displays.size(), 1u) << moment;
    browser->holdsOpen = false;
  }
}

TEST_F(BrowserDisplayServiceTest, TheNewerOfTwoDisplaysIsNotClosedByTheOlder) {
  browser->holdsOpen = true;
  const auto first = start(service->prepareVirtualDisplay("x"));
  const auto second = start(service->openManagedChromeOnMainDisplay("y"));
  for (int launch = 0; launch < 2; ++launch) {
    browser->completeOpen();
    time->advance(100ms);
  }
  EXPECT_TRUE(isCancellation(first.failure()));
  EXPECT_TRUE(second.isFinished() && !second.failure());
  EXPECT_EQ(browser->launches.back().display, 7u);
  EXPECT_EQ(browser->runningCount(), 1);
}

TEST_F(BrowserDisplayServiceTest, ARecoveryTakesOverWhatIsOnItsDisplay) {
  prepare();
  chrome().isRunning = false;
  const auto users = browser->add();  // on the main display
  browser->next.window = {1001, 0, 1920, 1080};
  const auto left = browser->add();
  EXPECT_EQ(failureOf(service->recoverManagedChrome("x")), "");
  service->repositionManagedChrome();
  displays->displays.pop_back();  // without us
  EXPECT_EQ(failureOf(service->resetManagedChrome("x")), "The managed Chrome display is not available.");
  service->repositionManagedChrome();
  EXPECT_THAT(left->calls, ElementsAre("unhide", "activate", "place", "place"));
  EXPECT_THAT(users->calls, testing::IsEmpty());
  EXPECT_EQ(browser->launches.size(), 1u);
}

}  // namespace
}  // namespace kestrune
