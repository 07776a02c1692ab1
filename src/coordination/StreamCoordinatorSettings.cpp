#include <charconv>

#include "coordination/StreamCoordinator.h"
#include "coordination/model/PreferenceKeys.h"
#include "server/StreamingServer.h"

namespace kestrune {
namespace {

std::string storedText(const Preferences& defaults, std::string_view key) {
  const auto value = defaults.value(key);
  const auto* text = value ? std::get_if<std::string>(&*value) : nullptr;
  return text ? *text : std::string();
}

/// Any stored value as an integer: numbers are cut, a text counts by the number that it begins with, and what
/// is absent is 0.
std::int64_t storedInteger(const Preferences& defaults, std::string_view key) {
  const auto value = defaults.value(key);
  if (!value) return 0;
  if (const auto* text = std::get_if<std::string>(&*value)) {
    std::int64_t number = 0;
    std::from_chars(text->data(), text->data() + text->size(), number);
    return number;
  }
  if (const auto* number = std::get_if<double>(&*value)) {
    return *number > -1e9 && *number < 1e9 ? static_cast<std::int64_t>(*number) : 0;
  }
  if (const auto* flag = std::get_if<bool>(&*value)) return *flag ? 1 : 0;
  return std::get<std::int64_t>(*value);
}

template <class Enumeration>
PreferenceValue storedForm(Enumeration value) {
  return std::string(rawValue(value));
}
PreferenceValue storedForm(StreamFrameRate value) {
  return std::int64_t{framesPerSecond(value)};
}

}  // namespace

void StreamCoordinator::loadPreferences() {
  namespace keys = preference_keys;
  const Preferences& stored = *defaults_;
  profile = fromRawValue<StreamProfile>(storedText(stored, keys::kProfile)).value_or(StreamProfile::balanced);
  frameRate = frameRateFromRawValue(storedInteger(stored, keys::kFrameRate)).value_or(StreamFrameRate::fps60);
  bitRate = fromRawValue<StreamBitRate>(storedText(stored, keys::kBitRate)).value_or(StreamBitRate::medium);
  videoEncoderKind = fromRawValue<StreamVideoEncoderKind>(storedText(stored, keys::kVideoEncoderKind))
                         .value_or(StreamVideoEncoderKind::automatic);
  streamDisplayMode = fromRawValue<StreamDisplayMode>(storedText(stored, keys::kDisplayMode))
                          .value_or(StreamDisplayMode::mainDisplay);
  // The codec and the audio mode start anew at every launch: a fallback lasts for one run.

  const auto keep = [this](std::string_view key, auto& setting, bool writeNow) {
    if (writeNow) defaults_->set(key, storedForm(setting.get()));
    settingObservations_.push_back(setting.observe(
        [defaults = defaults_, key](const auto& value) { defaults->set(key, storedForm(value)); }));
  };
  keep(keys::kProfile, profile, true);
  keep(keys::kFrameRate, frameRate, true);
  keep(keys::kVideoCodec, videoCodec, true);
  keep(keys::kBitRate, bitRate, true);
  keep(keys::kVideoEncoderKind, videoEncoderKind, true);
  keep(keys::kAudioChannelMode, audioChannelMode, true);
  keep(keys::kDisplayMode, streamDisplayMode, false);
}

StreamCoordinator::VideoSettings StreamCoordinator::currentVideoSettings() const {
  return {profile, frameRate, videoCodec, bitRate, videoEncoderKind};
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
  if (isUpdatingStreamSettings) co_return;  // the running loop takes it
  isUpdatingStreamSettings = true;
  try {
    while (pendingStreamSettings_) {
      const VideoSettings wanted = *std::exchange(pendingStreamSettings_, std::nullopt);
      if (wanted != currentVideoSettings()) co_await applyPendingSettings(wanted);
    }
  } catch (const CancellationError&) {
  }
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
    profile = wanted.profile;
    frameRate = wanted.frameRate;
    videoCodec = wanted.codec;
    bitRate = wanted.bitRate;
    videoEncoderKind = wanted.encoderKind;
  }
  announceStreamSettings();  // after a failure too: a viewer may already believe the new values
  if (!failure) clearErrors();
}

}  // namespace kestrune
