// One piece of 20 ms on its way from the sound server to the store, by encoding and rate. A time of 20 us is
// a thousandth of one processor.

#include <benchmark/benchmark.h>

#include "capture/PCMConverter.h"
#include "capture/PCMSamples.h"
#include "platform/linux/audio/SoxrSampleRateConverter.h"

namespace kestrune {
namespace {

AudioSample piece(AudioFormat::Encoding encoding, int rate, int channels) {
  AudioSample sample;
  sample.format = AudioFormat{.encoding = encoding, .sampleRate = rate, .channels = channels};
  sample.frameCount = rate / 50;
  std::vector<std::uint8_t>& data = sample.data;
  data.resize(bytesPerSample(encoding) * static_cast<std::size_t>(sample.frameCount * channels));
  // Bytes up to 0x3B give finite floats within full scale.
  for (std::size_t i = 0; i < data.size(); ++i) data[i] = static_cast<std::uint8_t>(i * 7 % 0x3C);
  return sample;
}

void convert(benchmark::State& state, AudioFormat::Encoding encoding, int rate, int channels,
             AudioChannelMode mode) {
  PCMConverter converter(std::make_shared<linux_platform::SoxrSampleRateConverterFactory>());
  const AudioSample sample = piece(encoding, rate, channels);
  for (auto unused : state) benchmark::DoNotOptimize(converter.convert(sample, mode));
}

void quantizeAlone(benchmark::State& state, AudioChannelMode mode) {
  std::vector<float> left(960);
  std::vector<float> right(960);
  for (std::size_t i = 0; i < left.size(); ++i) left[i] = right[i] = static_cast<float>(i) / 1000.0F - 0.5F;
  for (auto unused : state) benchmark::DoNotOptimize(quantize(left, right, mode));
  state.SetItemsProcessed(static_cast<std::int64_t>(state.iterations() * left.size()));
}

using Encoding = AudioFormat::Encoding;
constexpr auto kStereo = AudioChannelMode::stereo;
constexpr auto kMono = AudioChannelMode::mono;

BENCHMARK_CAPTURE(quantizeAlone, stereo, kStereo);
BENCHMARK_CAPTURE(quantizeAlone, mono, kMono);
BENCHMARK_CAPTURE(convert, float32_48000_stereo, Encoding::float32, 48000, 2, kStereo);
BENCHMARK_CAPTURE(convert, float32_48000_to_mono, Encoding::float32, 48000, 2, kMono);
BENCHMARK_CAPTURE(convert, signed16_48000_stereo, Encoding::signed16, 48000, 2, kStereo);
BENCHMARK_CAPTURE(convert, signed24_48000_six_channels, Encoding::signed24, 48000, 6, kStereo);
BENCHMARK_CAPTURE(convert, signed16_44100_stereo, Encoding::signed16, 44100, 2, kStereo);
BENCHMARK_CAPTURE(convert, float32_192000_stereo, Encoding::float32, 192000, 2, kStereo);

}  // namespace
}  // namespace kestrune
