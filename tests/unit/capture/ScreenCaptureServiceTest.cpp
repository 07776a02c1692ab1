#include <atomic>
#include <thread>

#include "ScreenCaptureFixture.h"
#include "runtime/ThreadQueue.h"
#include "support/ChildProcess.h"

namespace kestrune {
namespace {

TEST_F(ScreenCaptureServiceTest, StartsOneStreamAndTakesOverASourceThatIsChosenMeanwhile) {
  select(kMain);
  service->setVideoEncodingEnabled(true);  // without a stream it is only stored, and a start resets it
  capture->holdsStart = true;
  EXPECT_EQ(run(service->start({})), "waiting");
  const auto second = startTask(main, service->start({}));
  capture->latest()->sendVideo(frame());
  time->runReady();
  EXPECT_EQ(localizedDescription(second.failure()), "Streaming is already running.");
  EXPECT_TRUE(reports.empty());  // no rate is told over the time since the last stream, or since boot
  select(kSide);
  capture->latest()->holds = false;
  EXPECT_EQ(finish(), "ok");
  EXPECT_EQ(reports.back(), StreamMetrics{});
  EXPECT_EQ(capture->latest()->filter.includedDisplays.front().id, 7u);
  EXPECT_EQ(capture->latest()->filters.at(0).includedDisplays.front().id, 9u);
  EXPECT_EQ(take().back(), "target 9");
  EXPECT_EQ(run(service->start({})), "Streaming is already running.");
  send();
  EXPECT_EQ(compression->frameCount(), 0u);
}

TEST_F(ScreenCaptureServiceTest, AFailedStartKeepsTheSelectionAndNothingElse) {
  select(kMain);
  capture->outputRefusal = failure("no output");
  EXPECT_EQ(run(service->start({})), "Unable to start screen capture: no output");
  capture->outputRefusal = nullptr;
  capture->outcomes = {failure("no display")};
  EXPECT_EQ(run(service->start({})), "Unable to start screen capture: no display");
  // Ends before its start is through.
  capture->holdsStart = true;
  EXPECT_EQ(run(service->start({})), "waiting");
  capture->latest()->onStopped(failure("unplugged"));
  EXPECT_EQ(finish(), "Unable to start screen capture: unplugged");
  EXPECT_FALSE(service->isRunning() || capture->latest()->isAlive);
  EXPECT_TRUE(reports.empty());
  // A start whose completion is dropped leaves the way free.
  EXPECT_EQ(run(service->start({})), "waiting");
  capture->latest()->waiting.clear();
  capture->holdsStart = false;
  EXPECT_EQ(run(service->start({})), "ok");
}

TEST_F(ScreenCaptureServiceTest, CountsShowsAndEncodesFrames) {
  const auto stream = startOnMain(false);
  send();
  for (const auto& spoil : {+[](VideoSample& sample) { sample.isValid = false; },
                            +[](VideoSample& sample) { sample.isDataReady = false; },
                            +[](VideoSample& sample) { sample.image = nullptr; }}) {
    VideoSample sample = frame();
    spoil(sample);
    stream->sendVideo(sample);
  }
  time->runReady();
  EXPECT_EQ(service->metrics().capturedFrames, 1u);
  EXPECT_EQ(previewFrames, 1);
  EXPECT_EQ(compression->frameCount(), 0u);

  service->setVideoEncodingEnabled(true);
  EXPECT_EQ(stream->frameRequests, 1);  // a still screen does not keep the viewer waiting
  send(2);
  EXPECT_FALSE(lastWasForced());
  service->requestKeyframe();
  EXPECT_EQ(stream->frameRequests, 2);
  send();
  EXPECT_TRUE(lastWasForced());
  service->setVideoEncodingEnabled(true);  // once more: a keyframe once more
  send();
  EXPECT_TRUE(lastWasForced());
  service->setVideoEncodingEnabled(false);
  service->requestKeyframe();
  EXPECT_EQ(stream->frameRequests, 3);
  send();
  EXPECT_EQ(compression->frameCount(), 4u);
  EXPECT_TRUE(reports.empty());  // within the first second

  // Drops are told one by one: four frames arrive before the encoder's queue has a turn.
  service->setVideoEncodingEnabled(true);
  for (int i = 0; i < 4; ++i) stream->video(frame());
  time->runReady();
  ASSERT_EQ(reports.size(), 2u);
  EXPECT_EQ(reports[1].droppedFrames, 2u);
  EXPECT_EQ(reports[1].encoderPendingFrames, 2);
}

TEST_F(ScreenCaptureServiceTest, MediaDoesNotWaitForTheOwner) {
  const auto stream = startOnMain();
  send();
  converter->results = {480, -1, -1, 0, -1, 960};
  // The callback queue has no turn while these come.
  emit(true);
  emit(false);
  for (std::size_t i = converter->results.size(); i > 0; --i) stream->audio({});
  ASSERT_EQ(packets.size(), 2u);
  EXPECT_FALSE(packets[1].isKeyframe);
  EXPECT_EQ(service->metrics().encodedFrames, 2u);
  ASSERT_EQ(chunks.size(), 2u);
  EXPECT_EQ(chunks[1].frameCount, 960);
  EXPECT_EQ(take(), (Lines{"error bad sample", "error bad sample"}));  // one for each run of bad sound
}

TEST_F(ScreenCaptureServiceTest, RatesAreThoseOfTheRealTime) {
  startOnMain();
  send();
  for (int i = 0; i < 5; ++i) emit(false);
  time->advance(999ms);
  send();
  EXPECT_TRUE(reports.empty());
  time->advance(1001ms);
  EXPECT_TRUE(reports.empty());  // no timer: nothing arrived
  send();
  ASSERT_EQ(reports.size(), 1u);
  EXPECT_NEAR(reports[0].captureFPS, 3 / 2.0, 1e-9);
  EXPECT_NEAR(reports[0].encodeFPS, 5 / 2.0, 1e-9);
  EXPECT_NEAR(reports[0].bitRateMbps, 5 * 5 * 8 / 2.0 / 1e6, 1e-9);
}

TEST_F(ScreenCaptureServiceTest, VideoSettingsChangeUnderTheRunningStream) {
  const ScreenCaptureService::VideoSettings settings{StreamProfile::safe, StreamFrameRate::fps30,
                                                     StreamVideoCodec::hevc, StreamBitRate::high,
                                                     StreamVideoEncoderKind::software};
  int accepted = 0;
  EXPECT_EQ(run(service->updateVideoSettings(settings, [&] { ++accepted; })), "ok");
  EXPECT_EQ(accepted, 1);

  const auto stream = startOnMain();
  send();
  stream->holds = true;
  const auto accept = [&] {
    ++accepted;
    emit(true);              // the old encoder's last frame is not news any more
    stream->video(frame());  // and the new one is not there yet
  };
  EXPECT_EQ(run(service->updateVideoSettings(settings, accept)), "waiting");
  send();  // the old encoder goes on meanwhile
  emit(false);
  EXPECT_EQ(std::pair(accepted, packets.size()), std::pair(1, std::size_t{1}));
  EXPECT_EQ(finish(), "ok");
  EXPECT_EQ(std::pair(accepted, packets.size()), std::pair(2, std::size_t{1}));
  EXPECT_EQ(std::pair(compression->sessions.size(), compression->frameCount()),
            std::pair(std::size_t{1}, std::size_t{2}));
  EXPECT_EQ(stream->configurations.back().width, 960);
  EXPECT_EQ(stream->calls, (Lines{"start", "configuration"}));
  EXPECT_EQ(converter->clears, 1);
  EXPECT_EQ(stream->frameRequests, 2);
  send();
  EXPECT_EQ(compression->sessions[0]->invalidateCalls, 1);
  EXPECT_EQ(compression->sessions[1]->codec, VideoCodecType::hvc1);
  EXPECT_TRUE(lastWasForced());

  EXPECT_EQ(run(service->updateVideoSettings({}, accept)), "waiting");
  EXPECT_EQ(finish(failure("refused")), "Unable to change video quality: refused");
  EXPECT_EQ(accepted, 2);
  send();
  EXPECT_EQ(compression->sessions[1]->frames.size(), 2u);

  // What happens meanwhile is kept.
  EXPECT_EQ(run(service->updateVideoSettings({})), "waiting");
  service->setVideoEncodingEnabled(false);
  EXPECT_EQ(finish(), "ok");
  service->setVideoEncodingEnabled(true);
  send();
  EXPECT_EQ(compression->sessions.size(), 3u);
  EXPECT_EQ(run(service->updateVideoSettings({})), "waiting");
  stream->onStopped(failure("gone"));
  EXPECT_EQ(finish(), "ok");
  EXPECT_FALSE(service->isRunning() || stream->isAlive);
}

TEST_F(ScreenCaptureServiceTest, AStreamIsLetGoWhateverTheSystemSaysAndItsEndIsToldOnce) {
  EXPECT_EQ(run(service->stop()), "ok");
  const auto stream = startOnMain();
  send();
  stream->outcomes = {failure("busy")};
  EXPECT_EQ(run(service->stop()), "Unable to stop screen capture cleanly: busy");
  EXPECT_FALSE(service->isRunning() || stream->isAlive);
  EXPECT_EQ(previewClears, 2);
  EXPECT_EQ(compression->sessions[0]->invalidateCalls, 1);
  // A frame that was on its way counts for nothing and is not shown; nor is a late end told.
  stream->video(frame());
  EXPECT_EQ(previewFrames, 1);
  EXPECT_EQ(service->metrics().capturedFrames, 1u);
  const auto next = startOnMain();
  stream->onStopped(failure("late"));
  EXPECT_EQ(take(), Lines{});
  EXPECT_TRUE(service->isRunning());

  next->onStopped(failure("unplugged"));
  EXPECT_TRUE(next->isAlive);  // it may be the stream's own thread that tells: it is ended elsewhere
  EXPECT_EQ(take(), Lines{"stopped Screen capture stopped unexpectedly: unplugged"});
  EXPECT_FALSE(service->isRunning() || next->isAlive);
}

/// Ends with a stream that encodes, whatever ended under the operations before.
Task<void> driveStreams(std::shared_ptr<ScreenCaptureService> service, std::shared_ptr<SerialQueue> main,
                        std::atomic<bool>& endsStreams) {
  for (int round = 0; round < 120; ++round) {
    if (round == 100) endsStreams = false;
    const auto selecting = startTask(main, service->selectDisplay(7, std::nullopt, false, false));
    co_await selecting.finished();
    const auto starting = startTask(main, service->start({}));
    co_await starting.finished();
    service->setVideoEncodingEnabled(true);
    service->selectFilter(displayFilter(kSide), std::nullopt, std::nullopt, false);
    const auto updating = startTask(main, service->updateVideoSettings({}));
    co_await updating.finished();
    service->requestKeyframe();
    if (round % 2 == 1) continue;
    const auto stopping = startTask(main, service->stop());
    co_await stopping.finished();
  }
}

TEST(ScreenCaptureServiceThreads, OperationsAndFramesMeetFromDifferentThreads) {
  const CapturedLog log;
  const auto main = std::make_shared<ThreadQueue>("main");
  const auto capture = std::make_shared<FakeScreenCapture>();
  capture->displays = {kMain, kSide};
  const auto compression = std::make_shared<FakeCompressionSessionFactory>();
  compression->answersAtOnce = true;
  // One queue for all encoders: the fakes have no lock.
  const auto encoding = std::make_shared<ThreadQueue>("encoder");
  const auto makeQueue = [encoding](const std::string& label) {
    return label == StreamVideoEncoder::kQueueLabel ? encoding : std::make_shared<ThreadQueue>(label);
  };
  auto service = std::make_shared<ScreenCaptureService>(
      ScreenCaptureService::Dependencies{capture, std::make_shared<FakeDisplays>(), systemClock(),
                                         compression, std::make_shared<FakePixelTransferFactory>(), main,
                                         makeQueue, nullptr, nullptr, nullptr, std::nullopt});
  std::atomic<int> packets{0};
  ScreenCaptureCallbacks callbacks;
  callbacks.onVideoPacket = [&](const EncodedVideoPacket&) { ++packets; };
  service->setCallbacks(callbacks);

  std::atomic<bool> endsStreams{true};
  std::atomic<bool> isDone{false};
  std::thread frames([&] {
    for (int count = 1; !isDone; ++count) {
      const auto stream = capture->latest();
      if (!stream || !stream->hasOutputs) continue;
      stream->video(frame());
      if (count % 50 == 0 && endsStreams) stream->onStopped(failure("gone"));
    }
  });
  const auto driving = startTask(main, driveStreams(service, main, endsStreams));
  EXPECT_TRUE(testing::eventually([&] { return driving.isFinished(); }));
  packets = 0;
  EXPECT_TRUE(testing::eventually([&] { return packets >= 10; }));
  isDone = true;
  frames.join();
  EXPECT_TRUE(service->isRunning());
  service = nullptr;
}

}  // namespace
}  // namespace kestrune
