#pragma once

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <filesystem>
#include <fstream>
#include <numbers>
#include <span>
#include <vector>

namespace kestrune::testing {

inline constexpr double kRate = 48000;

inline std::vector<float> tone(double frequency, double amplitude, std::size_t frames, double rate = kRate) {
  std::vector<float> samples(frames);
  for (std::size_t i = 0; i < frames; ++i) {
    samples[i] = static_cast<float>(
        amplitude * std::sin(2 * std::numbers::pi * frequency * static_cast<double>(i) / rate));
  }
  return samples;
}

/// Raw interleaved stereo 32-bit floats.
inline void writeStereo(const std::filesystem::path& file, const std::vector<float>& left,
                        const std::vector<float>& right) {
  std::vector<float> both;
  for (std::size_t i = 0; i < left.size(); ++i) both.insert(both.end(), {left[i], right[i]});
  std::ofstream(file, std::ios::binary)
      .write(reinterpret_cast<const char*>(both.data()), static_cast<std::streamsize>(both.size() * 4));
}

struct Measured {
  double amplitude = 0;
  /// The largest difference of a sample to what the two before it announce for this frequency: a sample too
  /// few or too many shows here, wherever it is.
  double worstSeam = 0;
};

/// How much of this very frequency is in the samples, by correlation with a sine and a cosine.
inline Measured measure(std::span<const double> samples, double frequency) {
  const double w = 2 * std::numbers::pi * frequency / kRate;
  Measured result;
  double sine = 0;
  double cosine = 0;
  for (std::size_t i = 0; i < samples.size(); ++i) {
    sine += samples[i] * std::sin(w * static_cast<double>(i));
    cosine += samples[i] * std::cos(w * static_cast<double>(i));
    if (i < 2) continue;
    const double announced = 2 * std::cos(w) * samples[i - 1] - samples[i - 2];
    result.worstSeam = std::max(result.worstSeam, std::abs(samples[i] - announced));
  }
  result.amplitude = 2 * std::hypot(sine, cosine) / static_cast<double>(samples.size());
  return result;
}

}  // namespace kestrune::testing
