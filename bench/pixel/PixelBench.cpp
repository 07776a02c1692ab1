// Scaling and conversion of a screen picture to the encoder's format: ours, and what general libraries take.

#include <benchmark/benchmark.h>
#include <libyuv/convert_from_argb.h>
#include <libyuv/scale_argb.h>

#include <vector>

#include "platform/linux/pixel/BgrxToNv12.h"
#include "platform/linux/pixel/PictureMemory.h"

#ifdef KESTRUNE_SWSCALE
extern "C" {
#include <libswscale/swscale.h>
}
#endif

namespace kestrune::linux_platform {
namespace {

constexpr int kWidth = 1920;
constexpr int kHeight = 1080;

std::vector<std::uint8_t> screen() {
  std::vector<std::uint8_t> bytes(kWidth * kHeight * 4);
  std::uint32_t state = 1;
  for (std::uint8_t& byte : bytes)
    byte = static_cast<std::uint8_t>((state = state * 1664525U + 1013904223U) >> 24);
  return bytes;
}

PixelBuffer makePicture(int width, int height) {
  const PictureMemory memory = allocatePicture(width, height);
  return {width, height, PixelFormat::biPlanar420VideoRange, memory.planes, memory.memory};
}

void ours(benchmark::State& state, const PixelKernels& kernels) {
  const int width = static_cast<int>(state.range(0));
  const int height = static_cast<int>(state.range(1));
  const auto source = screen();
  const PixelBuffer picture = makePicture(width, height);
  BgrxToNv12 converter(kWidth, kHeight, width, height, Placement::letterbox, kernels);
  const BgrxView view{source.data(), kWidth * 4, {0, 0, kWidth, kHeight}};
  for (auto _ : state) converter.convert(view, converter.content(), picture);
}

void oursVectorised(benchmark::State& state) {
  ours(state, bestKernels());
}
void oursPortable(benchmark::State& state) {
  ours(state, portableKernels());
}

void caret(benchmark::State& state) {
  const auto source = screen();
  const PixelBuffer picture = makePicture(1600, 900);
  BgrxToNv12 converter(kWidth, kHeight, 1600, 900, Placement::letterbox);
  const BgrxView view{source.data(), kWidth * 4, {0, 0, kWidth, kHeight}};
  const PixelRect changed = converter.destinationFor({803, 411, 9, 18});
  for (auto _ : state) converter.convert(view, changed, picture);
}

void libyuvBt601(benchmark::State& state) {
  const int width = static_cast<int>(state.range(0));
  const int height = static_cast<int>(state.range(1));
  const auto source = screen();
  const PixelBuffer picture = makePicture(width, height);
  std::vector<std::uint8_t> scaled(static_cast<std::size_t>(width * height * 4));
  const auto filter = state.range(2) != 0 ? libyuv::kFilterBox : libyuv::kFilterBilinear;
  for (auto _ : state) {
    libyuv::ARGBScale(source.data(), kWidth * 4, kWidth, kHeight, scaled.data(), width * 4, width, height,
                      filter);
    libyuv::ARGBToNV12(scaled.data(), width * 4, picture.plane(0).data,
                       static_cast<int>(picture.plane(0).stride), picture.plane(1).data,
                       static_cast<int>(picture.plane(1).stride), width, height);
  }
}

#ifdef KESTRUNE_SWSCALE
void swscale(benchmark::State& state) {
  const int width = static_cast<int>(state.range(0));
  const int height = static_cast<int>(state.range(1));
  const auto source = screen();
  const PixelBuffer picture = makePicture(width, height);
  SwsContext* context = sws_getContext(kWidth, kHeight, AV_PIX_FMT_BGR0, width, height, AV_PIX_FMT_NV12,
                                       SWS_BILINEAR, nullptr, nullptr, nullptr);
  const std::uint8_t* from[] = {source.data()};
  const int fromStride[] = {kWidth * 4};
  std::uint8_t* to[] = {picture.plane(0).data, picture.plane(1).data};
  const int toStride[] = {static_cast<int>(picture.plane(0).stride),
                          static_cast<int>(picture.plane(1).stride)};
  for (auto _ : state) sws_scale(context, from, fromStride, 0, kHeight, to, toStride);
  sws_freeContext(context);
}
BENCHMARK(swscale)->Args({1600, 900})->Args({1280, 720})->Unit(benchmark::kMicrosecond);
#endif

BENCHMARK(oursVectorised)
    ->Args({1600, 900})
    ->Args({1280, 720})
    ->Args({960, 540})
    ->Args({1920, 1080})
    ->Unit(benchmark::kMicrosecond);
BENCHMARK(oursPortable)->Args({1600, 900})->Unit(benchmark::kMicrosecond);
BENCHMARK(caret)->Unit(benchmark::kMicrosecond);
BENCHMARK(libyuvBt601)
    ->Args({1600, 900, 0})
    ->Args({1600, 900, 1})
    ->Args({1280, 720, 0})
    ->Unit(benchmark::kMicrosecond);

}  // namespace
}  // namespace kestrune::linux_platform
