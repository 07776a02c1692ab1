#include <gtest/gtest.h>

#include <cstring>

#include "Tone.h"
#include "capture/PCMConverter.h"
#include "platform/linux/audio/SoxrSampleRateConverter.h"

namespace kestrune::linux_platform {
namespace {

using testing::measure;
using testing::tone;

/// Sends a signal through the converter in pieces of these sizes, again and again; the left channel.
std::vector<double> resampled(const std::vector<float>& signal, int rate,
                              const std::vector<std::size_t>& sizes) {
  PCMConverter converter(std::make_shared<SoxrSampleRateConverterFactory>());
  std::vector<double> result;
  std::size_t piece = 0;
  for (std::size_t done = 0; done < signal.size(); ++piece) {
    const std::size_t count = std::min(sizes[piece % sizes.size()], signal.size() - done);
    AudioSample sample;
    sample.format = AudioFormat{.sampleRate = rate, .channels = 1};
    sample.frameCount = static_cast<int>(count);
    sample.data.resize(count * sizeof(float));
    if (count > 0) std::memcpy(sample.data.data(), signal.data() + done, sample.data.size());
    const AudioPCMChunk chunk = converter.convert(sample, AudioChannelMode::mono);
    for (std::size_t i = 0; i < chunk.pcm.size(); i += 2) {
      result.push_back(static_cast<std::int16_t>(chunk.pcm[i] | chunk.pcm[i + 1] << 8));
    }
    done += count;
  }
  return result;
}

TEST(SoxrSampleRateConverterTest, JoinsPiecesOfAnySizeWithoutASeam) {
  for (const int rate : {8000, 22050, 44100, 88200, 96000, 192000}) {
    const auto seconds = static_cast<std::size_t>(rate) * 4;
    const auto input = tone(997, 0.5, seconds, rate);
    const auto fragment = static_cast<std::size_t>(rate / 50);
    const auto output = resampled(input, rate, {fragment, 1, 0, 3 * fragment, 7, fragment, fragment});
    // At most a tenth of a second is held back.
    ASSERT_GT(output.size(), 48000U * 4 - 4800) << rate;
    ASSERT_LE(output.size(), 48000U * 4) << rate;
    const auto result = measure(std::span(output).subspan(9600, 48000U * 3), 997);
    EXPECT_NEAR(result.amplitude, 0.5 * 32767, 10) << rate;
    EXPECT_LT(result.worstSeam, 4) << rate;
  }
}

TEST(SoxrSampleRateConverterTest, ABadSampleIsGoneAMomentLater) {
  auto input = tone(997, 0.5, 44100 * 2, 44100);
  input[4410] = std::numeric_limits<float>::quiet_NaN();
  input[4411] = std::numeric_limits<float>::infinity();
  const auto output = resampled(input, 44100, {882});
  const auto result = measure(std::span(output).subspan(48000 / 2, 48000), 997);
  EXPECT_NEAR(result.amplitude, 0.5 * 32767, 10);
  EXPECT_LT(result.worstSeam, 4);
}

TEST(SoxrSampleRateConverterTest, KeepsOutWhatTheLowerRateCannotHold) {
  const auto output = resampled(tone(30000, 0.5, 96000 * 2, 96000), 96000, {1920});
  const auto [lowest, highest] = std::minmax_element(output.begin() + 9600, output.end());
  EXPECT_GE(*lowest, -2);
  EXPECT_LE(*highest, 2);
}

}  // namespace
}  // namespace kestrune::linux_platform
