#include <algorithm>
#include <charconv>

#include "coordination/StreamCoordinator.h"
#include "model/PreferenceKeys.h"
#include "runtime/Log.h"

namespace kestrune {
namespace {

namespace keys = preference_keys;

constexpr Logger kLog("App");

// What is in force where nothing, or nothing sensible, is stored.
constexpr auto kDefaultProfile = StreamProfile::balanced;
constexpr auto kDefaultFrameRate = StreamFrameRate::fps60;
constexpr auto kDefaultVideoCodec = StreamVideoCodec::hevc;
constexpr auto kDefaultBitRate = StreamBitRate::medium;
constexpr auto kDefaultEncoderKind = StreamVideoEncoderKind::automatic;
constexpr auto kDefaultAudioMode = AudioChannelMode::stereo;
constexpr bool kDefaultPreventMacSleep = true;
constexpr auto kDefaultDisplayMode = StreamDisplayMode::mainDisplay;

/// Any stored value as an integer: numbers are cut, and a text counts by the number that it begins with.
std::int64_t integerForm(const PreferenceValue& value) {
  if (const auto* text = std::get_if<std::string>(&value)) {
    std::int64_t number = 0;
    std::from_chars(text->data(), text->data() + text->size(), number);
    return number;
  }
  if (const auto* number = std::get_if<double>(&value)) {
    return *number > -1e9 && *number < 1e9 ? static_cast<std::int64_t>(*number) : 0;
  }
  if (const auto* flag = std::get_if<bool>(&value)) return *flag ? 1 : 0;
  return std::get<std::int64_t>(value);
}

template <class Setting>
std::optional<Setting> settingOf(const PreferenceValue& value) {
  if constexpr (std::is_same_v<Setting, StreamFrameRate>) {
    return frameRateFromRawValue(integerForm(value));
  } else if constexpr (std::is_same_v<Setting, bool>) {
    const auto* flag = std::get_if<bool>(&value);
    return flag ? std::optional(*flag) : std::nullopt;
  } else {
    const auto* text = std::get_if<std::string>(&value);
    return text ? fromRawValue<Setting>(*text) : std::nullopt;
  }
}

/// Nothing if nothing is stored, or, with a line in the log, if it is no value of this setting.
template <class Setting>
std::optional<Setting> storedSetting(const Preferences& defaults, std::string_view key) {
  const auto value = defaults.value(key);
  if (!value) return {};
  const auto setting = settingOf<Setting>(*value);
  if (!setting) kLog.notice("The stored value of " + std::string(key) + " is unknown and is ignored");
  return setting;
}

template <class Enumeration>
PreferenceValue storedForm(Enumeration value) {
  return std::string(rawValue(value));
}
PreferenceValue storedForm(StreamFrameRate value) {
  return std::int64_t{framesPerSecond(value)};
}
PreferenceValue storedForm(bool value) {
  return value;
}

}  // namespace

void StreamCoordinator::loadPreferences() {
  const auto load = [this](std::string_view key, auto& setting, auto fallback) {
    setting = storedSetting<decltype(fallback)>(*defaults_, key).value_or(fallback);
  };
  load(keys::kProfile, profile, kDefaultProfile);
  load(keys::kFrameRate, frameRate, kDefaultFrameRate);
  load(keys::kBitRate, bitRate, kDefaultBitRate);
  load(keys::kVideoEncoderKind, videoEncoderKind, kDefaultEncoderKind);
  load(keys::kDisplayMode, streamDisplayMode, kDefaultDisplayMode);
  load(keys::kPreventMacSleep, preventMacSleep, kDefaultPreventMacSleep);
  // These two start anew at every launch: a fallback of the codec lasts for one run.
  videoCodec = kDefaultVideoCodec;
  audioChannelMode = kDefaultAudioMode;

  const auto keep = [this](std::string_view key, auto& setting) {
    settingObservations_.push_back(setting.observe(
        [defaults = defaults_, key](const auto& value) { defaults->set(key, storedForm(value)); }));
  };
  keep(keys::kProfile, profile);
  keep(keys::kFrameRate, frameRate);
  keep(keys::kVideoCodec, videoCodec);
  keep(keys::kBitRate, bitRate);
  keep(keys::kVideoEncoderKind, videoEncoderKind);
  keep(keys::kAudioChannelMode, audioChannelMode);
  keep(keys::kDisplayMode, streamDisplayMode);
  keep(keys::kPreventMacSleep, preventMacSleep);

  const auto writeBack = [this](std::string_view key, const auto& setting) {
    defaults_->set(key, storedForm(setting.get()));
  };
  writeBack(keys::kProfile, profile);
  writeBack(keys::kFrameRate, frameRate);
  writeBack(keys::kVideoCodec, videoCodec);
  writeBack(keys::kBitRate, bitRate);
  writeBack(keys::kVideoEncoderKind, videoEncoderKind);
  writeBack(keys::kAudioChannelMode, audioChannelMode);
  writeBack(keys::kPreventMacSleep, preventMacSleep);
}

void StreamCoordinator::observePreferences() {
  defaults_->observeExternalChanges(mainQueue_, [weak = weak_from_this()](const auto& changedKeys) {
    if (const auto self = weak.lock()) self->takeChangedPreferences(changedKeys);
  });
}

/// Somebody has edited the stored settings: as if the change had been made here. A setting that is stored no
/// more stays as it is until the next launch.
void StreamCoordinator::takeChangedPreferences(const std::vector<std::string>& changedKeys) {
  const auto take = [&]<class Setting>(std::string_view key, Setting current) {
    if (std::find(changedKeys.begin(), changedKeys.end(), key) == changedKeys.end()) return current;
    return storedSetting<Setting>(*defaults_, key).value_or(current);
  };
  preventMacSleep = take(keys::kPreventMacSleep, preventMacSleep.get());
  audioChannelMode = take(keys::kAudioChannelMode, audioChannelMode.get());
  if (canChangeDisplayMode()) streamDisplayMode = take(keys::kDisplayMode, streamDisplayMode.get());

  const VideoSettings newest = newestVideoSettings();
  const VideoSettings wanted{take(keys::kProfile, newest.profile), take(keys::kFrameRate, newest.frameRate),
                             take(keys::kVideoCodec, newest.codec), take(keys::kBitRate, newest.bitRate),
                             take(keys::kVideoEncoderKind, newest.encoderKind)};
  if (wanted == newest) return;
  editedStreamSettings_ = wanted;
  startFlow(applyEditedSettings());
}

Task<void> StreamCoordinator::applyEditedSettings() {
  if (!editedStreamSettings_) co_return;
  const VideoSettings wanted = *std::exchange(editedStreamSettings_, std::nullopt);
  co_await applyStreamSettings(wanted.profile, wanted.frameRate, wanted.codec, wanted.bitRate,
                               wanted.encoderKind);
}

/// A change that came from the stored settings and was refused is taken back there too. What is stored and
/// is no setting at all is left to whoever wrote it; so is everything once the program ends.
void StreamCoordinator::storeVideoSettings() {
  if (isTearingDown_) return;
  const auto store = [this]<class Enumeration>(std::string_view key, const Published<Enumeration>& setting) {
    const auto stored = defaults_->value(key);
    if (stored && settingOf<Enumeration>(*stored)) defaults_->set(key, storedForm(setting.get()));
  };
  store(keys::kProfile, profile);
  store(keys::kFrameRate, frameRate);
  store(keys::kVideoCodec, videoCodec);
  store(keys::kBitRate, bitRate);
  store(keys::kVideoEncoderKind, videoEncoderKind);
}

}  // namespace kestrune
