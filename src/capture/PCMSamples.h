#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

#include "model/StreamSettings.h"
#include "platform/AudioSample.h"
#include "platform/Bytes.h"

namespace kestrune {

/// Reads `frames` samples, each `step` bytes behind the one before, as 32-bit floats with a full scale of
/// [-1, 1]. `first` needs no alignment. The encoding is linear PCM.
void readSamples(const std::uint8_t* first, std::size_t step, AudioFormat::Encoding encoding,
                 bool isBigEndian, std::span<float> result);

/// Replaces what is not finite by silence and limits the rest to 36 dB above full scale, so that no bad value
/// stays in a filter behind it.
void makeFilterable(std::span<float> samples);

/// Signed 16-bit little-endian samples, interleaved: for stereo left and right, for mono their mean. Both
/// have the same length. -1 and less, and what is not a number, give -32768; 1 and more 32767; all between is
/// scaled by 32767 and rounded to nearest, halves away from zero.
Bytes quantize(std::span<const float> left, std::span<const float> right, AudioChannelMode mode);

}  // namespace kestrune
