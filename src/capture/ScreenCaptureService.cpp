#include "capture/ScreenCaptureService.h"

#include <array>
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

std::string_view shortName(StreamProfile profile) {
  constexpr std::array<std::string_view, 3> names{"900p", "720p", "540p"};
  return names.at(static_cast<std::size_t>(profile));
}

}  // namespace

ScreenCaptureService::ScreenCaptureService(Dependencies dependencies)
    : dependencies_(std::move(dependencies)),
      media_(std::make_shared<CaptureMedia>(dependencies_.callbackQueue, dependencies_.clock,
                                            dependencies_.makeQueue(kVideoQueueLabel),
                                            dependencies_.makeQueue(kAudioQueueLabel),
                                            dependencies_.previewHub, dependencies_.audioConverter)) {}

/// On any thread; the stream is destroyed on the callback queue, never on a thread of its own.
ScreenCaptureService::~ScreenCaptureService() {
  if (stream_) dependencies_.callbackQueue->post([ended = dropStream()] {});
}

// Start

Task<void> ScreenCaptureService::start(StreamSettings settings) {
  const auto self = shared_from_this();
  if (stream_ || isStarting()) throw KestruneError(KestruneError::Case::alreadyRunning);
  if (!selection_) throw KestruneError(KestruneError::Case::noSource);
  const auto starting = std::make_shared<bool>();
  starting_ = starting;
  media_->prepareStart();
  const SharedSelection selection = followDisplay();
  const auto encoder = makeEncoder(settings.video);
  const auto link = std::make_shared<StreamLink>(settings.audioMode);
  SharedStream stream;
  auto begin = outcomeOf([this, &stream, &selection, &settings, &link](StreamCompletion completion) {
    stream = makeStream(*selection, settings, link);
    stream->startCapture(std::move(completion));
  });
  std::exception_ptr failure = co_await begin;
  if (failure || link->hasEnded) {
    encoder->invalidate();
    link->isOpen = false;
    if (!failure) {
      failure = link->failure;
      media_->clearPreview();  // a frame has come before the end
    }
    throw operationFailed("Unable to start screen capture: %@", failure);
  }
  adopt(stream, link, encoder, settings);
  media_->begin();
  configurePicker(*stream);
  kCaptureLog.info("Screen and system-audio capture started");
  kAudioLog.info("System audio capture ready at 48 kHz with " +
                 std::to_string(channelCount(settings.audioMode)) + " channel(s)");
  if (selection_ != selection) {
    select(selection_);  // chosen meanwhile
  } else if (link->hasContentChanged) {
    followContent(link);
  }
}

ScreenCaptureService::SharedStream ScreenCaptureService::makeStream(const Selection& selection,
                                                                    const StreamSettings& settings,
                                                                    const SharedLink& link) {
  const auto configuration =
      streamConfiguration(selection.filter, settings.video.profile, settings.video.frameRate,
                          settings.audioMode, settings.showsCursor, selection.capturesProcessAudio);
  SharedStream stream = dependencies_.capture->createStream(
      selection.filter, configuration,
      [queue = dependencies_.callbackQueue, weak = weak_from_this(), link](std::exception_ptr failure) {
        queue->post([weak, link, failure = std::move(failure)] {
          if (const auto self = weak.lock()) self->handleStreamStopped(link, failure);
        });
      });
  stream->setContentChangeHandler([queue = dependencies_.callbackQueue, weak = weak_from_this(), link] {
    queue->post([weak, link] {
      if (const auto self = weak.lock()) self->followContent(link);
    });
  });
  media_->addOutputs(*stream, link);
  return stream;
}

std::shared_ptr<StreamVideoEncoder> ScreenCaptureService::makeEncoder(const VideoSettings& settings) {
  return std::make_shared<StreamVideoEncoder>(
      settings, media_->encoderCallbacks(), dependencies_.makeQueue(StreamVideoEncoder::kQueueLabel),
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

// The running stream

void ScreenCaptureService::adopt(SharedStream stream, SharedLink link,
                                 std::shared_ptr<StreamVideoEncoder> encoder, StreamSettings settings) {
  stream_ = std::move(stream);
  link_ = std::move(link);
  encoder_ = std::move(encoder);
  settings_ = settings;
  videoEncodingEnabled_ = false;
  publish();
}

ScreenCaptureService::SharedStream ScreenCaptureService::dropStream() {
  SharedStream dropped = std::exchange(stream_, nullptr);
  publish();
  std::exchange(encoder_, nullptr)->invalidate();
  std::exchange(link_, nullptr)->isOpen = false;
  videoEncodingEnabled_ = false;
  return dropped;
}

void ScreenCaptureService::publish() {
  std::shared_ptr<const LiveStream> live;
  if (stream_)
    live = std::make_shared<const LiveStream>(LiveStream{stream_, encoder_, videoEncodingEnabled_});
  media_->publish(std::move(live));
}

void ScreenCaptureService::setVideoEncodingEnabled(bool enabled) {
  videoEncodingEnabled_ = enabled;
  if (!encoder_) return;
  publish();
  encoder_->setEnabled(enabled);
  if (!enabled) return;
  encoder_->prewarm();
  requestKeyframe();
}

Task<void> ScreenCaptureService::updateVideoSettings(VideoSettings settings,
                                                     std::function<void()> onAccepted) {
  const auto self = shared_from_this();
  const SharedStream stream = stream_;
  const bool hasStream = stream != nullptr;
  std::shared_ptr<StreamVideoEncoder> encoder;
  if (hasStream) {
    const Selection& selection = *newestSelection();
    const auto configuration =
        streamConfiguration(selection.filter, settings.profile, settings.frameRate, settings_.audioMode,
                            settings_.showsCursor, selection.capturesProcessAudio);
    encoder = makeEncoder(settings);
    encoder->setEnabled(videoEncodingEnabled_);
    auto change = outcomeOf([&stream, &configuration](StreamCompletion completion) {
      stream->updateConfiguration(configuration, std::move(completion));
    });
    const std::exception_ptr failure = co_await change;
    if (failure) {
      encoder->invalidate();
      throw operationFailed("Unable to change video quality: %@", failure);
    }
    media_->clearAudioCaches();
  } else {
    settings_.video = settings;
  }

  const bool isCancelled = co_await isTaskCancelled();
  if (hasStream && stream_ == stream) encoder_->invalidate();  // no packet of it follows onAccepted()
  if (onAccepted && !isCancelled) onAccepted();
  if (!hasStream) co_return;
  if (stream_ != stream) {
    encoder->invalidate();
    co_return;
  }
  encoder_ = encoder;
  settings_.video = settings;
  encoder->setEnabled(videoEncodingEnabled_);  // may have changed during the wait
  publish();
  requestKeyframe();
  kCaptureLog.notice(
      "Video settings changed to " + title(settings.codec) + ", " + std::string(shortName(settings.profile)) +
      ", " + std::to_string(targetBitsPerSecond(settings.bitRate) / 1'000'000) + " Mbps at " +
      std::to_string(framesPerSecond(settings.frameRate)) + " fps using " + title(settings.encoderKind));
}

// End

Task<void> ScreenCaptureService::stop() {
  const auto self = shared_from_this();
  setPickerActive(false);
  const SharedStream stream = stream_;
  if (!stream) {
    media_->clearPreview();
    co_return;
  }
  setVideoEncodingEnabled(false);
  auto end =
      outcomeOf([&stream](StreamCompletion completion) { stream->stopCapture(std::move(completion)); });
  const std::exception_ptr failure = co_await end;
  if (stream_ == stream) dropStream();
  media_->clearPreview();
  kCaptureLog.info("Screen capture stopped");
  if (failure) throw operationFailed("Unable to stop screen capture cleanly: %@", failure);
}

void ScreenCaptureService::handleStreamStopped(const SharedLink& link, const std::exception_ptr& failure) {
  if (link_ != link) {
    if (!std::exchange(link->hasEnded, true)) link->failure = failure;
    return;
  }
  dropStream();
  media_->clearPreview();
  media_->reportEnd(
      std::make_exception_ptr(operationFailed("Screen capture stopped unexpectedly: %@", failure)));
}

}  // namespace kestrune
