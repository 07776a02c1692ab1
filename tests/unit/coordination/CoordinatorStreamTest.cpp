#include "CoordinatorFixture.h"

namespace kestrune {
namespace {

constexpr const char* kCaptureMessage =
    "The Mac could not start screen capture. Check Screen Recording permission and reselect the display.";

using CoordinatorStreamTest = CoordinatorTest;

TEST_F(CoordinatorStreamTest, ALaunchSelectsTheMainDisplayAndWaitsForAViewer) {
  launch();
  EXPECT_THAT(phases, ElementsAre("Source Selected", "Starting", "Remote Ready"));
  EXPECT_EQ(coordinator->selectedSource.get(),
            (CaptureSourceDescriptor{"Main Display", CaptureSourceDescriptor::Kind::display}));
  EXPECT_EQ(screen->streamCount(), 0u);
  const auto viewer = connectViewer();
  EXPECT_EQ(states(viewer).back(), state("armed"));
  run(coordinator->startServing());  // it is up already
  EXPECT_EQ(network->endpoints.size(), 1u);
}

TEST_F(CoordinatorStreamTest, AServerThatCannotStartLeavesNothingUp) {
  network->outcome = TcpListener::State::failed;
  network->reason = "Address already in use";
  launch();
  EXPECT_EQ(coordinator->phase.get(), StreamPhase::failed("Address already in use"));
  EXPECT_EQ(coordinator->lastError.get(), "Address already in use");
  EXPECT_FALSE(coordinator->isRemoteStartArmed || coordinator->isRemoteStartBusy);
  EXPECT_EQ(time->pendingDelayedWork(), 0u);

  network->outcome = TcpListener::State::ready;
  run(coordinator->startServing());
  EXPECT_EQ(coordinator->phase.get(), StreamPhase(Case::remoteReady));
  EXPECT_EQ(coordinator->lastError.get(), std::nullopt);
}

TEST_F(CoordinatorStreamTest, AStartThatIsStoppedIsNoFailure) {
  make();
  run(coordinator->selectDefaultDisplayIfNeeded());
  network->outcome = TcpListener::State::setup;  // neither ready nor failed
  const auto starting = start(coordinator->startServing());
  time->runReady();
  EXPECT_TRUE(coordinator->isRemoteStartBusy);
  const auto ending = start(coordinator->prepareForTermination());
  time->runReady();
  EXPECT_FALSE(ending.isFinished());
  network->changeListenerState(TcpListener::State::ready, "");
  time->runReady();
  EXPECT_TRUE(starting.isFinished() && ending.isFinished());
  EXPECT_EQ(coordinator->phase.get(), StreamPhase(Case::sourceSelected));
  EXPECT_EQ(coordinator->lastError.get(), std::nullopt);
  EXPECT_FALSE(network->isListening());
}

TEST_F(CoordinatorStreamTest, AViewersRequestStartsCaptureAndEncoding) {
  const auto viewer = waitingViewer();
  requestStart(viewer);
  EXPECT_THAT(states(viewer), ElementsAre(state("starting"), state("streaming")));
  EXPECT_THAT(phases, ElementsAre("Starting", "Streaming"));
  EXPECT_FALSE(screen->latest()->configuration.showsCursor);  // the page draws it
  EXPECT_FALSE(coordinator->canChangeSource());
  showFrame();
  EXPECT_EQ(compression->frameCount(), 1u);
  EXPECT_TRUE(compression->sessions.back()->frames.front().forceKeyframe);

  requestStart(viewer);  // again: the same stream
  EXPECT_THAT(states(viewer), ElementsAre(state("streaming")));
  EXPECT_EQ(screen->streamCount(), 1u);
}

TEST_F(CoordinatorStreamTest, WhatTheViewerDoesDuringAStartCounts) {
  const auto viewer = waitingViewer();
  screen->holdsStart = true;
  requestStart(viewer);
  requestStart(viewer);
  EXPECT_THAT(states(viewer), ElementsAre(state("starting"), state("starting")));
  EXPECT_TRUE(coordinator->isRemoteStartBusy);
  disconnect(viewer);
  answerAll();
  EXPECT_TRUE(coordinator->isCapturing && !coordinator->isRemoteStartBusy);
  EXPECT_EQ(coordinator->phase.get(), StreamPhase(Case::remoteReady));
  EXPECT_EQ(screen->streamCount(), 1u);
  showFrame();
  EXPECT_EQ(compression->frameCount(), 0u);
}

TEST_F(CoordinatorStreamTest, MissingPermissionsAreToldToTheViewer) {
  const auto viewer = waitingViewer();
  permissions->input = false;
  requestStart(viewer);
  const std::string message =
      "Screen Recording and Accessibility must be allowed on the Mac before streaming can start.";
  EXPECT_THAT(states(viewer), ElementsAre(state("error", message)));
  EXPECT_FALSE(coordinator->remoteControlPermissionGranted);
  EXPECT_EQ(screen->streamCount(), 0u);
}

TEST_F(CoordinatorStreamTest, AFailedCaptureKeepsTheStandbyForAnotherTry) {
  const auto viewer = waitingViewer();
  screen->outcomes = {failure("busy")};
  requestStart(viewer);
  EXPECT_THAT(states(viewer), ElementsAre(state("starting"), state("error", kCaptureMessage)));
  EXPECT_THAT(phases, ElementsAre("Starting", "Remote Ready"));
  EXPECT_EQ(coordinator->lastError.get(), kCaptureMessage);
  EXPECT_EQ(coordinator->metrics->lastError, kCaptureMessage);
  requestStart(viewer);
  EXPECT_THAT(states(viewer), ElementsAre(state("starting"), state("streaming")));
  EXPECT_EQ(coordinator->lastError.get(), std::nullopt);
}

TEST_F(CoordinatorStreamTest, ARequestInTheInstantOfAFailureIsNotAnsweredStartingForEver) {
  const auto viewer = waitingViewer();
  // The failure comes ever more turns after the request: before it is read, while it is handled, after its
  // answer.
  for (int turns = 0; turns < 8; ++turns) {
    screen->holdsStart = true;
    requestStart(viewer);
    states(viewer);
    screen->holdsStart = false;
    const auto fail = [stream = screen->latest()] { stream->complete(failure("busy")); };
    SerialQueue::Work later = fail;
    for (int turn = 0; turn < turns; ++turn) {
      later = [queue = mainQueue, next = std::make_shared<SerialQueue::Work>(std::move(later))] {
        queue->post(std::move(*next));
      };
    }
    viewer->deliver(textFrame(R"({"type":"startStream"})"));
    mainQueue->post(std::move(later));
    time->runReady();
    EXPECT_NE(states(viewer).back(), state("starting")) << turns;
    EXPECT_FALSE(coordinator->isRemoteStartBusy) << turns;
    run(coordinator->stop());
  }
}

TEST_F(CoordinatorStreamTest, WithoutADisplayTheServerIsUpAndARequestFails) {
  screen->displays.clear();
  const auto viewer = waitingViewer();
  EXPECT_TRUE(coordinator->isRemoteStartArmed);
  requestStart(viewer);
  EXPECT_EQ(states(viewer).back(), state("error", kCaptureMessage));
  disconnect(viewer);
  EXPECT_FALSE(log.mentions("Rejected invalid"));
}

TEST_F(CoordinatorStreamTest, EncodingFollowsTheViewerAndAShortLossCostsNothing) {
  const auto first = streamToViewer();
  showFrame();
  EXPECT_EQ(compression->frameCount(), 1u);
  disconnect(first);
  EXPECT_THAT(phases, ElementsAre("Recovering"));
  time->advance(4s);
  const auto second = connectViewer();
  EXPECT_THAT(phases, ElementsAre("Recovering", "Streaming"));
  EXPECT_THAT(states(second), Contains(state("streaming")));
  time->advance(2s);
  showFrame();
  EXPECT_EQ(compression->frameCount(), 2u);
  EXPECT_TRUE(compression->sessions.back()->frames.back().forceKeyframe);

  disconnect(second);
  EXPECT_EQ(coordinator->metrics->viewerCount, 0);
  time->advance(5s);
  showFrame();
  EXPECT_EQ(compression->frameCount(), 2u);  // capture goes on, encoding does not
  const auto third = connectViewer();
  showFrame();
  EXPECT_EQ(compression->frameCount(), 3u);
}

TEST_F(CoordinatorStreamTest, AMinuteWithoutViewersEndsCaptureAndTheSourceIsPausedMeanwhile) {
  disconnect(streamToViewer());
  EXPECT_TRUE(log.mentions("Paused source playback after viewer connection loss"));
  time->advance(59s);
  const auto second = connectViewer();
  EXPECT_TRUE(log.mentions("Resumed source playback after viewer reconnection"));
  disconnect(second);
  time->advance(60s);
  EXPECT_FALSE(coordinator->isCapturing || coordinator->isRemoteStartBusy);
  EXPECT_EQ(coordinator->phase.get(), StreamPhase(Case::remoteReady));
  EXPECT_EQ(states(connectViewer()).back(), state("armed"));
}

TEST_F(CoordinatorStreamTest, AStreamThatDiesIsToldAndMayBeStartedAnew) {
  const auto viewer = streamToViewer();
  time->advance(1s);
  screen->latest()->onStopped(failure("the display is gone"));
  time->runReady();
  const std::string told = "Screen capture stopped on the Mac. Check the selected display, then try again.";
  EXPECT_THAT(states(viewer), ElementsAre(state("error", told)));
  EXPECT_THAT(phases, ElementsAre("Remote Ready"));
  EXPECT_EQ(coordinator->lastError.get(), "Screen capture stopped unexpectedly: the display is gone");
  EXPECT_EQ(coordinator->metrics->captureFPS, 0);
  EXPECT_EQ(coordinator->metrics->viewerCount, 1);
  EXPECT_FALSE(coordinator->isCapturing);
  requestStart(viewer);
  EXPECT_THAT(states(viewer), ElementsAre(state("starting"), state("streaming")));
}

TEST_F(CoordinatorStreamTest, AnEncoderThatGivesNoPictureIsToldUntilItDoes) {
  compression->answersAtOnce = true;
  const auto viewer = streamToViewer();
  const auto showFrames = [&](int count) {
    for (int frame = 0; frame < count; ++frame) {
      showFrame();
      time->advance(16ms);
    }
  };
  showFrames(1);
  compression->sessions.back()->encodeStatuses.assign(30, -5);  // half a second
  showFrames(60);
  EXPECT_THAT(states(viewer), IsEmpty());

  preferences->edit({{"stream.videoEncoderKind", "hardware"}});
  compression->createStatuses.assign(10'000, -12915);
  showFrames(600);
  const std::string reason = "Unable to create the H.265 (Experimental) encoder (OSStatus -12915).";
  const std::string told = "The Mac could not encode the picture. Check the video encoder setting. " + reason;
  EXPECT_THAT(states(viewer), ElementsAre(state("error", told)));
  EXPECT_EQ(coordinator->lastError.get(), reason);
  const auto lines = log.lines();
  EXPECT_LE(std::ranges::count_if(lines, [](const auto& line) { return line.find("-12915") != line.npos; }),
            6);
  requestStart(viewer);  // another try
  showFrames(100);
  EXPECT_THAT(states(viewer), ElementsAre(state("streaming"), state("error", told)));

  preferences->edit({{"stream.videoEncoderKind", "automatic"}});
  compression->createStatuses.clear();
  showFrames(1);
  EXPECT_THAT(states(viewer), ElementsAre(state("streaming")));
  EXPECT_THAT(phases, IsEmpty());
}

TEST_F(CoordinatorStreamTest, TheUsersStopGoesBackToStandby) {
  const auto viewer = streamToViewer();
  run(coordinator->stop());
  EXPECT_THAT(states(viewer), ElementsAre(state("armed")));
  EXPECT_EQ(coordinator->phase.get(), StreamPhase(Case::remoteReady));
  EXPECT_EQ(screen->latest()->calls.back(), "stop");
}

TEST_F(CoordinatorStreamTest, OverlappingTeardownsShareOneRunThatEndsCaptureBeforeTheServer) {
  const auto viewer = streamToViewer();
  const auto stream = screen->latest();
  stream->holds = true;
  const auto one = start(coordinator->teardown());
  const auto two = start(coordinator->teardown());
  time->runReady();
  EXPECT_FALSE(one.isFinished() || two.isFinished());
  EXPECT_EQ(stream->calls.back(), "stop");
  EXPECT_TRUE(network->isListening());
  EXPECT_FALSE(coordinator->isRemoteStartArmed);
  EXPECT_THAT(received(viewer), Contains(HasSubstr(R"("cursorState","visible":false)")));
  stream->onStopped(failure("late"));  // nobody cares any more
  requestStart(viewer);
  answer(failure("stubborn"));
  EXPECT_TRUE(one.isFinished() && two.isFinished());
  EXPECT_TRUE(log.contains(
      "error [Capture] Capture shutdown failed: Unable to stop screen capture cleanly: stubborn"));
  EXPECT_FALSE(network->isListening());
  EXPECT_TRUE(viewer->cancelled);
  EXPECT_EQ(coordinator->metrics.get(), StreamMetrics());
  EXPECT_EQ(coordinator->lastError.get(), std::nullopt);
  EXPECT_EQ(screen->streamCount(), 1u);
  time->advance(10s);  // what connections had waited for
  EXPECT_EQ(time->pendingDelayedWork(), 0u);
}

TEST_F(CoordinatorStreamTest, TheViewersInputReachesTheSystemAndANewViewerStartsInTheMiddle) {
  const auto viewer = streamToViewer();
  EXPECT_THAT(input->posted, Contains("mouse 5 (500, 250) button 0"));
  input->posted.clear();
  send(viewer, R"({"type":"fullscreen"})");
  EXPECT_THAT(input->posted, ElementsAre("key 3 down", "key 3 up"));
  time->advance(1s);
  EXPECT_THAT(received(viewer), Not(Contains(HasSubstr("cursorState"))));  // it has not moved
}

TEST_F(CoordinatorStreamTest, NumbersComeFromCaptureServerAndViewer) {
  const auto viewer = streamToViewer();
  send(viewer, R"({"type":"telemetry","viewerFPS":29.5,"decodeMilliseconds":4,"videoBufferMilliseconds":0,)"
               R"("audioBufferMilliseconds":0,"audioDriftMilliseconds":0,"reconnects":2,)"
               R"("videoBufferRebuildTargetMilliseconds":5000})");
  for (int index = 0; index < 3; ++index) {
    time->advance(600ms);
    showFrame();
  }
  EXPECT_EQ(coordinator->metrics->viewerFPS, 29.5);
  EXPECT_EQ(coordinator->metrics->reconnects, 2);
  EXPECT_EQ(coordinator->metrics->viewerCount, 1);
  EXPECT_GT(coordinator->metrics->bytesSent, 0u);
  EXPECT_GT(coordinator->metrics->captureFPS, 1.0);
  EXPECT_THAT(received(viewer),
              Contains(HasSubstr(R"("captureMode":"physicalDisplay","captureTargetFPS":60)")));

  // Nothing that runs keeps the coordinator.
  const std::weak_ptr<StreamCoordinator> weak = coordinator;
  observation.reset();
  coordinator.reset();
  time->advance(1min);
  EXPECT_TRUE(weak.expired());
}

}  // namespace
}  // namespace kestrune
