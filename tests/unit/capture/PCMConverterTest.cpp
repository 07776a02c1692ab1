#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <functional>
#include <limits>
#include <numeric>

#include "capture/PCMConverter.h"
#include "capture/PCMSamples.h"

namespace kestrune {
namespace {

using Encoding = AudioFormat::Encoding;
using Case = PCMConversionError::Case;

constexpr float kNaN = std::numeric_limits<float>::quiet_NaN();
constexpr float kInfinity = std::numeric_limits<float>::infinity();

/// Gives every other input frame and holds the last one back; can fail.
class HalvingFactory final : public SampleRateConverterFactory {
 public:
  int created = 0;
  int channels = 0;
  bool refuses = false;
  bool fails = false;
  std::size_t capacity = 0;
  std::vector<float> seen;  // of the first channel, across calls

  std::unique_ptr<SampleRateConverter> create(int, int, int channelsOfConverter) override {
    if (refuses) throw std::runtime_error("no such rate");
    ++created;
    channels = channelsOfConverter;
    return std::make_unique<Halving>(*this);
  }

 private:
  class Halving final : public SampleRateConverter {
   public:
    explicit Halving(HalvingFactory& factory) : factory_(factory) {}
    std::size_t convert(std::span<const float* const> inputs, std::size_t frames,
                        std::span<float* const> outputs, std::size_t capacity) override {
      if (factory_.fails) throw std::runtime_error("it broke");
      factory_.capacity = capacity;
      factory_.seen.insert(factory_.seen.end(), inputs[0], inputs[0] + frames);
      const std::size_t given = frames / 2;
      for (std::size_t channel = 0; channel < inputs.size(); ++channel) {
        for (std::size_t i = 0; i < given; ++i) outputs[channel][i] = inputs[channel][2 * i];
      }
      return given;
    }

   private:
    HalvingFactory& factory_;
  };
};

template <class Value>
AudioSample sampleOf(Encoding encoding, int channels, const std::vector<Value>& values,
                     bool isInterleaved = true, int sampleRate = 48000) {
  AudioSample sample;
  sample.format = AudioFormat{encoding, false, isInterleaved, sampleRate, channels};
  sample.data.resize(values.size() * sizeof(Value));
  std::memcpy(sample.data.data(), values.data(), sample.data.size());
  sample.frameCount = static_cast<int>(sample.data.size() / bytesPerSample(encoding)) / std::max(channels, 1);
  return sample;
}

AudioSample floats(int channels, const std::vector<float>& values, int sampleRate = 48000) {
  return sampleOf(Encoding::float32, channels, values, true, sampleRate);
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
  const std::vector<float> input{1,    1.5F,      -1,         -7,        -0.999F, 0,
                                 kNaN, kInfinity, -kInfinity, belowHalf, 0.5F,    -0.5F};
  const std::vector<int> expected{32767,  32767, -32768, -32768, -32734, 0,
                                  -32768, 32767, -32768, 0,      16384,  -16384};
  // Long enough for the vectors and for the rest behind them.
  std::vector<float> many;
  std::vector<int> manyExpected;
  for (int i = 0; i < 101; ++i) {
    many.insert(many.end(), input.begin(), input.end());
    manyExpected.insert(manyExpected.end(), expected.begin(), expected.end());
  }
  EXPECT_EQ(converted(floats(1, many), AudioChannelMode::mono), manyExpected);
  EXPECT_EQ(converted(floats(2, many)), manyExpected);
}

TEST_F(PCMConverterTest, RoundsEveryValueAsTheLibraryDoes) {
  std::vector<float> input;
  for (int i = -70000; i <= 70000; ++i) input.push_back(static_cast<float>(i) / 70001.0F);
  std::vector<int> expected;
  for (const float value : input) expected.push_back(static_cast<int>(std::round(value * 32767.0F)));
  EXPECT_EQ(converted(floats(1, input), AudioChannelMode::mono), expected);
}

TEST_F(PCMConverterTest, MapsChannelsToTheChosenMode) {
  EXPECT_EQ(converted(floats(1, {0.5F, -0.5F})), (std::vector<int>{16384, 16384, -16384, -16384}));
  EXPECT_EQ(converted(floats(2, {1, 0, -0.5F, 0}), AudioChannelMode::mono), (std::vector<int>{16384, -8192}));
  const auto surround = floats(6, {0.5F, 0, 1, 1, 1, 1});
  EXPECT_EQ(converted(surround), (std::vector<int>{16384, 0}));
  EXPECT_EQ(converted(surround, AudioChannelMode::mono), std::vector<int>{8192});

  const auto stereo = converter.convert(floats(2, std::vector<float>(960)), AudioChannelMode::stereo);
  const auto mono = converter.convert(floats(2, std::vector<float>(960)), AudioChannelMode::mono);
  EXPECT_EQ(stereo.pcm.size(), 1920U);
  EXPECT_EQ(stereo.channels, 2);
  EXPECT_EQ(mono.pcm.size(), 960U);
  EXPECT_EQ(mono.channels, 1);
  EXPECT_EQ(mono.frameCount, 480);
  EXPECT_EQ(mono.sampleRate, 48000);
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
  for (const Expected& one : all) {
    for (const bool isBigEndian : {false, true}) {
      for (const bool isInterleaved : {true, false}) {
        for (const int channels : {1, 2, 3}) {
          AudioSample sample;
          sample.format = AudioFormat{one.encoding, isBigEndian, isInterleaved, 48000, channels};
          sample.frameCount = frames;
          for (int i = 0; i < frames * channels; ++i) {
            const int channel = isInterleaved ? i % channels : i / frames;
            Bytes bytes = channel == 0 ? one.left : one.right;
            if (isBigEndian) std::reverse(bytes.begin(), bytes.end());
            sample.data.insert(sample.data.end(), bytes.begin(), bytes.end());
          }
          std::vector<int> expected;
          for (int i = 0; i < frames; ++i) {
            expected.push_back(16384);
            expected.push_back(channels == 1 ? 16384 : -8192);
          }
          EXPECT_EQ(converted(sample), expected)
              << static_cast<int>(one.encoding) << isBigEndian << isInterleaved << channels;
        }
      }
    }
  }
}

TEST_F(PCMConverterTest, CarriesTheTimeOfTheSampleWhateverItIs) {
  auto sample = floats(1, {0, 0});
  const auto timeOf = [&](std::optional<std::int64_t> time) {
    sample.presentationMicroseconds = time;
    return converter.convert(sample, AudioChannelMode::mono).captureTimeMicroseconds;
  };
  EXPECT_EQ(timeOf(1'000'000), 1'000'000U);
  EXPECT_EQ(timeOf(1'000'000 + 7'200'000'000), 7'201'000'000U);
  EXPECT_EQ(timeOf(5), 5U);
  EXPECT_EQ(timeOf(-3), 0U);
  EXPECT_EQ(timeOf(std::nullopt), 0U);
}

TEST_F(PCMConverterTest, RefusesWhatItCannotReadAndGoesOn) {
  AudioSample nameless = floats(2, {0, 0});
  nameless.format.reset();
  EXPECT_EQ(failureOf(nameless), "The captured audio format is unavailable.");
  for (const Encoding encoding : {Encoding::aLaw, Encoding::muLaw, Encoding::compressed}) {
    AudioSample coded = floats(2, {0, 0});
    coded.format->encoding = encoding;
    EXPECT_EQ(failureOf(coded), "The captured audio format is not PCM.");
  }
  AudioSample noChannels = floats(2, {0, 0});
  noChannels.format->channels = 0;
  EXPECT_EQ(failureOf(noChannels), "The captured audio format is not PCM.");

  AudioSample tooShort = floats(2, {0, 0, 0, 0});
  tooShort.frameCount = 3;
  EXPECT_EQ(failureOf(tooShort), "Unable to read captured audio samples (OSStatus -12742).");
  tooShort.frameCount = -1;
  EXPECT_EQ(failureOf(tooShort), "Unable to read captured audio samples (OSStatus 0).");
  AudioSample manyChannels = floats(2, {0, 0});
  manyChannels.format->channels = std::numeric_limits<int>::max();
  EXPECT_EQ(failureOf(manyChannels), "Unable to read captured audio samples (OSStatus -12742).");

  for (const int rate : {0, -48000, 1, 10'000'000}) {
    EXPECT_EQ(failureOf(floats(2, {0, 0}, rate)), "Unable to create the 48 kHz audio converter.");
  }
  EXPECT_EQ(failureOf(floats(1, std::vector<float>(21UL * 48000))),
            "Unable to create the 48 kHz audio converter.");

  EXPECT_EQ(converted(floats(1, {}), AudioChannelMode::mono), std::vector<int>{});
  AudioSample overLong = floats(1, {0.5F, 0.5F, 0.5F});
  overLong.frameCount = 2;
  EXPECT_EQ(converted(overLong, AudioChannelMode::mono), (std::vector<int>{16384, 16384}));
}

TEST_F(PCMConverterTest, KeepsTheResamplerAsLongAsTheFormatStays) {
  const auto fast = floats(2, {0.5F, 0, 0.25F, 0, 0.5F, 0, 0.25F, 0}, 96000);
  EXPECT_EQ(converted(fast), (std::vector<int>{16384, 0, 16384, 0}));
  EXPECT_EQ(resamplers->capacity, 2U + 32U);
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

  // All held back: a success without sound.
  const auto chunk = converter.convert(floats(2, {0, 0}, 96000), AudioChannelMode::stereo);
  EXPECT_EQ(chunk.frameCount, 0);
  EXPECT_TRUE(chunk.pcm.empty());
}

TEST_F(PCMConverterTest, AFailureLeavesTheResamplerAsItWas) {
  const auto fast = floats(2, std::vector<float>(8), 96000);
  converted(fast);
  resamplers->fails = true;
  EXPECT_EQ(failureOf(fast), "Audio conversion failed: it broke");
  resamplers->fails = false;
  resamplers->refuses = true;
  EXPECT_EQ(failureOf(floats(2, {0, 0}, 44100)), "Unable to create the 48 kHz audio converter.");
  resamplers->refuses = false;
  converted(fast);
  EXPECT_EQ(resamplers->created, 1);
}

TEST_F(PCMConverterTest, NothingUnendingReachesTheResampler) {
  converted(floats(1, {kNaN, kInfinity, -kInfinity, 3e38F, -3e38F, 0.5F}, 96000));
  EXPECT_EQ(resamplers->seen, (std::vector<float>{0, 0, 0, 64, -64, 0.5F}));
}

}  // namespace
}  // namespace kestrune
