#include "coordination/StreamCoordinator.h"
#include "server/StreamingServer.h"

namespace kestrune {

StreamCoordinator::VideoSettings StreamCoordinator::currentVideoSettings() const {
  return {profile, frameRate, videoCodec, bitRate, videoEncoderKind};
}

StreamCoordinator::VideoSettings StreamCoordinator::newestVideoSettings() const {
  return editedStreamSettings_.value_or(newestStreamSettings_.value_or(currentVideoSettings()));
}

/// What the viewer asked for is not ours to follow. A change that is under way, or that the server has not
/// heard of yet, must not be undone by the answer that the viewer got.
Task<void> StreamCoordinator::takeViewerSettings(StreamProfile active) {
  if (editedStreamSettings_ || isUpdatingStreamSettings || active != profile) co_return;
  co_await applyStreamSettings(active, frameRate);
}

Task<void> StreamCoordinator::fallBackToH264() {
  VideoSettings wanted = newestVideoSettings();
  wanted.codec = StreamVideoCodec::h264;
  if (editedStreamSettings_) {
    editedStreamSettings_ = wanted;  // its own turn follows
    co_return;
  }
  co_await applyStreamSettings(wanted.profile, wanted.frameRate, wanted.codec, wanted.bitRate,
                               wanted.encoderKind);
}

void StreamCoordinator::writeVideoSettings(const VideoSettings& settings) {
  profile = settings.profile;
  frameRate = settings.frameRate;
  videoCodec = settings.codec;
  bitRate = settings.bitRate;
  videoEncoderKind = settings.encoderKind;
}

void StreamCoordinator::announceStreamSettings() {
  server_->updateStreamSettings(profile, frameRate, videoCodec);
}

Task<void> StreamCoordinator::applyStreamSettings(StreamProfile newProfile, StreamFrameRate newFrameRate,
                                                  std::optional<StreamVideoCodec> newCodec,
                                                  std::optional<StreamBitRate> newBitRate,
                                                  std::optional<StreamVideoEncoderKind> newEncoderKind) {
  if (isTearingDown_) co_return;
  pendingStreamSettings_ =
      VideoSettings{newProfile, newFrameRate, newCodec.value_or(videoCodec), newBitRate.value_or(bitRate),
                    newEncoderKind.value_or(videoEncoderKind)};
  newestStreamSettings_ = pendingStreamSettings_;
  if (isUpdatingStreamSettings) co_return;  // the running loop takes it
  isUpdatingStreamSettings = true;
  try {
    while (pendingStreamSettings_) {
      const VideoSettings wanted = *std::exchange(pendingStreamSettings_, std::nullopt);
      if (wanted != currentVideoSettings()) co_await applyPendingSettings(wanted);
    }
  } catch (const CancellationError&) {
  }
  newestStreamSettings_.reset();
  storeVideoSettings();
  isUpdatingStreamSettings = false;
}

Task<void> StreamCoordinator::applyPendingSettings(VideoSettings wanted) {
  const std::uint64_t generation = streamSettingsGeneration_;
  const bool wasCapturing = isCapturing;
  std::exception_ptr failure;
  try {
    if (wasCapturing) co_await captureService_->updateVideoSettings(wanted);
    co_await checkCancellation();
  } catch (const CancellationError&) {
    throw;
  } catch (...) {
    failure = std::current_exception();
  }
  // Another source, a teardown or the end of capture made the outcome, good or bad, meaningless.
  if (streamSettingsGeneration_ != generation || (wasCapturing && !isCapturing)) co_return;
  if (failure) {
    reportError(failure, false);
  } else {
    writeVideoSettings(wanted);
  }
  announceStreamSettings();  // after a failure too: a viewer may already believe the new values
  if (!failure) clearErrors();
}

/// A change during the start of capture took effect at once for all but the stream, which began with `used`.
Task<void> StreamCoordinator::catchUpWithSettings(VideoSettings used) {
  while (used != currentVideoSettings()) {
    const VideoSettings wanted = currentVideoSettings();
    std::exception_ptr failure;
    try {
      co_await captureService_->updateVideoSettings(wanted);
    } catch (const CancellationError&) {
      throw;
    } catch (...) {
      failure = std::current_exception();
    }
    co_await checkCancellation();
    if (failure) {
      writeVideoSettings(used);
      reportError(failure, false);
      announceStreamSettings();
      co_return;
    }
    used = wanted;
  }
}

}  // namespace kestrune
