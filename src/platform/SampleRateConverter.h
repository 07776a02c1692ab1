#pragma once

#include <cstddef>
#include <memory>
#include <span>

namespace kestrune {

/// Changes the sample rate of one continuous signal. Keeps its state from call to call, so that pieces of any
/// length join without a seam. One caller at a time.
class SampleRateConverter {
 public:
  virtual ~SampleRateConverter() = default;
  /// Takes `inputFrames` frames of each channel and gives at most `capacity` frames to each output, which is
  /// the number returned; what does not fit, or needs later input, is held back for the next call. `capacity`
  /// has room for the input's share at least. As many inputs and outputs as channels. Inputs are finite.
  /// Throws an Error.
  virtual std::size_t convert(std::span<const float* const> inputs, std::size_t inputFrames,
                              std::span<float* const> outputs, std::size_t capacity) = 0;
};

/// Any thread may call.
class SampleRateConverterFactory {
 public:
  virtual ~SampleRateConverterFactory() = default;
  /// Rates in frames per second. Throws an Error if there is no converter for them.
  virtual std::unique_ptr<SampleRateConverter> create(int inputRate, int outputRate, int channels) = 0;
};

}  // namespace kestrune
