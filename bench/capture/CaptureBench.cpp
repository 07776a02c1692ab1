// What capturing costs: draws known content on the X display of $DISPLAY (1920x1080 is meant) and prints, for
// each, the processor time of the capture thread per second, the frames per second and the time from drawing
// to delivery. usage: bench_capture [SECONDS [WIDTH HEIGHT]]

#include <dirent.h>
#include <unistd.h>
#include <xcb/xcb.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <functional>
#include <future>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "platform/linux/capture/X11ScreenCapture.h"
#include "platform/linux/x11/X11Connection.h"
#include "runtime/ThreadQueue.h"

namespace kestrune::linux_platform {
namespace {

using namespace std::chrono_literals;
using SteadyClock = std::chrono::steady_clock;

/// Processor seconds of this process's thread of that name.
double processorSeconds(const std::string& threadName) {
  double seconds = 0;
  DIR* tasks = opendir("/proc/self/task");
  while (const dirent* entry = readdir(tasks)) {
    const std::string folder = std::string("/proc/self/task/") + entry->d_name;
    std::string name;
    std::getline(std::ifstream(folder + "/comm"), name);
    if (name != threadName) continue;
    double nanoseconds = 0;
    std::ifstream(folder + "/schedstat") >> nanoseconds;
    seconds += nanoseconds / 1e9;
  }
  closedir(tasks);
  return seconds;
}

class Canvas {
 public:
  Canvas() : connection_(X11Connection::open()) {
    context_ = xcb_generate_id(*connection_);
    const std::uint32_t noExposures = 0;
    xcb_create_gc(*connection_, context_, connection_->root(), XCB_GC_GRAPHICS_EXPOSURES, &noExposures);
    noise_.resize(1280 * 720 * 4 + 4096);
    std::uint32_t state = 1;
    for (auto& byte : noise_)
      byte = static_cast<std::uint8_t>((state = state * 1664525U + 1013904223U) >> 24);
    fill(0, 0, 1920, 1080, 0xe0e0e0);
    for (int line = 0; line < 54; ++line) text(line * 20);
    sync();
  }

  void fill(int x, int y, int width, int height, std::uint32_t colour) {
    xcb_change_gc(*connection_, context_, XCB_GC_FOREGROUND, &colour);
    const xcb_rectangle_t area{static_cast<std::int16_t>(x), static_cast<std::int16_t>(y),
                               static_cast<std::uint16_t>(width), static_cast<std::uint16_t>(height)};
    xcb_poly_fill_rectangle(*connection_, connection_->root(), context_, 1, &area);
  }
  /// A line of something like text.
  void text(int y) {
    fill(0, y, 1920, 20, 0xffffff);
    std::vector<xcb_rectangle_t> strokes;
    for (int x = 4; x < 1900; x += 5) {
      letter_ = letter_ * 1664525U + 1013904223U;
      if ((letter_ >> 20) % 6 == 0) continue;
      strokes.push_back({static_cast<std::int16_t>(x), static_cast<std::int16_t>(y + 4 + (letter_ >> 24) % 6),
                         static_cast<std::uint16_t>(1 + (letter_ >> 28) % 3), 9});
    }
    const std::uint32_t black = 0x101010;
    xcb_change_gc(*connection_, context_, XCB_GC_FOREGROUND, &black);
    xcb_poly_fill_rectangle(*connection_, connection_->root(), context_,
                            static_cast<std::uint32_t>(strokes.size()), strokes.data());
  }
  void scroll(int rows) {
    xcb_copy_area(*connection_, connection_->root(), connection_->root(), context_, 0,
                  static_cast<std::int16_t>(rows), 0, 0, 1920, static_cast<std::uint16_t>(1080 - rows));
    scrolled_ += rows;
    if (scrolled_ >= 20) {
      scrolled_ = 0;
      text(1060);
    }
  }
  void video(int frame) {
    const auto step = static_cast<std::size_t>(frame % 61) * 64;
    for (int y = 0; y < 720; y += 90) {
      xcb_put_image(*connection_, XCB_IMAGE_FORMAT_Z_PIXMAP, connection_->root(), context_, 1280, 90, 320,
                    static_cast<std::int16_t>(180 + y), 0, 24, 1280 * 90 * 4,
                    noise_.data() + step + static_cast<std::size_t>(1280 * y * 4) / 2);
    }
  }
  void flush() { xcb_flush(*connection_); }
  void sync() { waitForReply(*connection_, xcb_get_input_focus_reply, xcb_get_input_focus(*connection_)); }

 private:
  std::unique_ptr<X11Connection> connection_;
  xcb_gcontext_t context_ = 0;
  std::vector<std::uint8_t> noise_;
  std::uint32_t letter_ = 7;
  int scrolled_ = 0;
};

struct Scene {
  const char* name;
  std::chrono::nanoseconds period;
  std::function<void(Canvas&, int)> draw;
};

double percentile(std::vector<double>& values, double share) {
  if (values.empty()) return 0;
  std::sort(values.begin(), values.end());
  return values[std::min(values.size() - 1,
                         static_cast<std::size_t>(share * static_cast<double>(values.size())))];
}

void measure(Canvas& canvas, const Scene& scene, int seconds, int width, int height) {
  X11ScreenCapture capture(std::make_shared<X11Server>());
  std::promise<ShareableContent> content;
  capture.shareableContent(false, false, [&](auto found, auto failure) {
    failure ? content.set_exception(failure) : content.set_value(*found);
  });
  ScreenStreamConfiguration configuration;
  configuration.width = width;
  configuration.height = height;
  configuration.showsCursor = false;
  const auto stream =
      capture.createStream(capture.filterForDisplay(content.get_future().get().displays.at(0)), configuration,
                           [](auto) { std::puts("stopped"); });
  std::mutex lock;
  std::vector<double> latencies;
  std::vector<std::int64_t> times;
  SteadyClock::time_point drawn{};
  const auto queue = std::make_shared<ThreadQueue>("receiver");
  stream->addVideoOutput(queue, [&](VideoSample sample) {
    const std::lock_guard guard(lock);
    times.push_back(*sample.presentationMicroseconds);
    if (sample.image->changes->rectangles.empty() || drawn == SteadyClock::time_point{}) return;
    latencies.push_back(std::chrono::duration<double, std::milli>(SteadyClock::now() - drawn).count());
    drawn = {};
  });
  std::promise<void> started;
  stream->startCapture(
      [&](std::exception_ptr failure) { failure ? started.set_exception(failure) : started.set_value(); });
  started.get_future().get();
  std::this_thread::sleep_for(1s);
  {
    const std::lock_guard guard(lock);
    times.clear();
  }
  const double before = processorSeconds("x11-capture");
  const auto begin = SteadyClock::now();
  auto next = begin;
  for (int frame = 0; next < begin + std::chrono::seconds(seconds); ++frame, next += scene.period) {
    std::this_thread::sleep_until(next);
    {
      const std::lock_guard guard(lock);
      if (drawn == SteadyClock::time_point{}) drawn = SteadyClock::now();
    }
    scene.draw(canvas, frame);
    canvas.flush();
  }
  std::this_thread::sleep_until(begin + std::chrono::seconds(seconds));
  const double used = (processorSeconds("x11-capture") - before) / seconds;
  const std::lock_guard guard(lock);
  std::printf("%-22s %4dx%-4d  %.4f core  %5.1f fps  drawn to delivered %5.2f / %5.2f ms (median / p95)\n",
              scene.name, width, height, used, static_cast<double>(times.size()) / seconds,
              percentile(latencies, 0.5), percentile(latencies, 0.95));
}

}  // namespace
}  // namespace kestrune::linux_platform

int main(int argc, char** argv) {
  using namespace kestrune::linux_platform;
  using namespace std::chrono_literals;
  const int seconds = argc > 1 ? std::atoi(argv[1]) : 5;
  const int width = argc > 3 ? std::atoi(argv[2]) : 1600;
  const int height = argc > 3 ? std::atoi(argv[3]) : 900;
  Canvas canvas;
  const Scene scenes[] = {
      {"idle", 1h, [](Canvas&, int) {}},
      {"caret", 500ms,
       [](Canvas& to, int frame) { to.fill(500, 400, 2, 18, frame % 2 != 0 ? 0xffffff : 0); }},
      {"flash 100x100", 137ms,
       [](Canvas& to, int frame) { to.fill(900, 500, 100, 100, frame % 2 != 0 ? 0xffffff : 0); }},
      {"720p video at 30", 33'333'333ns, [](Canvas& to, int frame) { to.video(frame); }},
      {"scrolling at 60", 16'666'667ns, [](Canvas& to, int) { to.scroll(4); }},
      {"scrolling at 200", 5ms, [](Canvas& to, int) { to.scroll(2); }},
  };
  for (const Scene& scene : scenes) measure(canvas, scene, seconds, width, height);
}
