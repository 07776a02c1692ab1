#include "capture/ScreenCaptureService.h"

#include <array>
#include <atomic>
#include <utility>

#include "capture/CaptureContent.h"
#include "capture/StreamOutcome.h"
#include "runtime/Log.h"

namespace kestrune {
namespace {

constexpr Logger kCaptureLog("Capture");
constexpr Logger kAudioLog("Audio");

/// Single window, single application and single display.
constexpr std::uint32_t kAllowedPickerModes = 21;

// What may wait on the callback queue while its thread is held up: some seconds of picture and sound.
constexpr int kMaximumWaitingPackets = 240;
constexpr int kMaximumWaitingChunks = 500;

std::string_view shortName(StreamProfile profile) {
  constexpr std::array<std::string_view, 3> names{"900p", "720p", "540p"};
  return names.at(static_cast<std::size_t>(profile));
}

}  // namespace

ScreenCaptureService::ScreenCaptureService(Dependencies dependencies)
    : dependencies_(std::move(dependencies)),
      videoQueue_(dependencies_.makeQueue(kVideoQueueLabel)),
      audioQueue_(dependencies_.makeQueue(kAudioQueueLabel)),
      callbacks_(std::make_shared<const ScreenCaptureCallbacks>()),
      metrics_(dependencies_.clock),
      failureLog_(kCaptureLog, dependencies_.clock) {}

ScreenCaptureService::~ScreenCaptureService() {
  if (encoder_) encoder_->invalidate();
  if (stream_.platform) release(std::move(stream_));
}

void ScreenCaptureService::setCallbacks(ScreenCaptureCallbacks callbacks) {
  auto shared = std::make_shared<const ScreenCaptureCallbacks>(std::move(callbacks));
  const std::lock_guard guard(stateLock_);
  callbacks_.swap(shared);
}

// Start, settings, stop

Task<void> ScreenCaptureService::start(StreamSettings settings) {
  const auto self = shared_from_this();
  SharedSelection selection;
  {
    const std::lock_guard guard(stateLock_);
    if (stream_.platform || isStarting_) throw KestruneError(KestruneError::Case::alreadyRunning);
    if (!selection_) throw KestruneError(KestruneError::Case::noSource);
    selection = selection_;
    isStarting_ = true;
  }
  // Also if the task is abandoned while it waits.
  const std::shared_ptr<void> starting(nullptr, [self](void*) {
    const std::lock_guard guard(self->stateLock_);
    self->isStarting_ = false;
  });
  metrics_.restartWindow();
  selection = selectionForStart(std::move(selection));
  const auto encoder = makeEncoder(settings.video);
  Stream stream;
  auto begin = outcomeOf([this, &stream, &selection, &settings](StreamCompletion completion) {
    stream = makeStream(*selection, settings);
    stream.platform->startCapture(std::move(completion));
  });
  std::exception_ptr failure = co_await begin;
  const bool hasBegun = !failure;
  bool hasFailed = !hasBegun;
  SharedSelection chosenMeanwhile;
  bool hasContentChanged = false;
  if (!hasFailed) {
    const std::lock_guard guard(stateLock_);
    hasFailed = stream.link->hasEnded;
    failure = stream.link->failure;
    if (!hasFailed) {
      stream_ = stream;
      encoder_ = encoder;
      settings_ = settings;
      videoEncodingEnabled_ = false;
      isEncodingFailing_ = false;
      audioErrorReported_ = false;
      if (selection_ != selection) chosenMeanwhile = selection_;
      hasContentChanged = stream.link->hasContentChanged;
    }
  }
  if (hasFailed) {
    encoder->invalidate();
    if (stream.link) stream.link->isOpen = false;
    if (hasBegun) clearPreview();  // a frame has come before the end
    throw operationFailed("Unable to start screen capture: %@", failure);
  }
  reportMetrics(metrics_.restart());
  configurePicker(*stream.platform);
  kCaptureLog.info("Screen and system-audio capture started");
  kAudioLog.info("System audio capture ready at 48 kHz with " +
                 std::to_string(channelCount(settings.audioMode)) + " channel(s)");
  if (chosenMeanwhile) {
    select(chosenMeanwhile);
  } else if (hasContentChanged) {
    followContent(stream.link);
  }
}

ScreenCaptureService::Stream ScreenCaptureService::makeStream(const Selection& selection,
                                                              const StreamSettings& settings) {
  const auto configuration =
      streamConfiguration(selection.filter, settings.video.profile, settings.video.frameRate,
                          settings.audioMode, settings.showsCursor, selection.capturesProcessAudio);
  const auto link = std::make_shared<Link>();
  const auto weak = weak_from_this();
  const std::shared_ptr<ScreenStream> platform = dependencies_.capture->createStream(
      selection.filter, configuration, [weak, link](std::exception_ptr failure) {
        if (const auto self = weak.lock()) self->handleStreamStopped(link, std::move(failure));
      });
  platform->setContentChangeHandler([weak, link] {
    if (const auto self = weak.lock()) self->handleContentChanged(link);
  });
  platform->addVideoOutput(videoQueue_, [weak, link](VideoSample sample) {
    const auto self = weak.lock();
    if (!self || !link->isOpen) return;
    self->handleVideo(std::move(sample));
    if (!link->isOpen) self->clearPreview();  // it ended meanwhile, and this frame came after the clearing
  });
  platform->addAudioOutput(audioQueue_, [weak, link](const AudioSample& sample) {
    const auto self = weak.lock();
    if (self && link->isOpen) self->handleAudio(sample);
  });
  return {platform, link};
}

std::shared_ptr<StreamVideoEncoder> ScreenCaptureService::makeEncoder(const VideoSettings& settings) {
  const auto weak = weak_from_this();
  StreamVideoEncoder::Callbacks callbacks;
  callbacks.onPacket = [weak](const EncodedVideoPacket& packet) {
    if (const auto self = weak.lock()) self->handlePacket(packet);
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
  return std::make_shared<StreamVideoEncoder>(
      settings, std::move(callbacks), dependencies_.makeQueue(StreamVideoEncoder::kQueueLabel),
      dependencies_.compression, dependencies_.pixelTransfer, dependencies_.clock);
}

void ScreenCaptureService::setPickerActive(bool active) {
  if (dependencies_.picker) dependencies_.picker->setActive(active);
}

void ScreenCaptureService::configurePicker(ScreenStream& stream) {
  if (!dependencies_.picker) return;
  ContentSharingPicker::Configuration configuration;
  configuration.allowedPickerModes = kAllowedPickerModes;
  configuration.allowsChangingSelectedContent = true;
  if (dependencies_.bundleIdentifier) configuration.excludedBundleIDs = {*dependencies_.bundleIdentifier};
  dependencies_.picker->setConfiguration(configuration, stream);
}

Task<void> ScreenCaptureService::updateVideoSettings(VideoSettings settings) {
  const auto self = shared_from_this();
  Stream stream;
  SharedSelection selection;
  StreamSettings kept;
  bool enabled = false;
  {
    const std::lock_guard guard(stateLock_);
    if (!stream_.platform || !selection_) {
      settings_.video = settings;
      co_return;
    }
    stream = stream_;
    selection = nextSelection_ ? nextSelection_ : selection_;
    kept = settings_;
    enabled = videoEncodingEnabled_;
  }
  const auto configuration =
      streamConfiguration(selection->filter, settings.profile, settings.frameRate, kept.audioMode,
                          kept.showsCursor, selection->capturesProcessAudio);
  const auto encoder = makeEncoder(settings);
  encoder->setEnabled(enabled);
  auto change = outcomeOf([&stream, &configuration](StreamCompletion completion) {
    stream.platform->updateConfiguration(configuration, std::move(completion));
  });
  const std::exception_ptr failure = co_await change;
  if (failure) {
    encoder->invalidate();
    throw operationFailed("Unable to change video quality: %@", failure);
  }
  if (dependencies_.audioConverter) dependencies_.audioConverter->clearCaches();
  std::shared_ptr<StreamVideoEncoder> replaced;
  {
    const std::lock_guard guard(stateLock_);
    if (stream_.platform == stream.platform) {
      replaced = std::exchange(encoder_, encoder);
      settings_.video = settings;
      enabled = videoEncodingEnabled_;  // it may have changed meanwhile
    }
  }
  if (!replaced) {
    encoder->invalidate();
    co_return;
  }
  encoder->setEnabled(enabled);
  replaced->invalidate();
  requestKeyframe();
  kCaptureLog.notice(
      "Video settings changed to " + title(settings.codec) + ", " + std::string(shortName(settings.profile)) +
      ", " + std::to_string(targetBitsPerSecond(settings.bitRate) / 1'000'000) + " Mbps at " +
      std::to_string(framesPerSecond(settings.frameRate)) + " fps using " + title(settings.encoderKind));
}

Task<void> ScreenCaptureService::stop() {
  const auto self = shared_from_this();
  setPickerActive(false);
  Stream stream;
  std::shared_ptr<StreamVideoEncoder> encoder;
  {
    const std::lock_guard guard(stateLock_);
    stream = stream_;
    encoder = encoder_;
    if (stream.platform) videoEncodingEnabled_ = false;
  }
  if (!stream.platform) {
    clearPreview();
    co_return;
  }
  encoder->setEnabled(false);
  auto end = outcomeOf(
      [&stream](StreamCompletion completion) { stream.platform->stopCapture(std::move(completion)); });
  const std::exception_ptr failure = co_await end;
  {
    const std::lock_guard guard(stateLock_);
    if (stream_.platform == stream.platform) {
      stream_ = {};
      encoder = std::exchange(encoder_, nullptr);
      videoEncodingEnabled_ = false;
    }
  }
  encoder->invalidate();
  stream.link->isOpen = false;
  clearPreview();
  kCaptureLog.info("Screen capture stopped");
  if (failure) throw operationFailed("Unable to stop screen capture cleanly: %@", failure);
}

void ScreenCaptureService::handleStreamStopped(const std::shared_ptr<Link>& link,
                                               std::exception_ptr failure) {
  Stream stream;
  std::shared_ptr<StreamVideoEncoder> encoder;
  {
    const std::lock_guard guard(stateLock_);
    if (stream_.link != link) {
      if (!std::exchange(link->hasEnded, true)) link->failure = std::move(failure);
      return;
    }
    stream = std::exchange(stream_, {});
    encoder = std::exchange(encoder_, nullptr);
    videoEncodingEnabled_ = false;
  }
  encoder->invalidate();
  release(std::move(stream));
  clearPreview();
  const auto error = operationFailed("Screen capture stopped unexpectedly: %@", failure);
  kCaptureLog.error(error.localizedDescription());
  reportMetrics(metrics_.setLastError(error.localizedDescription()));
  deliver(&ScreenCaptureCallbacks::onCaptureStopped, std::make_exception_ptr(error));
}

void ScreenCaptureService::release(Stream stream) {
  stream.link->isOpen = false;
  dependencies_.callbackQueue->post([ended = std::move(stream)] {});
}

void ScreenCaptureService::clearPreview() {
  if (dependencies_.previewHub) dependencies_.previewHub->clear();
}

bool ScreenCaptureService::isRunning() const {
  const std::lock_guard guard(stateLock_);
  return stream_.platform != nullptr;
}

// Encoding

void ScreenCaptureService::setVideoEncodingEnabled(bool enabled) {
  std::shared_ptr<StreamVideoEncoder> encoder;
  {
    const std::lock_guard guard(stateLock_);
    videoEncodingEnabled_ = enabled;
    encoder = encoder_;
  }
  if (!encoder) return;
  encoder->setEnabled(enabled);
  if (!enabled) return;
  encoder->prewarm();
  requestKeyframe();
}

void ScreenCaptureService::requestKeyframe() {
  std::shared_ptr<StreamVideoEncoder> encoder;
  std::shared_ptr<ScreenStream> stream;
  {
    const std::lock_guard guard(stateLock_);
    encoder = encoder_;
    if (videoEncodingEnabled_) stream = stream_.platform;
  }
  if (encoder) encoder->requestKeyframe();
  if (stream) stream->requestFrame();
}

// Media

void ScreenCaptureService::handleVideo(VideoSample sample) {
  if (!sample.isValid || !sample.isDataReady || !sample.image) return;
  reportMetrics(metrics_.countCaptured());
  if (dependencies_.previewHub) dependencies_.previewHub->publish(sample);
  std::shared_ptr<StreamVideoEncoder> encoder;
  {
    const std::lock_guard guard(stateLock_);
    if (videoEncodingEnabled_) encoder = encoder_;
  }
  if (encoder) encoder->submit(std::move(sample));
}

void ScreenCaptureService::handlePacket(const EncodedVideoPacket& packet) {
  isEncodingFailing_ = false;
  failureLog_.succeeded();
  reportMetrics(metrics_.countEncoded(packet.payload->size()));
  if (*waitingPackets_ >= kMaximumWaitingPackets) {
    awaitsKeyframe_ = true;
    return;
  }
  if (packet.isKeyframe) {
    awaitsKeyframe_ = false;
  } else if (awaitsKeyframe_) {
    requestKeyframe();
    return;
  }
  deliver(&ScreenCaptureCallbacks::onVideoPacket, packet, waitingPackets_);
}

void ScreenCaptureService::handleAudio(const AudioSample& sample) {
  if (!dependencies_.audioConverter) return;
  AudioChannelMode mode{};
  {
    const std::lock_guard guard(stateLock_);
    mode = settings_.audioMode;
  }
  std::exception_ptr failure;
  AudioPCMChunk chunk;
  try {
    chunk = dependencies_.audioConverter->convert(sample, mode);
  } catch (...) {
    failure = std::current_exception();
  }
  bool wasReported = false;
  {
    const std::lock_guard guard(stateLock_);
    wasReported = std::exchange(audioErrorReported_, failure != nullptr);
  }
  if (failure) {
    if (wasReported) return;
    kAudioLog.error("Audio conversion failed: " + localizedDescription(failure));
    reportError(failure);
  } else if (chunk.frameCount > 0 && *waitingChunks_ < kMaximumWaitingChunks) {
    deliver(&ScreenCaptureCallbacks::onAudioChunk, std::move(chunk), waitingChunks_);
  }
}

// Reports

void ScreenCaptureService::reportError(const std::exception_ptr& failure) {
  std::string description = localizedDescription(failure);
  failureLog_.failed(description);
  reportMetrics(metrics_.setLastError(std::move(description)));
  deliver(&ScreenCaptureCallbacks::onError, failure);
}

void ScreenCaptureService::reportMetrics(std::optional<StreamMetrics> snapshot) {
  if (snapshot) deliver(&ScreenCaptureCallbacks::onMetricsChanged, *std::move(snapshot));
}

}  // namespace kestrune
