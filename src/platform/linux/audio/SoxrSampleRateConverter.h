#pragma once

#include "platform/SampleRateConverter.h"

namespace kestrune::linux_platform {

/// Resamplers of libsoxr: 20 bits, linear phase, flat up to 91 % of the lower rate's band. They hold back 4
/// to 15 ms at the usual rates.
class SoxrSampleRateConverterFactory final : public SampleRateConverterFactory {
 public:
  std::unique_ptr<SampleRateConverter> create(int inputRate, int outputRate, int channels) override;
};

}  // namespace kestrune::linux_platform
