#include "capture/CaptureMedia.h"

#include "runtime/Error.h"
#include "runtime/Log.h"

namespace kestrune {
namespace {

constexpr Logger kCaptureLog("Capture");
constexpr Logger kAudioLog("Audio");

}  // namespace

CaptureMedia::CaptureMedia(std::shared_ptr<SerialQueue> callbackQueue,
                           const std::shared_ptr<const Clock>& clock, std::shared_ptr<SerialQueue> videoQueue,
                           std::shared_ptr<SerialQueue> audioQueue,
                           std::shared_ptr<CapturePreviewHub> previewHub,
                           std::shared_ptr<AudioSampleConverter> converter)
    : callbackQueue_(std::move(callbackQueue)),
      videoQueue_(std::move(videoQueue)),
      audioQueue_(std::move(audioQueue)),
      previewHub_(std::move(previewHub)),
      converter_(std::move(converter)),
      metrics_(clock),
      failureLog_(kCaptureLog, clock) {}

void CaptureMedia::setCallbacks(ScreenCaptureCallbacks callbacks) {
  callbacks_ = std::make_shared<const ScreenCaptureCallbacks>(std::move(callbacks));
}

// The live stream

void CaptureMedia::publish(std::shared_ptr<const LiveStream> live) {
  const std::lock_guard guard(stateLock_);
  live_.swap(live);
}

std::shared_ptr<const LiveStream> CaptureMedia::live() const {
  const std::lock_guard guard(stateLock_);
  return live_;
}

void CaptureMedia::requestKeyframe() {
  const auto present = live();
  if (!present) return;
  present->encoder->requestKeyframe();
  if (!present->videoEncodingEnabled) return;
  if (const auto stream = present->stream.lock()) stream->requestFrame();
}

void CaptureMedia::addOutputs(ScreenStream& stream, const std::shared_ptr<StreamLink>& link) {
  const auto weak = weak_from_this();
  stream.addVideoOutput(videoQueue_, [weak, link](VideoSample sample) {
    const auto self = weak.lock();
    if (!self || !link->isOpen) return;
    self->handleVideo(std::move(sample));
    if (!link->isOpen) self->clearPreview();  // it ended meanwhile, and this frame came after the clearing
  });
  stream.addAudioOutput(audioQueue_, [weak, link](const AudioSample& sample) {
    const auto self = weak.lock();
    if (self && link->isOpen) self->handleAudio(sample, *link);
  });
}

StreamVideoEncoder::Callbacks CaptureMedia::encoderCallbacks() {
  const auto weak = weak_from_this();
  StreamVideoEncoder::Callbacks callbacks;
  callbacks.onPacket = [weak](EncodedVideoPacket packet) {
    if (const auto self = weak.lock()) self->handlePacket(std::move(packet));
  };
  callbacks.onDroppedFrame = [weak] {
    if (const auto self = weak.lock()) self->reportMetrics(self->metrics_.countDropped());
  };
  callbacks.onError = [weak](const std::exception_ptr& failure) {
    const auto self = weak.lock();
    if (!self) return;
    self->isEncodingFailing_ = true;
    self->reportError(failure);
  };
  callbacks.onPendingDepthChanged = [weak](std::int64_t frames) {
    if (const auto self = weak.lock()) self->metrics_.setPendingFrames(frames);
  };
  return callbacks;
}

void CaptureMedia::begin() {
  isEncodingFailing_ = false;
  reportMetrics(metrics_.restart());
}

void CaptureMedia::clearAudioCaches() {
  if (converter_) converter_->clearCaches();
}

void CaptureMedia::clearPreview() {
  if (previewHub_) previewHub_->clear();
}

// Media

void CaptureMedia::handleVideo(VideoSample sample) {
  if (!sample.isValid || !sample.isDataReady || !sample.image) return;
  reportMetrics(metrics_.countCaptured());
  if (previewHub_) previewHub_->publish(sample);
  const auto present = live();
  if (present && present->videoEncodingEnabled) present->encoder->submit(std::move(sample));
}

void CaptureMedia::handlePacket(EncodedVideoPacket packet) {
  isEncodingFailing_ = false;
  failureLog_.succeeded();
  reportMetrics(metrics_.countEncoded(packet.payload->size()));
  if (callbacks_->onVideoPacket) callbacks_->onVideoPacket(std::move(packet));
}

void CaptureMedia::handleAudio(const AudioSample& sample, StreamLink& link) {
  if (!converter_) return;
  AudioPCMChunk chunk;
  try {
    chunk = converter_->convert(sample, link.audioMode);
  } catch (...) {
    if (std::exchange(link.audioErrorReported, true)) return;
    const auto failure = std::current_exception();
    kAudioLog.error("Audio conversion failed: " + localizedDescription(failure));
    reportError(failure);
    return;
  }
  link.audioErrorReported = false;
  if (chunk.frameCount > 0 && callbacks_->onAudioChunk) callbacks_->onAudioChunk(std::move(chunk));
}

// Reports

void CaptureMedia::reportError(const std::exception_ptr& failure) {
  std::string description = localizedDescription(failure);
  failureLog_.failed(description);
  reportMetrics(metrics_.setLastError(std::move(description)));
  deliver(&ScreenCaptureCallbacks::onError, failure);
}

void CaptureMedia::reportEnd(const std::exception_ptr& failure) {
  std::string description = localizedDescription(failure);
  kCaptureLog.error(description);
  reportMetrics(metrics_.setLastError(std::move(description)));
  deliver(&ScreenCaptureCallbacks::onCaptureStopped, failure);
}

void CaptureMedia::reportMetrics(std::optional<StreamMetrics> snapshot) {
  if (snapshot) deliver(&ScreenCaptureCallbacks::onMetricsChanged, *std::move(snapshot));
}

}  // namespace kestrune
