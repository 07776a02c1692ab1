#include "CoordinatorFixture.h"
#include "model/KestruneError.h"
#include "support/DiscardValue.h"

namespace kestrune {
namespace {

constexpr CaptureSourceDescriptor::Kind kDisplay = CaptureSourceDescriptor::Kind::display;

class CoordinatorBrowserTest : public CoordinatorTest {
 protected:
  Viewer launchInVirtualMode() {
    preferences->set("stream.displayMode", "virtualDisplay");
    launch();
    auto viewer = connectViewer();
    viewer->sent.clear();
    return viewer;
  }
};

TEST_F(CoordinatorBrowserTest, AViewersRequestReadiesTheVirtualDisplayAndThenStartsCapture) {
  const auto viewer = launchInVirtualMode();
  browser->holdsOpen = true;
  requestStart(viewer);
  requestStart(viewer);
  EXPECT_THAT(states(viewer), ElementsAre(state("starting"), state("starting")));
  EXPECT_TRUE(coordinator->isPreparingBrowserDisplay && !coordinator->isCapturing);
  browser->completeOpen();
  time->advance(100ms);
  EXPECT_THAT(states(viewer), ElementsAre(state("streaming")));
  EXPECT_TRUE(coordinator->isBrowserDisplayActive && !coordinator->isPreparingBrowserDisplay);
  EXPECT_EQ(coordinator->selectedSource.get(), (CaptureSourceDescriptor{"Tesla Browser Display", kDisplay}));
  EXPECT_EQ(screen->latest()->filter.includedDisplays.front().id, 50u);
  EXPECT_EQ(browser->launches.back().arguments.back(), "https://duckduckgo.com");

  run(coordinator->stop());
  requestStart(viewer);
  EXPECT_TRUE(coordinator->isCapturing);
  EXPECT_EQ(browser->launches.size(), 1u);  // the window was brought back

  run(coordinator->stop());
  displays->displays.pop_back();  // it has gone without us
  browser->holdsOpen = false;
  requestStart(viewer);
  time->advance(1s);
  EXPECT_TRUE(coordinator->isCapturing);
  EXPECT_EQ(virtualDisplays->made, 2);
}

TEST_F(CoordinatorBrowserTest, AFailedPreparationIsToldAndLeavesTheStandby) {
  const auto viewer = launchInVirtualMode();
  const auto answer = [&] {
    requestStart(viewer);
    time->advance(10s);
    EXPECT_FALSE(coordinator->isPreparingBrowserDisplay || coordinator->isCapturing);
    return states(viewer).back();
  };
  const std::string noChrome = "Google Chrome is required to start the Virtual Mac Display stream.";
  const std::string noDisplay =
      "The Mac could not create the Chrome Virtual Mac Display. Check the Mac and retry.";
  browser->isInstalled = false;
  EXPECT_EQ(answer(), state("error", noChrome));
  EXPECT_EQ(coordinator->lastError.get(), noChrome);
  browser->isInstalled = true;
  virtualDisplays->failingStep = "origin";
  EXPECT_EQ(answer(), state("error", noDisplay));
  virtualDisplays->failingStep.clear();
  screen->contentFailure = std::make_exception_ptr(KestruneError::operationFailed("busy"));
  EXPECT_EQ(answer(), state("error", noDisplay));
  EXPECT_EQ(displays->displays.size(), 1u);
  EXPECT_EQ(browser->runningCount(), 0);

  screen->contentFailure = nullptr;
  browser->holdsOpen = true;
  requestStart(viewer);
  run(coordinator->stop());  // overtakes the request
  browser->completeOpen();
  time->advance(1s);
  EXPECT_EQ(states(viewer).back(), state("armed"));
  EXPECT_FALSE(coordinator->isCapturing);
}

TEST_F(CoordinatorBrowserTest, AViewerResetsAndRecoversTheBrowserAndFailuresAreReported) {
  const auto viewer = launchInVirtualMode();
  send(viewer, R"({"type":"resetBrowser"})");
  EXPECT_THAT(received(viewer), ElementsAre(R"({"type":"resetBrowserResult","result":"clicked"})"));
  EXPECT_EQ(coordinator->lastError.get(), "The managed Chrome display is not available.");
  requestStart(viewer);
  time->advance(1s);
  files->paths.insert("/data/Kestrune/Chrome Profile/Default/Last Session");
  send(viewer, R"({"type":"resetBrowser"})");
  time->advance(1s);
  EXPECT_EQ(browser->launches.size(), 2u);
  EXPECT_EQ(browser->launches.back().arguments.back(), "https://duckduckgo.com");
  browser->chromes.back()->isRunning = false;
  send(viewer, R"({"type":"openChrome"})");
  time->advance(1s);
  EXPECT_EQ(browser->launches.back().arguments.back(), "--restore-last-session");
}

TEST_F(CoordinatorBrowserTest, ARealDisplayIsScaledWhileItIsCaptured) {
  const DisplayMode full{1, 1920, 1080, 60, true}, scaled{2, 1440, 900, 60, true};
  displayModes->modes = {displayModes->current = full, scaled};
  launch();
  start(discardValue(coordinator->prepareMainDisplaySource()));
  time->advance(1s);
  EXPECT_EQ(browser->launches.back().display, 7u);
  const auto& calls = browser->chromes.back()->calls;
  requestStart(connectViewer());
  EXPECT_EQ(displayModes->current, scaled);
  EXPECT_EQ(std::ranges::count(calls, "place"), 1);
  run(coordinator->stop());
  EXPECT_EQ(displayModes->current, full);
  EXPECT_EQ(std::ranges::count(calls, "place"), 2);
}

TEST_F(CoordinatorBrowserTest, TheEndOfTheProgramEndsTheBrowserForGood) {
  const auto viewer = launchInVirtualMode();
  requestStart(viewer);
  time->advance(1s);
  EXPECT_TRUE(coordinator->isBrowserDisplayActive);
  browser->chromes.back()->behaviour.refusesToEnd = true;
  const auto ending = start(coordinator->prepareForTermination());
  time->advance(1s);
  EXPECT_TRUE(network->isListening());  // Chrome has time to save
  screen->latest()->onStopped(std::make_exception_ptr(KestruneError::operationFailed("gone")));
  requestStart(viewer);
  time->advance(2s);
  EXPECT_TRUE(ending.isFinished());
  EXPECT_EQ(coordinator->lastError.get(), std::nullopt);
  EXPECT_FALSE(network->isListening() || coordinator->isBrowserDisplayActive);
  EXPECT_EQ(virtualDisplays->made, 1);
  EXPECT_EQ(displays->displays.size(), 1u);
  EXPECT_EQ(browser->launches.size(), 1u);
}

}  // namespace
}  // namespace kestrune
