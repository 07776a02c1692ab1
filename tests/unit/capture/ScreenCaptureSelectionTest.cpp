#include "ScreenCaptureFixture.h"

namespace kestrune {
namespace {

using ScreenCaptureSelectionTest = ScreenCaptureServiceTest;

TEST_F(ScreenCaptureSelectionTest, SelectsDisplaysByIdentifier) {
  const auto selectDisplay = [this](DisplayID display) {
    return run(service->selectDisplay(display, std::nullopt, false, false));
  };
  EXPECT_EQ(selectDisplay(7), "ok");
  EXPECT_EQ(take(), (Lines{"source Display 7", "target 7"}));
  EXPECT_EQ(selectDisplay(8), "The selected display is not available to ScreenCaptureKit yet.");
  capture->contentFailure = failure("no access");
  EXPECT_EQ(selectDisplay(9), "Unable to find the selected display: no access");
  EXPECT_EQ(take(), Lines{});
  EXPECT_EQ(service->selectedDisplayID(), 7u);
}

TEST_F(ScreenCaptureSelectionTest, SelectionsOnARunningStreamHappenOneAfterTheOther) {
  const auto stream = startOnMain();
  stream->holds = true;
  select(kSide, "First");
  service->selectFilter(displayFilter({11, {0, 0, 800, 600}}), "Second", std::nullopt, true);
  EXPECT_EQ(take(), (Lines{"target none", "target none"}));
  finish();  // the first filter: overtaken, so nothing is stored or told
  EXPECT_EQ(stream->calls, (Lines{"start", "filter", "configuration"}));
  finish();
  EXPECT_EQ(take(), Lines{});
  EXPECT_EQ(service->selectedDisplayID(), 7u);
  finish();
  EXPECT_EQ(take(), (Lines{"source Second", "target 11"}));
  EXPECT_EQ(service->selectedDisplayID(), 11u);
  finish();
  EXPECT_EQ(stream->configurations.back().width, 800);
  EXPECT_FALSE(stream->configurations.back().excludesCurrentProcessAudio);
  EXPECT_EQ(stream->frameRequests, 3);  // once for the encoding, once for each change
  send();
  EXPECT_TRUE(lastWasForced());
}

TEST_F(ScreenCaptureSelectionTest, FollowsTheModeOfItsDisplay) {
  const auto stream = startOnMain();
  const auto switchTo = [this](double width, double height) {
    displays->displays.front().frame = {0, 0, width, height};
    capture->latest()->onContentChanged();
  };
  using Size = std::pair<int, int>;
  const auto sizeOf = [](const ScreenStreamConfiguration& it) { return Size(it.width, it.height); };
  switchTo(1024, 768);
  EXPECT_EQ(take(), (Lines{"target none", "source Main Display", "target 7"}));
  EXPECT_EQ(stream->filters.back().contentRect, (Rect{0, 0, 1024, 768}));
  EXPECT_EQ(sizeOf(stream->configurations.back()), Size(1024, 768));
  send();
  EXPECT_TRUE(lastWasForced());
  stream->onContentChanged();  // to what it is already
  EXPECT_EQ(take(), Lines{});

  // At the same time as a change of the settings, which neither undoes.
  stream->holds = true;
  switchTo(800, 600);
  time->runReady();
  EXPECT_EQ(run(service->updateVideoSettings({.profile = StreamProfile::safe})), "waiting");
  finish();  // the filter; its configuration goes out behind that of the settings
  finish();
  EXPECT_EQ(outcome(), "ok");
  finish();
  finish();
  EXPECT_EQ(sizeOf(stream->configurations.back()), Size(800, 600));
  EXPECT_EQ(sizeOf(stream->configurations.at(stream->configurations.size() - 2)), Size(800, 600));
  stream->holds = false;
  EXPECT_EQ(run(service->stop()), "ok");

  // Before and during the next start.
  displays->displays.front().frame = {0, 0, 1280, 1024};
  capture->holdsStart = true;
  EXPECT_EQ(run(service->start({})), "waiting");
  EXPECT_EQ(sizeOf(capture->latest()->configuration), Size(1280, 1024));
  switchTo(640, 480);
  time->runReady();
  capture->latest()->holds = false;
  EXPECT_EQ(finish(), "ok");
  EXPECT_EQ(sizeOf(capture->latest()->configurations.back()), Size(640, 480));
}

TEST_F(ScreenCaptureSelectionTest, ASelectionThatAStopOvertookHasNoSayAfterIt) {
  const auto stream = startOnMain();
  stream->holds = true;
  select(kSide, "Side");
  time->runReady();
  EXPECT_EQ(run(service->stop()), "waiting");
  const auto stopped = std::exchange(stream->waiting.back(), nullptr);
  stream->waiting.pop_back();
  stopped(nullptr);
  time->runReady();
  EXPECT_EQ(outcome(), "ok");
  select(kMain);
  stream->holds = false;
  stream->complete();
  time->runReady();
  EXPECT_EQ(run(service->start({})), "ok");
  EXPECT_EQ(run(service->updateVideoSettings({.profile = StreamProfile::safe})), "ok");
  EXPECT_EQ(capture->latest()->configurations.back().height, 540);  // of 960x540; 768 would be the other's
}

TEST_F(ScreenCaptureSelectionTest, RefusedSelectionsAnnounceTheOldOneUnlessOvertaken) {
  const auto stream = startOnMain();
  stream->outcomes = {failure("no")};
  select(kSide, "Side");
  EXPECT_EQ(take(), (Lines{"target none", "source Main Display", "target 7",
                           "error Unable to change the capture source: no"}));
  EXPECT_EQ(service->selectedDisplayID(), 7u);

  stream->holds = true;
  select(kSide, "Side");
  select(kSide, "Side again");
  time->runReady();
  finish(failure("no"));
  EXPECT_EQ(take(), (Lines{"target none", "target none", "error Unable to change the capture source: no"}));
  finish();
  finish(failure("too small"));
  EXPECT_EQ(take(), (Lines{"source Side again", "target 9",
                           "error Unable to resize the changed capture source: too small"}));
}

}  // namespace
}  // namespace kestrune
