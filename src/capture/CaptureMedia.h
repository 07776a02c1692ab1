#pragma once

#include <atomic>
#include <cstdint>
#include <exception>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <utility>

#include "capture/AudioSampleConverter.h"
#include "capture/CaptureMetrics.h"
#include "capture/CapturePreviewHub.h"
#include "capture/ScreenCaptureCallbacks.h"
#include "capture/StreamVideoEncoder.h"
#include "platform/ScreenStream.h"
#include "runtime/FailureLog.h"
#include "runtime/SerialQueue.h"

namespace kestrune {

/// What the outputs of one stream share with the service. It outlives the stream, so that a late call of the
/// stream's thread never holds the last reference to the stream itself.
struct StreamLink {
  explicit StreamLink(AudioChannelMode mode) : audioMode(mode) {}

  const AudioChannelMode audioMode;
  /// Any thread. False: samples of this stream are stale and ignored.
  std::atomic<bool> isOpen{true};
  bool audioErrorReported = false;  // the audio queue
  // The owner's queue, for a stream whose start is not through:
  bool hasEnded = false;
  std::exception_ptr failure;
  bool hasContentChanged = false;
};

/// A running stream as all threads see it. The owner publishes a new record for each change.
struct LiveStream {
  std::weak_ptr<ScreenStream> stream;           // weak: the queue of its frames must not be what ends it
  std::shared_ptr<StreamVideoEncoder> encoder;  // never null
  bool videoEncodingEnabled = false;
};

/// The part of the capture service that runs on the media threads: counts and shows the frames and hands them
/// to the encoder, converts the sound, and passes packets, chunks and reports on. Of the service's state it
/// sees the live stream alone. Must be owned by a shared_ptr; outputs and encoders hold it weakly.
class CaptureMedia final : public std::enable_shared_from_this<CaptureMedia> {
 public:
  /// `previewHub` and `converter` may be absent.
  CaptureMedia(std::shared_ptr<SerialQueue> callbackQueue, const std::shared_ptr<const Clock>& clock,
               std::shared_ptr<SerialQueue> videoQueue, std::shared_ptr<SerialQueue> audioQueue,
               std::shared_ptr<CapturePreviewHub> previewHub,
               std::shared_ptr<AudioSampleConverter> converter);

  // The owner's queue:

  /// Once, before the first stream.
  void setCallbacks(ScreenCaptureCallbacks callbacks);
  /// Null: no stream.
  void publish(std::shared_ptr<const LiveStream> live);
  /// Before the stream starts; throws what the stream refuses with.
  void addOutputs(ScreenStream& stream, const std::shared_ptr<StreamLink>& link);
  StreamVideoEncoder::Callbacks encoderCallbacks();
  /// A stream is being started, and has been: see CaptureMetrics.
  void prepareStart() { metrics_.restartWindow(); }
  void begin();
  /// The sound's format may change with the next sample.
  void clearAudioCaches();

  // Any thread:

  /// See ScreenCaptureService.
  void requestKeyframe();
  void clearPreview();
  StreamMetrics metrics() const { return metrics_.current(); }
  bool isEncodingFailing() const { return isEncodingFailing_; }
  /// Counts, logs and delivers a failure that the stream survives.
  void reportError(const std::exception_ptr& failure);
  /// The stream has ended by itself.
  void reportEnd(const std::exception_ptr& failure);
  template <class... Values>
  void deliver(std::function<void(Values...)> ScreenCaptureCallbacks::*callback, Values... values);

 private:
  std::shared_ptr<const LiveStream> live() const;
  void handleVideo(VideoSample sample);                           // on videoQueue_
  void handleAudio(const AudioSample& sample, StreamLink& link);  // on audioQueue_
  void handlePacket(EncodedVideoPacket packet);                   // on the encoder's output thread
  void reportMetrics(std::optional<StreamMetrics> snapshot);

  const std::shared_ptr<SerialQueue> callbackQueue_;
  const std::shared_ptr<SerialQueue> videoQueue_;
  const std::shared_ptr<SerialQueue> audioQueue_;
  const std::shared_ptr<CapturePreviewHub> previewHub_;
  const std::shared_ptr<AudioSampleConverter> converter_;
  std::shared_ptr<const ScreenCaptureCallbacks> callbacks_ = std::make_shared<const ScreenCaptureCallbacks>();

  mutable std::mutex stateLock_;  // guards live_
  std::shared_ptr<const LiveStream> live_;

  std::atomic<bool> isEncodingFailing_{false};
  // Each has a lock of its own:
  CaptureMetrics metrics_;
  FailureLog failureLog_;
};

template <class... Values>
void CaptureMedia::deliver(std::function<void(Values...)> ScreenCaptureCallbacks::*callback,
                           Values... values) {
  if (!((*callbacks_).*callback)) return;
  callbackQueue_->post([callbacks = callbacks_, callback, ... held = std::move(values)]() mutable {
    ((*callbacks).*callback)(std::move(held)...);
  });
}

}  // namespace kestrune
