#include "Beeper.h"

#include <pulse/simple.h>

#include <array>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <random>
#include <thread>
#include <utility>

namespace {

constexpr int kRate = 48000;
constexpr int kPieceFrames = kRate / 100;
constexpr int kBeepPieces = 8;
constexpr std::uint32_t kPieceBytes = kPieceFrames * 2;

void run(const std::function<void(std::chrono::steady_clock::time_point)>& announce) {
  const pa_sample_spec format{PA_SAMPLE_S16LE, kRate, 1};
  const std::uint32_t whatever = ~0U;
  const pa_buffer_attr buffer{kPieceBytes * 8, kPieceBytes * 4, kPieceBytes, kPieceBytes, whatever};
  pa_simple* stream = pa_simple_new(nullptr, "screen_content", PA_STREAM_PLAYBACK, nullptr, "beeps", &format,
                                    nullptr, &buffer, nullptr);
  if (stream == nullptr) {
    std::fputs("screen_content: there is no sound server\n", stderr);
    std::exit(1);
  }
  std::mt19937 random(5);
  std::array<std::int16_t, kPieceFrames> piece{};
  int untilBeep = 100;
  for (;;) {
    if (untilBeep == 0) {
      int error = 0;
      const pa_usec_t latency = pa_simple_get_latency(stream, &error);
      announce(std::chrono::steady_clock::now() + std::chrono::microseconds(latency));
    }
    for (int frame = 0; frame < kPieceFrames; ++frame) {
      const double phase = 2 * M_PI * 1000 * frame / kRate;
      piece[static_cast<std::size_t>(frame)] =
          untilBeep <= 0 ? static_cast<std::int16_t>(20000 * std::cos(phase)) : std::int16_t{0};
    }
    if (--untilBeep == -kBeepPieces) untilBeep = 70 + static_cast<int>(random() % 40);
    int error = 0;
    if (pa_simple_write(stream, piece.data(), kPieceBytes, &error) < 0) std::exit(1);
  }
}

}  // namespace

void playBeeps(std::function<void(std::chrono::steady_clock::time_point)> announce) {
  std::thread(run, std::move(announce)).detach();
}
