#include "coordination/StoredSettings.h"

#include <algorithm>
#include <charconv>
#include <optional>
#include <type_traits>
#include <utility>

#include "browser/StartPage.h"
#include "runtime/Log.h"

namespace kestrune {
namespace {

constexpr Logger kLog("App");

/// Any stored value as an integer: fractions are truncated, and a text counts by the number that it begins
/// with.
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

template <class Value>
std::optional<Value> parse(const PreferenceValue& stored) {
  if constexpr (std::is_same_v<Value, StreamFrameRate>) {
    return frameRateFromRawValue(integerForm(stored));
  } else if constexpr (std::is_same_v<Value, bool>) {
    const auto* flag = std::get_if<bool>(&stored);
    return flag ? std::optional(*flag) : std::nullopt;
  } else if constexpr (std::is_same_v<Value, std::string>) {  // the start page
    const auto* text = std::get_if<std::string>(&stored);
    if (!text || !normalizedBrowserURL(*text)) return std::nullopt;
    return *text == kFormerStartPage ? std::string(kDefaultStartPage) : *text;
  } else {
    const auto* text = std::get_if<std::string>(&stored);
    return text ? fromRawValue<Value>(*text) : std::nullopt;
  }
}

template <class Value>
PreferenceValue storedForm(Value value) {
  if constexpr (std::is_same_v<Value, StreamFrameRate>) {
    return std::int64_t{framesPerSecond(value)};
  } else if constexpr (std::is_same_v<Value, bool> || std::is_same_v<Value, std::string>) {
    return value;
  } else {
    return std::string(rawValue(value));
  }
}

/// Empty if nothing is stored; an invalid value is logged, and empty too.
template <class Value>
std::optional<Value> storedValue(const Preferences& preferences, const Setting<Value>& setting) {
  const auto stored = preferences.value(setting.key);
  if (!stored) return {};
  auto value = parse<Value>(*stored);
  if (!value) kLog.notice("The stored value of " + std::string(setting.key) + " is unknown and is ignored");
  return value;
}

}  // namespace

template <class Visit>
void StoredSettings::forEachVideoSetting(Visit visit) {
  visit(profile_);
  visit(frameRate_);
  visit(videoCodec_);
  visit(bitRate_);
  visit(videoEncoderKind_);
}

template <class Visit>
void StoredSettings::forEachSetting(Visit visit) {
  forEachVideoSetting(visit);
  visit(audioChannelMode_);
  visit(streamDisplayMode_);
  visit(browserStartURL_);
  visit(preventMacSleep_);
}

StoredSettings::StoredSettings(std::shared_ptr<Preferences> preferences)
    : preferences_(std::move(preferences)) {
  forEachSetting([this]<class Value>(Setting<Value>& setting) {
    using Launch = typename Setting<Value>::Launch;
    if (setting.launch != Launch::startAnew) {
      setting.value = storedValue(*preferences_, setting).value_or(setting.fallback);
    }
    storing_.push_back(setting.value.observe([store = preferences_, key = setting.key](const Value& value) {
      store->set(key, storedForm(value));
    }));
    if (setting.launch != Launch::read) preferences_->set(setting.key, storedForm(setting.value.get()));
  });
}

StoredSettings::VideoSettings StoredSettings::video() const {
  return {profile(), frameRate(), videoCodec(), bitRate(), videoEncoderKind()};
}

void StoredSettings::setVideo(const VideoSettings& settings) {
  profile_.value = settings.profile;
  frameRate_.value = settings.frameRate;
  videoCodec_.value = settings.codec;
  bitRate_.value = settings.bitRate;
  videoEncoderKind_.value = settings.encoderKind;
}

template <class Value>
Value StoredSettings::editedValue(const Setting<Value>& setting, const std::vector<std::string>& edited,
                                  Value current) const {
  if (std::find(edited.begin(), edited.end(), setting.key) == edited.end()) return current;
  return storedValue(*preferences_, setting).value_or(current);
}

void StoredSettings::takeEdited(const std::vector<std::string>& edited, bool mayChangeDisplayMode) {
  const auto take = [&](auto& setting) { setting.value = editedValue(setting, edited, setting.value.get()); };
  take(preventMacSleep_);
  take(audioChannelMode_);
  take(browserStartURL_);
  if (mayChangeDisplayMode) take(streamDisplayMode_);
}

StoredSettings::VideoSettings StoredSettings::withEdited(const std::vector<std::string>& edited,
                                                         VideoSettings base) const {
  return {editedValue(profile_, edited, base.profile), editedValue(frameRate_, edited, base.frameRate),
          editedValue(videoCodec_, edited, base.codec), editedValue(bitRate_, edited, base.bitRate),
          editedValue(videoEncoderKind_, edited, base.encoderKind)};
}

void StoredSettings::overwriteRefusedEdits() {
  forEachVideoSetting([this]<class Value>(const Setting<Value>& setting) {
    const auto stored = preferences_->value(setting.key);
    if (stored && parse<Value>(*stored)) preferences_->set(setting.key, storedForm(setting.value.get()));
  });
}

}  // namespace kestrune
