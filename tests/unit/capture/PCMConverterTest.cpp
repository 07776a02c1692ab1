#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <limits>

#include "capture/PCMConverter.h"
#include "capture/PCMSamples.h"

namespace kestrune {
namespace {

using Encoding = AudioFormat::Encoding;

constexpr float kNaN = std::numeric_limits<float>::quiet_NaN();
constexpr float kInfinity = std::numeric_limits<float>::infinity();

/// Makes resamplers that give every other frame of their input.
class HalvingFactory final : public SampleRateConverterFactory {
 public:
  int created = 0;
  int channels = 0;
  std::vector<float> seen;  // of the first channel, across calls

  std::unique_ptr<SampleRateConverter> create(int, int, int channelsOfConverter) override {
    ++created;
    channels = channelsOfConverter;
    return std::make_unique<Halving>(*this);
  }

 private:
  struct Halving final : SampleRateConverter {
    explicit Halving(HalvingFactory& owner) : factory(owner) {}
    std::size_t convert(std::span<const float* const> inputs, std::size_t frames,
                        std::span<float* const> outputs, std::size_t capacity) override {
      EXPECT_GE(capacity, (frames + 1) / 2 + 32);
      factory.seen.insert(factory.seen.end(), inputs[0], inputs[0] + frames);
      for (std::size_t channel = 0; channel < inputs.size(); ++channel) {
        for (std::size_t i = 0; i < frames / 2; ++i) outputs[channel][i] = inputs[channel][2 * i];
      }
      return frames / 2;
    }
    HalvingFactory& factory;
  };
};

AudioSample floats(int channels, const std::vector<float>& values, int sampleRate = 48000) {
  AudioSample sample;
  sample.format = AudioFormat{Encoding::float32, false, true, sampleRate, channels};
  sample.data.resize(values.size() * sizeof(float));
  if (!values.empty()) std::memcpy(sample.data.data(), values.data(), sample.data.size());
  sample.frameCount = static_cast<int>(values.size()) / channels;
  return sample;
}

std::vector<int> valuesOf(const AudioPCMChunk& chunk) {
  std::vector<int> values;
  for (std::size_t i = 0; i + 1 < chunk.pcm.size(); i += 2) {
    values.push_back(static_cast<std::int16_t>(chunk.pcm[i] | chunk.pcm[i + 1] << 8));
  }
  return values;
}

class PCMConverterTest : public ::testing::Test {
 protected:
  std::vector<int> converted(const AudioSample& sample, AudioChannelMode mode = AudioChannelMode::stereo) {
    return valuesOf(converter.convert(sample, mode));
  }
  std::string failureOf(const AudioSample& sample) {
    try {
      converter.convert(sample, AudioChannelMode::stereo);
    } catch (const PCMConversionError& error) {
      return error.localizedDescription();
    }
    return "none";
  }

  std::shared_ptr<HalvingFactory> resamplers = std::make_shared<HalvingFactory>();
  PCMConverter converter{resamplers};
};

TEST_F(PCMConverterTest, QuantizesAtTheEdgesAsInTheMiddle) {
  // Half a step less the smallest difference: to be rounded down, where adding a half would round up.
  float belowHalf = 0.5F / 32767.0F;
  while (belowHalf * 32767.0F >= 0.5F) belowHalf = std::nextafter(belowHalf, 0.0F);
  std::vector<float> input{1, 1.5F, -1, -7, -0.999F, kNaN, kInfinity, -kInfinity, belowHalf, 0.5F, -0.5F};
  std::vector<int> expected{32767, 32767, -32768, -32768, -32734, -32768, 32767, -32768, 0, 16384, -16384};
  // Many enough for the vectors and for the rest behind them, against the library's own rounding.
  for (int i = -70000; i <= 70000; ++i) {
    input.push_back(static_cast<float>(i) / 70001.0F);
    expected.push_back(static_cast<int>(std::round(input.back() * 32767.0F)));
  }
  EXPECT_EQ(converted(floats(1, input), AudioChannelMode::mono), expected);
  EXPECT_EQ(converted(floats(2, input)), expected);
}

TEST_F(PCMConverterTest, MapsChannelsToTheChosenMode) {
  EXPECT_EQ(converted(floats(1, {0.5F, -0.5F})), (std::vector<int>{16384, 16384, -16384, -16384}));
  EXPECT_EQ(converted(floats(2, {1, 0, -0.5F, 0}), AudioChannelMode::mono), (std::vector<int>{16384, -8192}));
  const auto surround = floats(6, {0.5F, 0, 1, 1, 1, 1});
  EXPECT_EQ(converted(surround), (std::vector<int>{16384, 0}));
  EXPECT_EQ(converted(surround, AudioChannelMode::mono), std::vector<int>{8192});

  auto sample = floats(2, std::vector<float>(960));
  using Micros = std::pair<std::optional<std::int64_t>, std::uint64_t>;
  for (const auto& [time, expected] :
       {Micros{7'201'000'000, 7'201'000'000}, Micros{-3, 0}, Micros{std::nullopt, 0}}) {
    sample.presentationMicroseconds = time;
    const auto mono = converter.convert(sample, AudioChannelMode::mono);
    EXPECT_EQ(mono.captureTimeMicroseconds, expected);
    EXPECT_EQ(std::tuple(mono.channels, mono.frameCount, mono.sampleRate), std::tuple(1, 480, 48000));
  }
}

TEST_F(PCMConverterTest, ReadsEveryEncodingInBothOrdersAndLayouts) {
  // Half of full scale on the left, minus a quarter on the right, in the bytes of each encoding, low byte
  // first.
  struct Expected {
    Encoding encoding;
    Bytes left, right;
  };
  const std::vector<Expected> all{
      {Encoding::signed8, {0x40}, {0xE0}},
      {Encoding::unsigned8, {0xC0}, {0x60}},
      {Encoding::signed16, {0x00, 0x40}, {0x00, 0xE0}},
      {Encoding::signed24, {0, 0, 0x40}, {0, 0, 0xE0}},
      {Encoding::signed24in32, {0, 0, 0x40, 0x77}, {0, 0, 0xE0, 0x99}},
      {Encoding::signed32, {0, 0, 0, 0x40}, {0, 0, 0, 0xE0}},
      {Encoding::float32, {0, 0, 0, 0x3F}, {0, 0, 0x80, 0xBE}},
      {Encoding::float64, {0, 0, 0, 0, 0, 0, 0xE0, 0x3F}, {0, 0, 0, 0, 0, 0, 0xD0, 0xBF}},
  };
  const int frames = 37;
  const auto check = [&](const Expected& one, AudioFormat format) {
    AudioSample sample;
    sample.format = format;
    sample.frameCount = frames;
    std::vector<int> expected;
    for (int i = 0; i < frames * format.channels; ++i) {
      const int channel = format.isInterleaved ? i % format.channels : i / frames;
      Bytes bytes = channel == 0 ? one.left : one.right;
      if (format.isBigEndian) std::reverse(bytes.begin(), bytes.end());
      sample.data.insert(sample.data.end(), bytes.begin(), bytes.end());
    }
    for (int i = 0; i < 2 * frames; ++i)
      expected.push_back(i % 2 == 0 || format.channels == 1 ? 16384 : -8192);
    EXPECT_EQ(converted(sample), expected) << static_cast<int>(one.encoding) << format.channels;
  };
  for (const Expected& one : all) {
    for (const int channels : {1, 2, 3}) {
      for (const int layout : {0, 1, 2, 3}) {
        check(one, {one.encoding, layout % 2 == 1, layout < 2, 48000, channels});
      }
    }
  }
}

TEST_F(PCMConverterTest, RefusesWhatItCannotReadAndGoesOn) {
  constexpr int kHuge = std::numeric_limits<int>::max();
  const std::string unreadable = "Unable to read captured audio samples (OSStatus ";
  const std::string notPCM = "The captured audio format is not PCM.";
  const std::string noConverter = "Unable to create the 48 kHz audio converter.";
  const auto refusal = [this](AudioFormat format, int frames = 2) {
    AudioSample sample = floats(2, {0, 0, 0, 0});
    sample.format = format;
    sample.frameCount = frames;
    return failureOf(sample);
  };
  for (const auto encoding : {Encoding::aLaw, Encoding::muLaw, Encoding::compressed}) {
    EXPECT_EQ(refusal({encoding, false, true, 48000, 2}), notPCM);
  }
  EXPECT_EQ(refusal({Encoding::float32, false, true, 48000, 0}), notPCM);
  EXPECT_EQ(refusal({Encoding::float32, false, true, 48000, kHuge}), unreadable + "-12742).");
  EXPECT_EQ(refusal({Encoding::float32, false, true, 48000, 2}, 3), unreadable + "-12742).");
  for (const int rate : {0, -48000, 1, 10'000'000}) {
    EXPECT_EQ(refusal({Encoding::float32, false, true, rate, 2}), noConverter) << rate;
  }
  EXPECT_EQ(failureOf({}), "The captured audio format is unavailable.");
  EXPECT_EQ(converted(floats(1, {}), AudioChannelMode::mono), std::vector<int>{});
}

TEST_F(PCMConverterTest, KeepsTheResamplerAsLongAsTheFormatStays) {
  const auto fast = floats(2, {0.5F, 0, 0.25F, 0, 0.5F, 0, 0.25F, 0}, 96000);
  EXPECT_EQ(converted(fast), (std::vector<int>{16384, 0, 16384, 0}));
  converted(fast);
  EXPECT_EQ(resamplers->created, 1);

  converted(floats(2, {0, 0}));  // another format, without a resampler
  converted(fast);
  EXPECT_EQ(resamplers->created, 2);
  converter.clearCaches();
  converted(fast);
  EXPECT_EQ(resamplers->created, 3);
  converted(floats(6, std::vector<float>(12), 96000));
  EXPECT_EQ(resamplers->channels, 2);
  converted(fast);

  // All held back: a success without sound.
  EXPECT_EQ(converted(floats(2, {0, 0}, 96000)), std::vector<int>{});

  // What is too long to be resampled leaves it as it was.
  const int created = resamplers->created;
  EXPECT_EQ(failureOf(floats(1, std::vector<float>(21UL * 48000))),
            "Unable to create the 48 kHz audio converter.");
  converted(fast);
  EXPECT_EQ(resamplers->created, created);
}

TEST_F(PCMConverterTest, NothingUnendingReachesTheResampler) {
  converted(floats(1, {kNaN, kInfinity, -kInfinity, 3e38F, -3e38F, 0.5F}, 96000));
  EXPECT_EQ(resamplers->seen, (std::vector<float>{0, 0, 0, 64, -64, 0.5F}));
}

}  // namespace
}  // namespace kestrune
