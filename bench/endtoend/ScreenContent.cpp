// Draws known content on the display, so that two pipelines can be measured on the same picture.
//
// usage: screen_content SCENE [SECONDS]
//   idle     a page of text that never changes
//   caret    the page with a caret that blinks twice a second
//   scroll   the page scrolling over the whole screen, 60 steps a second
//   video    a moving picture of 1280x720 in the middle of the page, 30 pictures a second
//   flash    the page with a square that changes between black and white every 300 to 500 ms
//   click    the page with a square that changes at every press of a button
//   beep     the page with a square that is white for 200 ms from the instant on at which a beep is heard
//   flashscroll, clickscroll   the same over the scrolling page
//
// Every change of the square is told on standard output as "MICROSECONDS COLOUR": the time since 1970 just
// before the request is written to the display server, and 0 or 1 for black or white. "ready" is printed when
// the page is shown.

#include <poll.h>
#include <xcb/xcb.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <random>
#include <string>
#include <string_view>
#include <vector>

#include "Beeper.h"

namespace {

using SteadyClock = std::chrono::steady_clock;
using namespace std::chrono_literals;

constexpr int kSquareSide = 240;
constexpr int kVideoWidth = 1280;
constexpr int kVideoHeight = 720;
constexpr int kVideoPictures = 30;
constexpr int kLineHeight = 18;
constexpr std::uint32_t kPaper = 0xF4F4F0;
constexpr std::uint32_t kInk = 0x202428;

/// One line of words, long enough for any display: as text on screens is, in frequent words of all lengths.
std::string lineOfText(std::mt19937& random) {
  constexpr std::array kWords{
      "the",   "of",    "and",     "to",      "in",        "a",       "is",      "that",        "for",
      "it",    "as",    "was",     "with",    "be",        "by",      "on",      "not",         "he",
      "his",   "but",   "at",      "are",     "this",      "have",    "from",    "which",       "one",
      "had",   "were",  "all",     "their",   "when",      "who",     "will",    "more",        "would",
      "about", "other", "Display", "picture", "according", "between", "through", "information", "However,"};
  std::string line(random() % 3 * 4, ' ');
  while (line.size() < 240)
    line.append(kWords[random() % kWords.size()]).append(random() % 12 == 0 ? ". " : " ");
  line.resize(240);  // at most 255 characters go into one request
  return line;
}

/// One picture of a smooth moving scene with some grain.
std::vector<std::uint32_t> drawPicture(int index) {
  std::vector<std::uint32_t> pixels(static_cast<std::size_t>(kVideoWidth) * kVideoHeight);
  std::mt19937 random(static_cast<unsigned>(index) + 1U);
  for (int y = 0; y < kVideoHeight; ++y) {
    for (int x = 0; x < kVideoWidth; ++x) {
      const auto wave = static_cast<unsigned>((x + index * 9) / 3 + (y * 2 - index * 5) / 5);
      const unsigned grain = random() & 7U;
      const unsigned red = (wave & 0xFFU) / 2U + 60U + grain;
      const unsigned green = (static_cast<unsigned>(x * y / 900 + index * 4) & 0x7FU) + 50U + grain;
      const unsigned blue = (static_cast<unsigned>(y / 3 + index * 3) & 0x7FU) + 70U + grain;
      pixels[static_cast<std::size_t>(y) * kVideoWidth + static_cast<std::size_t>(x)] =
          0xFF000000U | (red << 16U) | (green << 8U) | blue;
    }
  }
  return pixels;
}

class Screen {
 public:
  Screen() : connection_(xcb_connect(nullptr, nullptr)) {
    if (xcb_connection_has_error(connection_) != 0) {
      std::fputs("screen_content: the display cannot be opened\n", stderr);
      std::exit(1);
    }
    screen_ = xcb_setup_roots_iterator(xcb_get_setup(connection_)).data;
    window_ = xcb_generate_id(connection_);
    const std::uint32_t values[] = {1, XCB_EVENT_MASK_BUTTON_PRESS | XCB_EVENT_MASK_EXPOSURE};
    xcb_create_window(connection_, XCB_COPY_FROM_PARENT, window_, screen_->root, 0, 0,
                      screen_->width_in_pixels, screen_->height_in_pixels, 0, XCB_WINDOW_CLASS_INPUT_OUTPUT,
                      XCB_COPY_FROM_PARENT, XCB_CW_OVERRIDE_REDIRECT | XCB_CW_EVENT_MASK, values);
    xcb_map_window(connection_, window_);
    context_ = xcb_generate_id(connection_);
    const std::uint32_t noExposures = 0;
    xcb_create_gc(connection_, context_, window_, XCB_GC_GRAPHICS_EXPOSURES, &noExposures);
  }

  int width() const { return screen_->width_in_pixels; }
  int height() const { return screen_->height_in_pixels; }

  xcb_pixmap_t upload(const std::vector<std::uint32_t>& pixels, int width, int height) {
    const xcb_pixmap_t pixmap = xcb_generate_id(connection_);
    xcb_create_pixmap(connection_, screen_->root_depth, pixmap, window_, static_cast<std::uint16_t>(width),
                      static_cast<std::uint16_t>(height));
    constexpr int kRows = 16;  // stays below the smallest limit of a request
    for (int top = 0; top < height; top += kRows) {
      const int rows = std::min(kRows, height - top);
      xcb_put_image(connection_, XCB_IMAGE_FORMAT_Z_PIXMAP, pixmap, context_,
                    static_cast<std::uint16_t>(width), static_cast<std::uint16_t>(rows), 0,
                    static_cast<std::int16_t>(top), 0, screen_->root_depth,
                    static_cast<std::uint32_t>(rows * width * 4),
                    reinterpret_cast<const std::uint8_t*>(
                        pixels.data() + static_cast<std::size_t>(top) * static_cast<std::size_t>(width)));
    }
    return pixmap;
  }

  /// A page of small text, dark on light, in the font that every display server has built in.
  xcb_pixmap_t drawPage(int width, int height) {
    const xcb_pixmap_t pixmap = xcb_generate_id(connection_);
    xcb_create_pixmap(connection_, screen_->root_depth, pixmap, window_, static_cast<std::uint16_t>(width),
                      static_cast<std::uint16_t>(height));
    const xcb_font_t font = xcb_generate_id(connection_);
    constexpr std::string_view kFont = "fixed";
    if (auto* error = xcb_request_check(
            connection_, xcb_open_font_checked(connection_, font, kFont.size(), kFont.data()))) {
      std::free(error);
      std::fputs("screen_content: the display has no font\n", stderr);
      std::exit(1);
    }
    const std::uint32_t colours[] = {kPaper, kPaper, font};
    xcb_change_gc(connection_, context_, XCB_GC_FOREGROUND | XCB_GC_BACKGROUND | XCB_GC_FONT, colours);
    const xcb_rectangle_t whole{0, 0, static_cast<std::uint16_t>(width), static_cast<std::uint16_t>(height)};
    xcb_poly_fill_rectangle(connection_, pixmap, context_, 1, &whole);
    xcb_change_gc(connection_, context_, XCB_GC_FOREGROUND, &kInk);
    std::mt19937 random(7);
    for (int baseline = 15; baseline < height; baseline += kLineHeight) {
      // Two columns fill a wide display.
      for (int left = 24; left < width; left += 1440) {
        const std::string line = lineOfText(random);
        xcb_image_text_8(connection_, static_cast<std::uint8_t>(line.size()), pixmap, context_,
                         static_cast<std::int16_t>(left), static_cast<std::int16_t>(baseline), line.data());
      }
    }
    return pixmap;
  }

  void copy(xcb_pixmap_t from, int sourceY, int x, int y, int width, int height) {
    xcb_copy_area(connection_, from, window_, context_, 0, static_cast<std::int16_t>(sourceY),
                  static_cast<std::int16_t>(x), static_cast<std::int16_t>(y),
                  static_cast<std::uint16_t>(width), static_cast<std::uint16_t>(height));
  }

  void fill(std::uint32_t colour, int x, int y, int width, int height) {
    xcb_change_gc(connection_, context_, XCB_GC_FOREGROUND, &colour);
    const xcb_rectangle_t rectangle{static_cast<std::int16_t>(x), static_cast<std::int16_t>(y),
                                    static_cast<std::uint16_t>(width), static_cast<std::uint16_t>(height)};
    xcb_poly_fill_rectangle(connection_, window_, context_, 1, &rectangle);
  }

  void flush() { xcb_flush(connection_); }

  /// Waits until `until` or an event; true if a button was pressed.
  bool waitForPress(SteadyClock::time_point until) {
    for (;;) {
      bool pressed = false;
      while (xcb_generic_event_t* event = xcb_poll_for_event(connection_)) {
        pressed = pressed || (event->response_type & 0x7F) == XCB_BUTTON_PRESS;
        std::free(event);
      }
      const auto left = until - SteadyClock::now();
      if (pressed || left <= 0ns || xcb_connection_has_error(connection_) != 0) return pressed;
      pollfd descriptor{xcb_get_file_descriptor(connection_), POLLIN, 0};
      const auto nanoseconds = std::chrono::duration_cast<std::chrono::nanoseconds>(left).count();
      const timespec span{nanoseconds / 1'000'000'000, nanoseconds % 1'000'000'000};
      ppoll(&descriptor, 1, &span, nullptr);
    }
  }

  bool isGone() const { return xcb_connection_has_error(connection_) != 0; }

 private:
  xcb_connection_t* connection_;
  xcb_screen_t* screen_ = nullptr;
  xcb_window_t window_ = 0;
  xcb_gcontext_t context_ = 0;
};

class Scene {
 public:
  Scene(std::string_view name, double seconds) : end_(SteadyClock::now() + toDuration(seconds)) {
    scrolls_ = name.find("scroll") != std::string_view::npos;
    flashes_ = name.starts_with("flash");
    clicks_ = name.starts_with("click");
    caret_ = name == "caret";
    beeps_ = name == "beep";
    video_ = name == "video";
    page_ = screen_.drawPage(screen_.width(), screen_.height() * 2);
    if (video_) {
      for (int index = 0; index < kVideoPictures; ++index) {
        pictures_.push_back(screen_.upload(drawPicture(index), kVideoWidth, kVideoHeight));
      }
    }
  }

  void run() {
    screen_.copy(page_, 0, 0, 0, screen_.width(), screen_.height());
    if (flashes_ || clicks_ || beeps_) drawSquare();
    if (beeps_) playBeeps([this](SteadyClock::time_point heard) { beep_ = heard; });
    screen_.flush();
    std::puts("ready");
    std::fflush(stdout);
    const auto period = scrolls_ ? SteadyClock::duration(1'000'000'000ns / 60)
                        : video_ ? SteadyClock::duration(1'000'000'000ns / 30)
                        : beeps_ ? SteadyClock::duration(1ms)
                                 : SteadyClock::duration(500ms);
    auto nextStep = SteadyClock::now() + period;
    auto nextFlash = SteadyClock::now() + 1s;
    while (SteadyClock::now() < end_ && !screen_.isGone()) {
      auto until = std::min(nextStep, end_);
      if (flashes_) until = std::min(until, nextFlash);
      if (screen_.waitForPress(until) && clicks_) toggle();
      const auto now = SteadyClock::now();
      if (flashes_ && now >= nextFlash) {
        toggle();
        nextFlash = now + 300ms + std::chrono::milliseconds(random_() % 200);
      }
      if (beeps_ && now >= (white_ ? beep_.load() + 200ms : beep_.load())) {
        if (white_) beep_ = SteadyClock::time_point::max();
        toggle();
      }
      if (now >= nextStep) {
        step();
        nextStep += period;
      }
    }
  }

 private:
  static SteadyClock::duration toDuration(double seconds) {
    return std::chrono::duration_cast<SteadyClock::duration>(std::chrono::duration<double>(seconds));
  }

  void step() {
    ++count_;
    if (scrolls_) {
      screen_.copy(page_, (count_ * 4) % screen_.height(), 0, 0, screen_.width(), screen_.height());
      if (flashes_ || clicks_) drawSquare();
    } else if (video_) {
      screen_.copy(pictures_[static_cast<std::size_t>(count_) % pictures_.size()], 0,
                   (screen_.width() - kVideoWidth) / 2, (screen_.height() - kVideoHeight) / 2, kVideoWidth,
                   kVideoHeight);
    } else if (caret_) {
      screen_.fill(count_ % 2 == 0 ? kPaper : kInk, 400, 305, 2, 18);
    }
    screen_.flush();
  }

  void drawSquare() {
    screen_.fill(white_ ? 0xFFFFFFU : 0x000000U, (screen_.width() - kSquareSide) / 2,
                 (screen_.height() - kSquareSide) / 2, kSquareSide, kSquareSide);
  }

  void toggle() {
    white_ = !white_;
    drawSquare();
    const auto now = std::chrono::system_clock::now().time_since_epoch();
    screen_.flush();
    std::printf("%lld %d\n",
                static_cast<long long>(std::chrono::duration_cast<std::chrono::microseconds>(now).count()),
                white_ ? 1 : 0);
    std::fflush(stdout);
  }

  Screen screen_;
  const SteadyClock::time_point end_;
  bool scrolls_ = false;
  bool flashes_ = false;
  bool clicks_ = false;
  bool caret_ = false;
  bool beeps_ = false;
  std::atomic<SteadyClock::time_point> beep_{SteadyClock::time_point::max()};  // the next one
  bool video_ = false;
  bool white_ = false;
  int count_ = 0;
  xcb_pixmap_t page_ = 0;
  std::vector<xcb_pixmap_t> pictures_;
  std::mt19937 random_{11};
};

}  // namespace

int main(int argc, char** argv) {
  constexpr std::string_view kScenes[] = {"idle",  "caret", "scroll",      "video",      "beep",
                                          "flash", "click", "flashscroll", "clickscroll"};
  const std::string_view scene = argc > 1 ? argv[1] : "";
  if (std::find(std::begin(kScenes), std::end(kScenes), scene) == std::end(kScenes)) {
    std::fputs(
        "usage: screen_content idle|caret|scroll|video|beep|flash|click|flashscroll|clickscroll [SECONDS]\n",
        stderr);
    return 2;
  }
  Scene(scene, argc > 2 ? std::strtod(argv[2], nullptr) : 3600.0).run();
  return 0;
}
