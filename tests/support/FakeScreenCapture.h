#pragma once

#include <atomic>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "platform/Displays.h"
#include "platform/ScreenStream.h"
#include "support/FakePixelTransfer.h"

namespace kestrune {

inline std::exception_ptr failure(const std::string& text) {
  return std::make_exception_ptr(std::runtime_error(text));
}

/// A picture as capture gives it.
inline VideoSample makeVideoSample(int width = 1280, int height = 720,
                                   PixelFormat format = PixelFormat::biPlanar420VideoRange) {
  VideoSample sample;
  sample.image = makePixelBuffer(width, height, format);
  sample.presentationMicroseconds = 5'000'000;
  return sample;
}

/// What happened to one fake stream, and the hand that moves it. It outlives the stream.
class FakeStreamRecord {
 public:
  ContentFilter filter;                     // at its making
  ScreenStreamConfiguration configuration;  // at its making
  std::vector<ContentFilter> filters;       // of the updates
  std::vector<ScreenStreamConfiguration> configurations;
  /// "start", "stop", "configuration" or "filter", in the order of the calls.
  std::vector<std::string> calls;
  /// Completions that wait, the oldest first, while `holds` is set.
  std::deque<StreamCompletion> waiting;
  bool holds = false;
  std::deque<std::exception_ptr> outcomes;  // of the next calls, used up from the front, then success
  std::atomic<int> frameRequests{0};
  std::atomic<bool> isAlive{true};
  std::atomic<bool> hasOutputs{false};

  ScreenStream::StopHandler onStopped;
  ScreenStream::ContentChangeHandler onContentChanged;
  std::shared_ptr<SerialQueue> videoQueue;
  ScreenStream::VideoOutput video;
  ScreenStream::AudioOutput audio;

  void sendVideo(VideoSample sample) {
    videoQueue->post([output = video, sample = std::move(sample)] { output(sample); });
  }
  /// Ends the oldest call that waits.
  void complete(const std::exception_ptr& failure = nullptr) {
    const auto completion = std::move(waiting.front());
    waiting.pop_front();
    completion(failure);
  }
  void handle(std::string call, StreamCompletion completion) {
    calls.push_back(std::move(call));
    if (holds) {
      waiting.push_back(std::move(completion));
      return;
    }
    std::exception_ptr outcome;
    if (!outcomes.empty()) {
      outcome = outcomes.front();
      outcomes.pop_front();
    }
    completion(outcome);
  }
};

class FakeScreenStream final : public ScreenStream {
 public:
  FakeScreenStream(std::shared_ptr<FakeStreamRecord> record, std::exception_ptr outputRefusal)
      : record_(std::move(record)), outputRefusal_(std::move(outputRefusal)) {}
  ~FakeScreenStream() override { record_->isAlive = false; }

  void addVideoOutput(std::shared_ptr<SerialQueue> queue, VideoOutput output) override {
    if (outputRefusal_) std::rethrow_exception(outputRefusal_);
    record_->videoQueue = std::move(queue);
    record_->video = std::move(output);
  }
  void addAudioOutput(std::shared_ptr<SerialQueue>, AudioOutput output) override {
    record_->audio = std::move(output);
    record_->hasOutputs = true;
  }
  void setContentChangeHandler(ContentChangeHandler handler) override {
    record_->onContentChanged = std::move(handler);
  }
  void startCapture(StreamCompletion completion) override { record_->handle("start", std::move(completion)); }
  void stopCapture(StreamCompletion completion) override { record_->handle("stop", std::move(completion)); }
  void updateConfiguration(const ScreenStreamConfiguration& configuration,
                           StreamCompletion completion) override {
    record_->configurations.push_back(configuration);
    record_->handle("configuration", std::move(completion));
  }
  void updateContentFilter(const ContentFilter& filter, StreamCompletion completion) override {
    record_->filters.push_back(filter);
    record_->handle("filter", std::move(completion));
  }
  void requestFrame() override { ++record_->frameRequests; }

 private:
  const std::shared_ptr<FakeStreamRecord> record_;
  const std::exception_ptr outputRefusal_;
};

/// Displays and streams under a test's hand.
class FakeScreenCapture final : public ScreenCapture {
 public:
  std::vector<ShareableDisplay> displays;
  std::exception_ptr contentFailure;
  std::exception_ptr outputRefusal;         // of streams made from now on
  bool holdsStart = false;                  // likewise
  std::deque<std::exception_ptr> outcomes;  // for the calls of the next stream

  void shareableContent(bool, bool, ContentCompletion completion) override {
    if (contentFailure) return completion(std::nullopt, contentFailure);
    completion(ShareableContent{displays}, nullptr);
  }
  ContentFilter filterForDisplay(const ShareableDisplay& display) const override {
    ContentFilter filter;
    filter.style = ContentFilter::Style::display;
    filter.contentRect = display.frame;
    filter.includedDisplays = {display};
    return filter;
  }
  std::unique_ptr<ScreenStream> createStream(const ContentFilter& filter,
                                             const ScreenStreamConfiguration& configuration,
                                             ScreenStream::StopHandler onStopped) override {
    auto record = std::make_shared<FakeStreamRecord>();
    record->filter = filter;
    record->configuration = configuration;
    record->onStopped = std::move(onStopped);
    record->holds = holdsStart;
    record->outcomes = std::exchange(outcomes, {});
    {
      const std::lock_guard guard(lock_);
      streams_.push_back(record);
    }
    return std::make_unique<FakeScreenStream>(std::move(record), outputRefusal);
  }

  /// The stream made last; null before the first. Any thread.
  std::shared_ptr<FakeStreamRecord> latest() const {
    const std::lock_guard guard(lock_);
    return streams_.empty() ? nullptr : streams_.back();
  }
  std::size_t streamCount() const {
    const std::lock_guard guard(lock_);
    return streams_.size();
  }

 private:
  mutable std::mutex lock_;  // guards streams_
  std::vector<std::shared_ptr<FakeStreamRecord>> streams_;
};

class FakeDisplays final : public Displays {
 public:
  std::vector<ShareableDisplay> displays;  // the main one first
  std::function<void()> onBounds;          // before bounds() looks

  std::optional<DisplayID> mainDisplay() const override {
    return displays.empty() ? std::nullopt : std::optional(displays.front().id);
  }
  std::vector<DisplayID> activeDisplays() const override {
    std::vector<DisplayID> all;
    for (const auto& display : displays) all.push_back(display.id);
    return all;
  }
  Rect bounds(DisplayID id) const override {
    if (const auto interfere = onBounds) interfere();
    for (const auto& display : displays) {
      if (display.id == id) return display.frame;
    }
    return {};
  }
  Rect visibleBounds(DisplayID id) const override { return bounds(id); }
};

}  // namespace kestrune
