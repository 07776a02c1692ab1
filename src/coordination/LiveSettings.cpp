#include "coordination/LiveSettings.h"

#include <exception>
#include <utility>

namespace kestrune {

LiveSettings::LiveSettings(FlowStarter startFlow, StoredSettings& settings,
                           std::shared_ptr<ScreenCaptureService> capture,
                           std::shared_ptr<const ViewerRoutes> routes, ErrorReport& errors, Stream stream)
    : startFlow_(std::move(startFlow)),
      settings_(settings),
      capture_(std::move(capture)),
      routes_(std::move(routes)),
      errors_(errors),
      stream_(std::move(stream)) {}

Task<void> LiveSettings::applyStreamSettings(StreamProfile profile, StreamFrameRate frameRate,
                                             std::optional<StreamVideoCodec> codec,
                                             std::optional<StreamBitRate> bitRate,
                                             std::optional<StreamVideoEncoderKind> encoderKind) {
  const VideoSettings current = settings_.video();
  const VideoSettings wanted{profile, frameRate, codec.value_or(current.codec),
                             bitRate.value_or(current.bitRate), encoderKind.value_or(current.encoderKind)};
  if (request(wanted)) co_await run();
}

Task<void> LiveSettings::takeViewerSettings(StreamProfile active) {
  if (isUpdatingStreamSettings_ || active != settings_.profile()) co_return;
  if (request(settings_.video())) co_await run();
}

Task<void> LiveSettings::fallBackToH264() {
  VideoSettings wanted = newest();
  wanted.codec = StreamVideoCodec::h264;
  if (request(wanted)) co_await run();
}

void LiveSettings::takeEdited(const std::vector<std::string>& keys, bool mayChangeDisplayMode) {
  settings_.takeEdited(keys, mayChangeDisplayMode);
  const VideoSettings before = newest();
  const VideoSettings wanted = settings_.withEdited(keys, before);
  if (wanted != before && request(wanted)) startFlow_(run());
}

void LiveSettings::abandon() {
  invalidate();
  pendingStreamSettings_.reset();
}

void LiveSettings::announce() const {
  routes_->updateStreamSettings(settings_.profile(), settings_.frameRate(), settings_.videoCodec());
}

LiveSettings::VideoSettings LiveSettings::newest() const {
  return pendingStreamSettings_.value_or(applyingStreamSettings_.value_or(settings_.video()));
}

bool LiveSettings::request(const VideoSettings& wanted) {
  if (stream_.isTearingDown()) return false;
  pendingStreamSettings_ = wanted;
  if (isUpdatingStreamSettings_) return false;
  isUpdatingStreamSettings_ = true;
  return true;
}

Task<void> LiveSettings::run() {
  try {
    while (pendingStreamSettings_) {
      applyingStreamSettings_ = std::exchange(pendingStreamSettings_, std::nullopt);
      const VideoSettings wanted = *applyingStreamSettings_;
      if (wanted != settings_.video()) co_await apply(wanted);
    }
  } catch (const CancellationError&) {
    pendingStreamSettings_.reset();
  }
  applyingStreamSettings_.reset();
  if (!stream_.isTearingDown()) settings_.overwriteRefusedEdits();
  isUpdatingStreamSettings_ = false;
}

Task<void> LiveSettings::apply(VideoSettings wanted) {
  const std::uint64_t generation = streamSettingsGeneration_;
  const bool wasCapturing = stream_.isCapturing();
  // Another source, a teardown or the end of capture makes the outcome stale, good or bad.
  const auto isStale = [this, generation, wasCapturing] {
    return streamSettingsGeneration_ != generation || (wasCapturing && !stream_.isCapturing());
  };
  const auto accept = [this, wanted, isStale] {
    if (isStale()) return;
    settings_.setVideo(wanted);
    announce();
    errors_.clear();
  };
  std::exception_ptr failure;
  try {
    if (wasCapturing) {
      Task<void> update = capture_->updateVideoSettings(wanted, accept);
      co_await update;
    }
    co_await checkCancellation();
    if (!wasCapturing) accept();
  } catch (const CancellationError&) {
    throw;
  } catch (...) {
    failure = std::current_exception();
  }
  if (!failure || isStale()) co_return;
  errors_.report(failure);
  announce();  // a viewer may already believe the new values
}

Task<void> LiveSettings::startStream(bool showsCursor) {
  const ScreenCaptureService::StreamSettings settings{
      .video = settings_.video(), .audioMode = settings_.audioChannelMode(), .showsCursor = showsCursor};
  co_await capture_->start(settings);
  audioMode_ = settings.audioMode;
  co_await catchUp(settings.video);
}

/// A change during the start took effect at once for all but the stream, which began with `used`.
Task<void> LiveSettings::catchUp(VideoSettings used) {
  while (used != settings_.video()) {
    const VideoSettings wanted = settings_.video();
    std::exception_ptr failure;
    try {
      Task<void> update = capture_->updateVideoSettings(wanted);
      co_await update;
    } catch (const CancellationError&) {
      throw;
    } catch (...) {
      failure = std::current_exception();
    }
    co_await checkCancellation();
    if (failure) {
      settings_.setVideo(used);
      errors_.report(failure);
      announce();
      co_return;
    }
    used = wanted;
  }
}

}  // namespace kestrune
