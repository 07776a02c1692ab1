#pragma once

#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "capture/ScreenCaptureService.h"
#include "model/PreferenceKeys.h"
#include "model/StreamSettings.h"
#include "platform/Preferences.h"
#include "runtime/Published.h"

namespace kestrune {

/// One persisted setting: its key, its default, and what a launch does with it.
template <class Value>
struct Setting {
  enum class Launch { readAndWriteBack, read, startAnew };

  std::string_view key;
  Value fallback;  // in force where nothing, or nothing valid, is stored
  Launch launch = Launch::readAndWriteBack;
  Published<Value> value{fallback};
};

/// The start page of a browser whose user has chosen none, and the one of earlier versions, which counts as
/// none.
inline constexpr std::string_view kDefaultStartPage = "https://duckduckgo.com";
inline constexpr std::string_view kFormerStartPage = "https://www.youtube.com";

/// Owns the settings that the user can change. Each is stored at the moment it changes. Main queue only.
class StoredSettings {
 public:
  using VideoSettings = ScreenCaptureService::VideoSettings;

  /// Reads what is stored and writes back what it resolves to; an invalid value is logged and ignored.
  explicit StoredSettings(std::shared_ptr<Preferences> preferences);

  const Observable<StreamProfile>& profile() const { return profile_.value; }
  const Observable<StreamFrameRate>& frameRate() const { return frameRate_.value; }
  const Observable<StreamVideoCodec>& videoCodec() const { return videoCodec_.value; }
  const Observable<StreamBitRate>& bitRate() const { return bitRate_.value; }
  const Observable<StreamVideoEncoderKind>& videoEncoderKind() const { return videoEncoderKind_.value; }
  const Observable<AudioChannelMode>& audioChannelMode() const { return audioChannelMode_.value; }
  const Observable<StreamDisplayMode>& streamDisplayMode() const { return streamDisplayMode_.value; }
  /// As the user wrote it; always one that can be opened.
  const Observable<std::string>& browserStartURL() const { return browserStartURL_.value; }
  const Observable<bool>& preventMacSleep() const { return preventMacSleep_.value; }

  /// The five that a running stream follows.
  VideoSettings video() const;
  void setVideo(const VideoSettings& settings);
  void setPreventMacSleep(bool prevents) { preventMacSleep_.value = prevents; }

  /// Takes over those of the `edited` keys that take effect by themselves. A setting that is stored no more
  /// stays as it is until the next launch.
  void takeEdited(const std::vector<std::string>& edited, bool mayChangeDisplayMode);
  /// `base` with what is stored under those of the `edited` keys that belong to the picture.
  VideoSettings withEdited(const std::vector<std::string>& edited, VideoSettings base) const;
  /// Stores the values in force over edits that were refused. An invalid stored value stays: it may belong to
  /// another version of the program.
  void overwriteRefusedEdits();

 private:
  template <class Visit>
  void forEachVideoSetting(Visit visit);
  template <class Visit>
  void forEachSetting(Visit visit);
  template <class Value>
  Value editedValue(const Setting<Value>& setting, const std::vector<std::string>& edited,
                    Value current) const;

  const std::shared_ptr<Preferences> preferences_;
  Setting<StreamProfile> profile_{preference_keys::kProfile, StreamProfile::balanced};
  Setting<StreamFrameRate> frameRate_{preference_keys::kFrameRate, StreamFrameRate::fps60};
  // A fallback of the codec lasts for one run, and so does the choice of mono.
  Setting<StreamVideoCodec> videoCodec_{preference_keys::kVideoCodec, StreamVideoCodec::hevc,
                                        Setting<StreamVideoCodec>::Launch::startAnew};
  Setting<StreamBitRate> bitRate_{preference_keys::kBitRate, StreamBitRate::medium};
  Setting<StreamVideoEncoderKind> videoEncoderKind_{preference_keys::kVideoEncoderKind,
                                                    StreamVideoEncoderKind::automatic};
  Setting<AudioChannelMode> audioChannelMode_{preference_keys::kAudioChannelMode, AudioChannelMode::stereo,
                                              Setting<AudioChannelMode>::Launch::startAnew};
  Setting<StreamDisplayMode> streamDisplayMode_{preference_keys::kDisplayMode, StreamDisplayMode::mainDisplay,
                                                Setting<StreamDisplayMode>::Launch::read};
  Setting<std::string> browserStartURL_{preference_keys::kBrowserStartURL, std::string(kDefaultStartPage)};
  Setting<bool> preventMacSleep_{preference_keys::kPreventMacSleep, true};
  std::vector<Observation> storing_;
};

}  // namespace kestrune
