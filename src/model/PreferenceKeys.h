#pragma once

#include <string_view>

namespace kestrune::preference_keys {

inline constexpr std::string_view kProfile = "stream.profile";
inline constexpr std::string_view kFrameRate = "stream.frameRate";
inline constexpr std::string_view kVideoCodec = "stream.videoCodec";
inline constexpr std::string_view kBitRate = "stream.bitRate";
inline constexpr std::string_view kVideoEncoderKind = "stream.videoEncoderKind";
inline constexpr std::string_view kAudioChannelMode = "stream.audioChannelMode";
inline constexpr std::string_view kDisplayMode = "stream.displayMode";
inline constexpr std::string_view kBrowserStartURL = "browserDisplay.startURL";
inline constexpr std::string_view kPreventMacSleep = "app.preventMacSleep";
inline constexpr std::string_view kHostedServiceURL = "hosted.serviceURL";
inline constexpr std::string_view kPermissionSetupStarted = "permissions.setupStarted";
inline constexpr std::string_view kEnableTeslaAccessAfterSetup = "permissions.enableTeslaAccessAfterSetup";
inline constexpr std::string_view kPermissionResetRecommended = "permissions.resetRecommended";
inline constexpr std::string_view kLastLaunchedBuild = "permissions.lastLaunchedBuild";

}  // namespace kestrune::preference_keys
