// Annex B packaging, and what one picture costs each encoder by content. `Reference` is x264 with its own
// preset for the purpose (ultrafast, zerolatency) and nothing known of what changed: the ratio of two lines
// of one run is what counts. Times are processor time; "bytes" is the mean size of a picture.

#include <benchmark/benchmark.h>
#include <x264.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <vector>

#include "capture/AnnexB.h"
#include "capture/StreamVideoEncoder.h"
#include "platform/linux/video/SoftwareCompressionSessionFactory.h"
#include "support/FakeCompression.h"
#include "support/SyntheticScreen.h"

namespace kestrune {
namespace {

void BM_AnnexBUnits(benchmark::State& state) {
  const auto size = static_cast<std::size_t>(state.range(0));
  Bytes sample{static_cast<std::uint8_t>(size >> 24), static_cast<std::uint8_t>(size >> 16),
               static_cast<std::uint8_t>(size >> 8), static_cast<std::uint8_t>(size)};
  sample.resize(size + 4, 0x5a);
  for (auto _ : state) benchmark::DoNotOptimize(annexb::annexBUnits(sample, 4));
  state.SetBytesProcessed(static_cast<std::int64_t>(sample.size()) * state.iterations());
}
BENCHMARK(BM_AnnexBUnits)->Arg(100)->Arg(10'000)->Arg(200'000);

void BM_AnnexBAssembleKeyframe(benchmark::State& state) {
  Bytes data{0, 2, 0, 0};
  data.resize(4 + 0x20000, 0x5a);
  EncodedSample sample = *makeFakeSample(data, true);
  sample.format = FakeFormatDescription::withSets({Bytes(40, 0x67), Bytes(5, 0x68)});
  for (auto _ : state) benchmark::DoNotOptimize(annexb::assemble(sample, StreamVideoCodec::h264));
}
BENCHMARK(BM_AnnexBAssembleKeyframe);

struct Size {
  int width;
  int height;
};

/// The pictures of one content, shown again and again, and the rate at which they come.
struct Content {
  Size size;
  StreamFrameRate frameRate;
  std::vector<std::shared_ptr<PixelBuffer>> pictures;
  std::size_t warmUp;  // pictures before the measurement
};

constexpr std::size_t kLoop = 60;

Content still(Size size) {
  SyntheticScreen screen(size.width, size.height);
  return {size, StreamFrameRate::fps60, {screen.text(0)}, 60};
}
Content caret(Size size) {
  SyntheticScreen screen(size.width, size.height);
  return {size, StreamFrameRate::fps60, {screen.caret(true), screen.caret(false)}, 60};
}
Content video(Size size) {
  SyntheticScreen screen(size.width, size.height);
  Content content{size, StreamFrameRate::fps30, {}, 10};
  for (std::size_t frame = 0; frame < kLoop; ++frame) {
    content.pictures.push_back(screen.video(static_cast<int>(frame), 1280, 720));
  }
  return content;
}
Content scrolling(Size size) {
  SyntheticScreen screen(size.width, size.height);
  Content content{size, StreamFrameRate::fps60, {}, 10};
  for (std::size_t frame = 0; frame < kLoop; ++frame) {
    content.pictures.push_back(screen.text(static_cast<int>(frame) * 3));
  }
  return content;
}

void runSession(benchmark::State& state, StreamVideoCodec codec, Content content) {
  linux_platform::SoftwareCompressionSessionFactory factory;
  const auto type = codec == StreamVideoCodec::hevc ? VideoCodecType::hvc1 : VideoCodecType::avc1;
  auto made = factory.create(content.size.width, content.size.height, type, std::nullopt);
  for (const auto& property :
       compressionProperties({StreamProfile::high, content.frameRate, codec, StreamBitRate::medium,
                              StreamVideoEncoderKind::software})) {
    made.session->setProperty(property);
  }
  made.session->prepareToEncode();
  const std::int64_t interval = 1'000'000 / framesPerSecond(content.frameRate);
  const bool isStill = content.pictures.size() == 1;
  std::uint64_t number = 0;
  std::size_t bytes = 0;
  const auto encode = [&] {
    const auto& image = content.pictures[number % content.pictures.size()];
    image->changes->sequence = number;
    if (isStill && number > 0) image->changes->rectangles.clear();
    const auto time = static_cast<std::int64_t>(number++) * interval;
    made.session->encode(image, time, interval, false, [&](MediaStatus, const auto& sample) {
      bytes += sample ? sample->data->length() : 0;
    });
  };
  while (number < content.warmUp) encode();
  bytes = 0;
  for (auto _ : state) encode();
  state.counters["bytes"] =
      benchmark::Counter(static_cast<double>(bytes), benchmark::Counter::kAvgIterations);
  made.session->invalidate();
}

void runReference(benchmark::State& state, Content content) {
  x264_param_t parameters;
  x264_param_default_preset(&parameters, "ultrafast", "zerolatency");
  parameters.i_width = content.size.width;
  parameters.i_height = content.size.height;
  parameters.i_csp = X264_CSP_NV12;
  parameters.i_threads = 1;
  parameters.i_log_level = X264_LOG_NONE;
  parameters.i_fps_num = static_cast<std::uint32_t>(framesPerSecond(content.frameRate));
  parameters.i_fps_den = 1;
  parameters.i_keyint_max = 2 * framesPerSecond(content.frameRate);
  parameters.rc.i_rc_method = X264_RC_ABR;
  parameters.rc.i_bitrate = 4000;
  parameters.rc.i_vbv_max_bitrate = 6000;
  parameters.rc.i_vbv_buffer_size = 6000;
  x264_param_apply_profile(&parameters, "baseline");
  x264_t* encoder = x264_encoder_open(&parameters);
  std::int64_t number = 0;
  std::size_t bytes = 0;
  const auto encode = [&] {
    const auto& image = content.pictures[static_cast<std::size_t>(number) % content.pictures.size()];
    x264_picture_t input;
    x264_picture_t output;
    x264_picture_init(&input);
    input.i_pts = number++;
    input.img.i_csp = X264_CSP_NV12;
    input.img.i_plane = 2;
    for (std::size_t plane = 0; plane < 2; ++plane) {
      input.img.plane[plane] = image->plane(plane).data;
      input.img.i_stride[plane] = static_cast<int>(image->plane(plane).stride);
    }
    x264_nal_t* units = nullptr;
    int count = 0;
    bytes += static_cast<std::size_t>(x264_encoder_encode(encoder, &units, &count, &input, &output));
  };
  while (number < static_cast<std::int64_t>(content.warmUp)) encode();
  bytes = 0;
  for (auto _ : state) encode();
  state.counters["bytes"] =
      benchmark::Counter(static_cast<double>(bytes), benchmark::Counter::kAvgIterations);
  x264_encoder_close(encoder);
}

constexpr Size kLarge{1600, 900};
constexpr Size kMedium{1280, 720};

void both(const std::string& name, const std::function<Content(Size)>& make, Size size, int iterations) {
  const auto run = [&](const std::string& kind, std::function<void(benchmark::State&)> body) {
    const std::string full = kind + "/" + name + "/" + std::to_string(size.width);
    benchmark::RegisterBenchmark(full.c_str(),
                                 [body = std::move(body)](benchmark::State& state) { body(state); })
        ->Unit(benchmark::kMillisecond)
        ->Iterations(iterations);
  };
  run("H264", [=](benchmark::State& state) { runSession(state, StreamVideoCodec::h264, make(size)); });
  run("Reference", [=](benchmark::State& state) { runReference(state, make(size)); });
}

const bool kRegistered = [] {
  both("unchanged", still, kLarge, 100);
  both("caret", caret, kLarge, 100);
  both("video720", video, kLarge, 180);
  both("scrolling", scrolling, kLarge, 240);
  both("scrolling", scrolling, kMedium, 240);
  benchmark::RegisterBenchmark("H265/scrolling/1280",
                               [](benchmark::State& state) {
                                 Content content = scrolling(kMedium);
                                 content.frameRate = StreamFrameRate::fps24;
                                 runSession(state, StreamVideoCodec::hevc, std::move(content));
                               })
      ->Unit(benchmark::kMillisecond)
      ->MeasureProcessCPUTime()
      ->UseRealTime()
      ->Iterations(96);
  return true;
}();

}  // namespace
}  // namespace kestrune
