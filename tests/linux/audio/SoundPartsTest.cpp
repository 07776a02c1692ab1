#include <gtest/gtest.h>
#include <opus.h>

#include <algorithm>
#include <cstring>
#include <random>

#include "Tone.h"
#include "capture/PCMConverter.h"
#include "platform/linux/audio/AudioTimeline.h"
#include "platform/linux/audio/LibopusCompressor.h"
#include "platform/linux/audio/SampleHandover.h"
#include "platform/linux/audio/SoxrSampleRateConverter.h"
#include "support/ManualTime.h"

namespace kestrune::linux_platform {
namespace {

using testing::measure;
using testing::tone;

TEST(AudioTimelineTest, SmoothsJitterAndFollowsADriftingClock) {
  AudioTimeline timeline(48000);
  std::mt19937 random(7);
  std::uniform_int_distribution<std::int64_t> jitter(-3000, 3000);
  std::int64_t last = 0;
  for (std::int64_t i = 0; i < 50 * 600; ++i) {
    const std::int64_t truth = 1'000'000 + i * 20'004;  // 200 parts per million slow
    if (i % 25 == 0) timeline.measured(truth + jitter(random));
    const std::int64_t time = timeline.stamp(960);
    if (i > 250) {
      ASSERT_NEAR(static_cast<double>(time), static_cast<double>(truth), 3400);
      ASSERT_NEAR(static_cast<double>(time - last), 20'004, 1500);
    }
    last = time;
  }
}

TEST(AudioTimelineTest, TakesOverAJumpAtOnceButNeverGoesBack) {
  AudioTimeline timeline(48000);
  const auto stamped = [&timeline](std::int64_t measured) {
    timeline.measured(measured);
    return timeline.stamp(960);
  };
  EXPECT_EQ(stamped(1'000'000), 1'000'000);
  EXPECT_EQ(timeline.stamp(960), 1'020'000);
  EXPECT_EQ(stamped(7'200'000'000), 7'200'000'000);
  EXPECT_EQ(stamped(5'000'000), 7'200'000'000);
  timeline.restart();
  EXPECT_FALSE(timeline.hasBegun());
  EXPECT_EQ(stamped(7'200'050'000), 7'200'050'000);
}

TEST(SampleHandoverTest, AReceiverThatWasHeldUpGetsTheNewestSecondAndThenGoesOn) {
  const auto time = ManualTime::make();
  std::vector<std::int64_t> received;
  const auto handover = std::make_shared<SampleHandover>(time->makeQueue(), [&](const AudioSample& sample) {
    received.push_back(*sample.presentationMicroseconds);
  });
  AudioTimeline timeline(48000);
  timeline.measured(0);
  const auto push = [&](int count) {
    for (; count > 0; --count) {
      AudioSample sample;
      sample.presentationMicroseconds = timeline.stamp(960);
      handover->push(std::move(sample));
    }
  };
  push(1);
  time->runReady();
  push(200);  // while the receiver stands still
  time->runReady();
  push(1);
  time->runReady();
  std::vector<std::int64_t> expected{0};
  for (std::int64_t piece = 151; piece <= 201; ++piece) expected.push_back(piece * 20'000);
  EXPECT_EQ(received, expected);
  push(3);
  handover->close();
  time->runReady();
  EXPECT_EQ(received, expected);
}

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

TEST(LibopusCompressorTest, WhatItMakesDecodesToTheSameTone) {
  const auto compressor = LibopusCompressorFactory().create(1, 160'000);
  ASSERT_TRUE(compressor);
  const std::unique_ptr<OpusDecoder, decltype(&opus_decoder_destroy)> decoder(
      opus_decoder_create(48'000, 1, nullptr), &opus_decoder_destroy);
  const auto input = tone(997, 0.5, 48'000U * 2, 48'000);
  std::vector<double> output;
  std::size_t bytes = 0;
  for (std::size_t begin = 0; begin < input.size(); begin += 960) {
    std::array<std::int16_t, 960> samples{};
    for (std::size_t i = 0; i < 960; ++i) samples[i] = static_cast<std::int16_t>(input[begin + i] * 32767);
    const Bytes packet = compressor->compress(samples);
    bytes += packet.size();
    ASSERT_EQ(opus_decode(decoder.get(), packet.data(), static_cast<opus_int32>(packet.size()),
                          samples.data(), 960, 0),
              960);
    output.insert(output.end(), samples.begin(), samples.end());
  }
  EXPECT_NEAR(measure(std::span(output).subspan(48'000), 997).amplitude, 0.5 * 32767, 100);
  EXPECT_LE(bytes, 2U * 160'000 / 8 * 11 / 10);
  EXPECT_ANY_THROW(compressor->compress(std::array<std::int16_t, 480>{}));
  EXPECT_FALSE(LibopusCompressorFactory().create(3, 160'000));
}

}  // namespace
}  // namespace kestrune::linux_platform
