#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace kestrune {

/// The settings of a stream. The order of the cases is their index, which the derived numbers use; the raw
/// values are the stored and the wire forms. `fromRawValue` gives nothing for an unknown raw value. Titles
/// are localized.

enum class StreamDisplayMode { mainDisplay, virtualDisplay };
enum class StreamProfile { high, balanced, safe };
/// The value of a case is its index, not its rate; framesPerSecond() gives the rate, which is the raw value.
enum class StreamFrameRate { fps24, fps30, fps60 };
enum class StreamVideoCodec { h264, hevc };
enum class StreamBitRate { low, medium, high };
enum class StreamVideoEncoderKind { automatic, hardware, software };
enum class AudioChannelMode { stereo, mono };

/// All cases of a settings enumeration in the order of their index.
template <class Enumeration>
struct AllCases;
template <>
struct AllCases<StreamDisplayMode> {
  static constexpr std::array values{StreamDisplayMode::mainDisplay, StreamDisplayMode::virtualDisplay};
};
template <>
struct AllCases<StreamProfile> {
  static constexpr std::array values{StreamProfile::high, StreamProfile::balanced, StreamProfile::safe};
};
template <>
struct AllCases<StreamFrameRate> {
  static constexpr std::array values{StreamFrameRate::fps24, StreamFrameRate::fps30, StreamFrameRate::fps60};
};
template <>
struct AllCases<StreamVideoCodec> {
  static constexpr std::array values{StreamVideoCodec::h264, StreamVideoCodec::hevc};
};
template <>
struct AllCases<StreamBitRate> {
  static constexpr std::array values{StreamBitRate::low, StreamBitRate::medium, StreamBitRate::high};
};
template <>
struct AllCases<StreamVideoEncoderKind> {
  static constexpr std::array values{StreamVideoEncoderKind::automatic, StreamVideoEncoderKind::hardware,
                                     StreamVideoEncoderKind::software};
};
template <>
struct AllCases<AudioChannelMode> {
  static constexpr std::array values{AudioChannelMode::stereo, AudioChannelMode::mono};
};

template <class Enumeration>
constexpr int caseIndex(Enumeration value) {
  return static_cast<int>(value);
}

std::string_view rawValue(StreamDisplayMode mode);
std::string_view rawValue(StreamProfile profile);
std::string_view rawValue(StreamVideoCodec codec);
std::string_view rawValue(StreamBitRate bitRate);
std::string_view rawValue(StreamVideoEncoderKind kind);
std::string_view rawValue(AudioChannelMode mode);
/// The raw value of a frame rate: 24, 30 or 60.
int framesPerSecond(StreamFrameRate frameRate);

template <class Enumeration>
std::optional<Enumeration> fromRawValue(std::string_view raw) {
  for (const auto value : AllCases<Enumeration>::values) {
    if (rawValue(value) == raw) return value;
  }
  return std::nullopt;
}
std::optional<StreamFrameRate> frameRateFromRawValue(std::int64_t raw);

std::string title(StreamDisplayMode mode);
std::string title(StreamProfile profile);
std::string title(StreamFrameRate frameRate);
std::string title(StreamVideoCodec codec);  // the display name
std::string title(StreamBitRate bitRate);
std::string title(StreamVideoEncoderKind kind);

/// Longest side of the encoded picture in pixels: 1600 - 320 * index.
constexpr int longEdgeLimit(StreamProfile profile) {
  return 1600 - 320 * caseIndex(profile);
}
/// Target rate in bits per second: 2,000,000 * (index + 1).
constexpr std::int64_t targetBitsPerSecond(StreamBitRate bitRate) {
  return std::int64_t{2'000'000} * (caseIndex(bitRate) + 1);
}
constexpr int channelCount(AudioChannelMode mode) {
  return mode == AudioChannelMode::stereo ? 2 : 1;
}

}  // namespace kestrune
