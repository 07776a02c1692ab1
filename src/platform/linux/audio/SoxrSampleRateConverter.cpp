#include "platform/linux/audio/SoxrSampleRateConverter.h"

#include <soxr.h>

#include <string>
#include <vector>

#include "runtime/Error.h"

namespace kestrune::linux_platform {
namespace {

class SoxrError final : public Error {
 public:
  explicit SoxrError(const char* text) : text_(text) {}
  std::string localizedDescription() const override { return text_; }
  const char* what() const noexcept override { return text_.c_str(); }

 private:
  std::string text_;
};

class SoxrSampleRateConverter final : public SampleRateConverter {
 public:
  SoxrSampleRateConverter(int inputRate, int outputRate, int channels) {
    const soxr_io_spec_t formats = soxr_io_spec(SOXR_FLOAT32_S, SOXR_FLOAT32_S);
    const soxr_quality_spec_t quality = soxr_quality_spec(SOXR_HQ, 0);
    soxr_runtime_spec_t runtime = soxr_runtime_spec(1);
    // The smallest blocks: the delay counts here, and the cost is nothing beside a picture's.
    runtime.log2_min_dft_size = 8;
    runtime.log2_large_dft_size = 10;
    soxr_error_t failure = nullptr;
    resampler_ = soxr_create(inputRate, outputRate, static_cast<unsigned>(channels), &failure, &formats,
                             &quality, &runtime);
    if (failure == nullptr && resampler_ != nullptr) return;
    soxr_delete(resampler_);
    throw SoxrError(failure != nullptr ? failure : "no resampler");
  }
  ~SoxrSampleRateConverter() override { soxr_delete(resampler_); }

  std::size_t convert(std::span<const float* const> inputs, std::size_t inputFrames,
                      std::span<float* const> outputs, std::size_t capacity) override {
    outputs_.assign(outputs.begin(), outputs.end());
    std::size_t taken = 0;
    std::size_t given = 0;
    const soxr_error_t failure =
        soxr_process(resampler_, inputs.data(), inputFrames, &taken, outputs_.data(), capacity, &given);
    if (failure != nullptr) throw SoxrError(failure);
    return given;
  }

 private:
  soxr_t resampler_ = nullptr;
  std::vector<void*> outputs_;
};

}  // namespace

std::unique_ptr<SampleRateConverter> SoxrSampleRateConverterFactory::create(int inputRate, int outputRate,
                                                                            int channels) {
  return std::make_unique<SoxrSampleRateConverter>(inputRate, outputRate, channels);
}

}  // namespace kestrune::linux_platform
