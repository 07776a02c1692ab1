#pragma once

#include <gtest/gtest.h>

#include <deque>
#include <stdexcept>

#include "capture/ScreenCaptureService.h"
#include "support/CapturedLog.h"
#include "support/FakeCompression.h"
#include "support/FakePixelTransfer.h"
#include "support/FakeScreenCapture.h"
#include "support/ManualTime.h"

namespace kestrune {

using namespace std::chrono_literals;
using Lines = std::vector<std::string>;

inline constexpr ShareableDisplay kMain{7, {0, 0, 1920, 1080}};
inline constexpr ShareableDisplay kSide{9, {1920, 0, 1280, 1024}};

inline ContentFilter displayFilter(const ShareableDisplay& display) {
  return FakeScreenCapture().filterForDisplay(display);
}

inline VideoSample frame() {
  static const VideoSample sample = makeVideoSample();
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

/// The capture service on a fake stream, with time and every queue under the test's hand.
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
    const auto note = [this](const char* what) {
      return [this, what](const std::exception_ptr& error) {
        events.push_back(what + localizedDescription(error));
        EXPECT_EQ(reports.back().lastError, localizedDescription(error));
      };
    };
    callbacks.onError = note("error ");
    callbacks.onCaptureStopped = note("stopped ");
    service->setCallbacks(std::move(callbacks));
  }

  /// Work that waits holds encoders, which hold the clock that holds the work.
  ~ScreenCaptureServiceTest() override {
    service.reset();
    time->discardAll();
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

}  // namespace kestrune
