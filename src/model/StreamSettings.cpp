#include "model/StreamSettings.h"

#include "platform/Bundle.h"

namespace kestrune {
namespace {

template <class Enumeration, std::size_t count>
std::string_view pick(const std::array<std::string_view, count>& texts, Enumeration value) {
  static_assert(count == AllCases<Enumeration>::values.size());
  return texts.at(static_cast<std::size_t>(value));
}

using Two = std::array<std::string_view, 2>;
using Three = std::array<std::string_view, 3>;

}  // namespace

std::string_view rawValue(StreamDisplayMode mode) {
  return pick(Two{"mainDisplay", "virtualDisplay"}, mode);
}
std::string_view rawValue(StreamProfile profile) {
  return pick(Three{"high", "balanced", "safe"}, profile);
}
std::string_view rawValue(StreamVideoCodec codec) {
  return pick(Two{"h264", "hevc"}, codec);
}
std::string_view rawValue(StreamBitRate bitRate) {
  return pick(Three{"low", "medium", "high"}, bitRate);
}
std::string_view rawValue(StreamVideoEncoderKind kind) {
  return pick(Three{"automatic", "hardware", "software"}, kind);
}
std::string_view rawValue(AudioChannelMode mode) {
  return pick(Two{"stereo", "mono"}, mode);
}

int framesPerSecond(StreamFrameRate frameRate) {
  constexpr std::array rates{24, 30, 60};
  return rates.at(static_cast<std::size_t>(frameRate));
}

std::optional<StreamFrameRate> frameRateFromRawValue(std::int64_t raw) {
  for (const auto value : AllCases<StreamFrameRate>::values) {
    if (framesPerSecond(value) == raw) return value;
  }
  return std::nullopt;
}

std::string title(StreamDisplayMode mode) {
  return localized(pick(Two{"Main Display", "Virtual Mac Display"}, mode));
}
std::string title(StreamProfile profile) {
  return localized(pick(Three{"900p", "720p — Recommended", "540p"}, profile));
}
std::string title(StreamFrameRate frameRate) {
  return localized(pick(Three{"24 fps — Lower CPU", "30 fps — Recommended", "60 fps — Smoother"}, frameRate));
}
std::string title(StreamVideoCodec codec) {
  return localized(pick(Two{"H.264", "H.265 (Experimental)"}, codec));
}
std::string title(StreamBitRate bitRate) {
  return localized(pick(Three{"Low — 2 Mbps", "Medium — 4 Mbps", "High — 6 Mbps"}, bitRate));
}
std::string title(StreamVideoEncoderKind kind) {
  return localized(
      pick(Three{"Automatic — Hardware preferred", "Apple hardware", "CPU — Apple software"}, kind));
}

}  // namespace kestrune
