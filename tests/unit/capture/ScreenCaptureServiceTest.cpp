#include <gtest/gtest.h>

#include <atomic>
#include <deque>
#include <future>
#include <stdexcept>
#include <thread>

#include "capture/CaptureContent.h"
#include "capture/ScreenCaptureService.h"
#include "model/KestruneError.h"
#include "runtime/ThreadQueue.h"
#include "support/CapturedLog.h"
#include "support/FakeCompression.h"
#include "support/FakePixelTransfer.h"
#include "support/FakeScreenCapture.h"
#include "support/ManualTime.h"

namespace kestrune {
namespace {

using namespace std::chrono_literals;
using Lines = std::vector<std::string>;

constexpr ShareableDisplay kMain{7, {0, 0, 1920, 1080}};
constexpr ShareableDisplay kSide{9, {1920, 0, 1280, 1024}};

std::exception_ptr failure(const std::string& text) {
  return std::make_exception_ptr(std::runtime_error(text));
}

ContentFilter displayFilter(const ShareableDisplay& display) {
  return FakeScreenCapture().filterForDisplay(display);
}

VideoSample frame() {
  static const SharedPixelBuffer image = makePixelBuffer(1280, 720);
  VideoSample sample;
  sample.image = image;
  sample.presentationMicroseconds = 1;
  return sample;
}

/// Fails, or gives as many frames as it was told to, for one sample each.
struct FakeConverter final : AudioSampleConverter {
  AudioPCMChunk convert(const AudioSample&, AudioChannelMode) override {
    const int frames = results.front();
    results.pop_front();
    if (frames < 0) throw std::runtime_error("bad sample");
    AudioPCMChunk chunk;
    chunk.frameCount = frames;
    return chunk;
  }
  void clearCaches() override { ++clears; }
  std::deque<int> results;
  int clears = 0;
};

class ScreenCaptureServiceTest : public ::testing::Test {
 protected:
  ScreenCaptureServiceTest() {
    capture->displays = displays->displays = {kMain, kSide};
    const auto makeQueue = [this](const std::string& label) { return time->makeQueue(label); };
    service = std::make_shared<ScreenCaptureService>(ScreenCaptureService::Dependencies{
        capture, displays, time, compression, std::make_shared<FakePixelTransferFactory>(), main, makeQueue,
        nullptr, previewHub, converter, std::nullopt});
    previewHub->addObserver({}, [this](const auto& shown) { ++(shown ? previewFrames : previewClears); });
    ScreenCaptureCallbacks callbacks;
    callbacks.onSourceChanged = [this](const std::optional<CaptureSourceDescriptor>& source) {
      events.push_back("source " + (source ? source->title : "none"));
    };
    callbacks.onControlTargetChanged = [this](const std::optional<RemoteControlTarget>& target) {
      events.push_back("target " +
                       (target ? std::to_string(target->displayID.value_or(0)) : std::string("none")));
    };
    callbacks.onVideoPacket = [this](const EncodedVideoPacket& packet) { packets.push_back(packet); };
    callbacks.onAudioChunk = [this](const AudioPCMChunk& chunk) { chunks.push_back(chunk); };
    callbacks.onMetricsChanged = [this](const StreamMetrics& metrics) { reports.push_back(metrics); };
    callbacks.onEncodingResumed = [this] { events.emplace_back("encoding resumed"); };
    callbacks.onError = [this](const std::exception_ptr& error) {
      events.push_back("error " + localizedDescription(error));
      EXPECT_EQ(reports.back().lastError, localizedDescription(error));
    };
    callbacks.onCaptureStopped = [this](const std::exception_ptr& error) {
      events.push_back("stopped " + localizedDescription(error));
      EXPECT_EQ(reports.back().lastError, localizedDescription(error));
    };
    service->setCallbacks(std::move(callbacks));
  }

  /// Runs the task as far as it comes; see outcome().
  std::string run(Task<void> task) {
    running = startTask(main, std::move(task));
    time->runReady();
    return outcome();
  }
  /// Ends the stream's oldest call that waits; what has become of the task by then.
  std::string finish(const std::exception_ptr& error = nullptr) {
    capture->latest()->complete(error);
    time->runReady();
    return outcome();
  }
  /// "ok", the message of the failure, or "waiting".
  std::string outcome() const {
    if (!running.isFinished()) return "waiting";
    return running.failure() ? localizedDescription(running.failure()) : "ok";
  }
  void select(const ShareableDisplay& display, const std::string& title = "Main Display") {
    service->selectFilter(displayFilter(display), title, std::nullopt, false);
  }
  Lines take() {
    time->runReady();
    return std::exchange(events, {});
  }
  std::shared_ptr<FakeStreamRecord> startOnMain(bool encoding = true) {
    select(kMain);
    EXPECT_EQ(run(service->start({})), "ok");
    if (encoding) service->setVideoEncodingEnabled(true);
    time->runReady();
    events.clear();
    reports.clear();
    return capture->latest();
  }
  void send(int frames = 1) {
    for (int i = 0; i < frames; ++i) {
      capture->latest()->sendVideo(frame());
      time->runReady();
    }
  }
  /// The output of the newest session for its last frame: a packet of 5 bytes.
  void emit(bool isKeyframe) {
    compression->sessions.back()->frames.back().handler(0, makeFakeSample({0, 0, 0, 1, 9}, isKeyframe));
  }
  std::size_t encodedFrames() const {
    std::size_t count = 0;
    for (const auto& session : compression->sessions) count += session->frames.size();
    return count;
  }
  bool lastWasForced() const { return compression->sessions.back()->frames.back().forceKeyframe; }

  CapturedLog log;
  std::shared_ptr<ManualTime> time = ManualTime::make();
  std::shared_ptr<SerialQueue> main = time->makeQueue("main");
  std::shared_ptr<FakeScreenCapture> capture = std::make_shared<FakeScreenCapture>();
  std::shared_ptr<FakeDisplays> displays = std::make_shared<FakeDisplays>();
  std::shared_ptr<FakeCompressionSessionFactory> compression =
      std::make_shared<FakeCompressionSessionFactory>();
  std::shared_ptr<CapturePreviewHub> previewHub = std::make_shared<CapturePreviewHub>(main);
  int previewFrames = 0;
  int previewClears = 0;
  std::shared_ptr<FakeConverter> converter = std::make_shared<FakeConverter>();
  std::shared_ptr<ScreenCaptureService> service;
  TaskHandle running;
  Lines events;
  std::vector<StreamMetrics> reports;
  std::vector<EncodedVideoPacket> packets;
  std::vector<AudioPCMChunk> chunks;
};

TEST(CaptureContent, ADisplayThatIsNotNamedIsTheOneThatOverlapsMost) {
  FakeDisplays displays;
  displays.displays = {kMain, kSide};
  ContentFilter filter = displayFilter(kMain);
  filter.includedDisplays.clear();
  for (const auto& [rect, expected] : {std::pair<Rect, std::optional<DisplayID>>{{1800, 0, 400, 100}, 9},
                                       {{0, -100, 50, 100}, std::nullopt}}) {  // touches, does not overlap
    filter.contentRect = rect;
    EXPECT_EQ(controlTargetOfContent(filter, displays), (RemoteControlTarget{rect, expected}));
  }
  filter.style = ContentFilter::Style::window;
  EXPECT_FALSE(controlTargetOfContent(filter, displays));
}

TEST(CaptureContent, TheStreamIsAskedForTheEncodersSize) {
  ContentFilter filter = displayFilter({1, {0, 0, 1440.4, 900}});
  filter.pointPixelScale = 2;
  ScreenStreamConfiguration expected;
  expected.width = 1600;
  expected.height = 1000;  // of 2881 by 1800 pixels
  expected.minimumFrameIntervalFPS = 24;
  expected.showsCursor = false;
  expected.channelCount = 1;
  expected.excludesCurrentProcessAudio = false;
  expected.streamName = "Kestrune";
  EXPECT_EQ(streamConfiguration(filter, StreamProfile::high, StreamFrameRate::fps24, AudioChannelMode::mono,
                                false, true),
            expected);
}

TEST_F(ScreenCaptureServiceTest, SelectsDisplaysByIdentifier) {
  const auto selectDisplay = [this](DisplayID display, bool managed) {
    return run(service->selectDisplay(display, std::nullopt, managed, managed));
  };
  EXPECT_EQ(selectDisplay(7, false), "ok");
  EXPECT_EQ(take(), (Lines{"source Display 7", "target 7"}));
  EXPECT_EQ(selectDisplay(8, false), "The selected display is not available to ScreenCaptureKit yet.");
  capture->contentFailure = failure("no access");
  EXPECT_EQ(selectDisplay(9, false), "Unable to find the selected display: no access");
  EXPECT_EQ(take(), Lines{});
  EXPECT_EQ(service->selectedDisplayID(), 7u);
  EXPECT_FALSE(service->clearManagedSelection(7));

  capture->contentFailure = nullptr;
  EXPECT_EQ(selectDisplay(9, true), "ok");
  EXPECT_FALSE(service->selectedDisplayID());
  EXPECT_EQ(run(service->start({})), "ok");
  EXPECT_FALSE(capture->latest()->configuration.excludesCurrentProcessAudio);
  EXPECT_FALSE(service->clearManagedSelection(9));
  EXPECT_EQ(run(service->stop()), "ok");
  EXPECT_TRUE(service->clearManagedSelection(9));
  EXPECT_EQ(run(service->start({})), "Choose a screen, window, or app first.");
}

TEST_F(ScreenCaptureServiceTest, StartsOneStream) {
  select(kMain);
  service->setVideoEncodingEnabled(true);  // without a stream it is only stored, and a start resets it
  capture->holdsStart = true;
  EXPECT_EQ(run(service->start({})), "waiting");
  const auto second = startTask(main, service->start({}));
  capture->latest()->sendVideo(frame());
  time->runReady();
  EXPECT_EQ(localizedDescription(second.failure()), "Streaming is already running.");
  EXPECT_TRUE(reports.empty());  // no rate is told over the time since the last stream, or since boot
  EXPECT_EQ(finish(), "ok");
  EXPECT_EQ(reports.back(), StreamMetrics{});
  EXPECT_EQ(run(service->start({})), "Streaming is already running.");
  send();
  EXPECT_EQ(encodedFrames(), 0u);
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

TEST_F(ScreenCaptureServiceTest, ASourceChosenDuringTheStartIsTakenOver) {
  select(kMain);
  capture->holdsStart = true;
  EXPECT_EQ(run(service->start({})), "waiting");
  select(kSide);
  capture->latest()->holds = false;
  EXPECT_EQ(finish(), "ok");
  EXPECT_EQ(capture->latest()->filter.includedDisplays.front().id, 7u);
  EXPECT_EQ(capture->latest()->filters.at(0).includedDisplays.front().id, 9u);
  EXPECT_EQ(take().back(), "target 9");
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
  EXPECT_EQ(encodedFrames(), 0u);

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
  EXPECT_EQ(encodedFrames(), 4u);
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
  time->advance(4s);
  emit(false);  // packets tick as well
  time->runReady();
  EXPECT_NEAR(reports.back().encodeFPS, 0.25, 1e-9);
  EXPECT_EQ(run(service->stop()), "ok");
  EXPECT_EQ(service->metrics().capturedFrames, 3u);
  EXPECT_EQ(run(service->start({})), "ok");
  EXPECT_EQ(service->metrics(), StreamMetrics{});
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
  EXPECT_EQ(std::pair(compression->sessions.size(), encodedFrames()),
            std::pair(std::size_t{1}, std::size_t{2}));
  EXPECT_EQ(stream->configurations.back().width, 960);
  EXPECT_EQ(stream->calls, (Lines{"start", "configuration"}));
  EXPECT_EQ(converter->clears, 1);
  EXPECT_EQ(stream->frameRequests, 2);
  EXPECT_TRUE(log.mentions("to H.265 (Experimental), 540p, 6 Mbps at 30 fps using CPU — Apple software"));
  send();
  EXPECT_EQ(compression->sessions[0]->invalidateCalls, 1);
  EXPECT_EQ(compression->sessions[1]->codec, VideoCodecType::hvc1);
  EXPECT_TRUE(lastWasForced());

  EXPECT_EQ(run(service->updateVideoSettings({}, accept)), "waiting");
  EXPECT_EQ(finish(failure("refused")), "Unable to change video quality: refused");
  EXPECT_EQ(accepted, 2);
  send();
  EXPECT_EQ(compression->sessions[1]->frames.size(), 2u);
}

TEST_F(ScreenCaptureServiceTest, WhatHappensDuringAChangeOfSettingsIsKept) {
  const auto stream = startOnMain();
  stream->holds = true;
  EXPECT_EQ(run(service->updateVideoSettings({})), "waiting");
  service->setVideoEncodingEnabled(false);
  EXPECT_EQ(finish(), "ok");
  service->setVideoEncodingEnabled(true);
  send();
  EXPECT_EQ(encodedFrames(), 1u);

  EXPECT_EQ(run(service->updateVideoSettings({})), "waiting");
  stream->onStopped(failure("gone"));
  EXPECT_EQ(finish(), "ok");
  EXPECT_FALSE(service->isRunning() || stream->isAlive);
}

TEST_F(ScreenCaptureServiceTest, SelectionsOnARunningStreamHappenOneAfterTheOther) {
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

TEST_F(ScreenCaptureServiceTest, FollowsTheModeOfItsDisplay) {
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

TEST_F(ScreenCaptureServiceTest, ASelectionThatAStopOvertookHasNoSayAfterIt) {
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

TEST_F(ScreenCaptureServiceTest, RefusedSelectionsAnnounceTheOldOneUnlessOvertaken) {
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

TEST_F(ScreenCaptureServiceTest, EncoderFailuresAreReportedAndSurvived) {
  startOnMain();
  compression->createStatuses = {-1, -2};
  send();
  EXPECT_TRUE(service->isEncodingFailing());
  send();
  emit(true);
  EXPECT_FALSE(service->isEncodingFailing());
  send();
  emit(false);
  EXPECT_EQ(take(), (Lines{"error Unable to create the H.264 encoder (OSStatus -2).", "encoding resumed"}));
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
  ScreenCaptureService::Dependencies dependencies;
  dependencies.capture = capture;
  dependencies.displays = std::make_shared<FakeDisplays>();
  dependencies.clock = systemClock();
  dependencies.compression = compression;
  dependencies.pixelTransfer = std::make_shared<FakePixelTransferFactory>();
  dependencies.callbackQueue = main;
  dependencies.makeQueue = makeQueue;
  auto service = std::make_shared<ScreenCaptureService>(dependencies);
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
  std::promise<void> driven;
  auto driving = startTask(main, driveStreams(service, main, endsStreams));
  driving.whenFinished([&] { driven.set_value(); });
  driven.get_future().wait();
  packets = 0;
  while (packets < 10) std::this_thread::yield();
  isDone = true;
  frames.join();
  EXPECT_TRUE(service->isRunning());
  service = nullptr;
}

}  // namespace
}  // namespace kestrune
