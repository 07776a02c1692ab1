// A client that fills the display with a known pattern and tells what input reaches it, for the end-to-end
// tests.
//
// The display is divided into four columns and two rows of plain colour:
//   red     green  blue   white
//   yellow  cyan   grey   black
// Standard input takes lines: "invert" exchanges the rows, "point X Y" puts the pointer there. Printed, one
// line each: "ready", "press BUTTON X Y", "release BUTTON X Y" (root coordinates), "inverted".

#include <poll.h>
#include <unistd.h>
#include <xcb/xcb.h>

#include <array>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

namespace {

constexpr std::array<std::array<std::uint32_t, 4>, 2> kColours{{
    {0xC02020, 0x20A040, 0x2040C0, 0xFFFFFF},
    {0xD0C020, 0x20B0C0, 0x808080, 0x000000},
}};

void say(const std::string& line) {
  std::puts(line.c_str());
  std::fflush(stdout);
}

struct Pattern {
  xcb_connection_t* connection = nullptr;
  xcb_screen_t* screen = nullptr;
  xcb_window_t window = 0;
  xcb_gcontext_t context = 0;
  bool inverted = false;

  void draw() const {
    const int width = screen->width_in_pixels / 4;
    const int height = screen->height_in_pixels / 2;
    for (int row = 0; row < 2; ++row) {
      for (int column = 0; column < 4; ++column) {
        const auto& colours = kColours.at(static_cast<std::size_t>(inverted ? 1 - row : row));
        xcb_change_gc(connection, context, XCB_GC_FOREGROUND, &colours.at(static_cast<std::size_t>(column)));
        const xcb_rectangle_t rectangle{
            static_cast<std::int16_t>(column * width), static_cast<std::int16_t>(row * height),
            static_cast<std::uint16_t>(width), static_cast<std::uint16_t>(height)};
        xcb_poly_fill_rectangle(connection, window, context, 1, &rectangle);
      }
    }
    xcb_flush(connection);
  }

  void obey(const std::string& line) {
    int x = 0;
    int y = 0;
    if (line == "invert") {
      inverted = !inverted;
      draw();
      say("inverted");
    } else if (std::sscanf(line.c_str(), "point %d %d", &x, &y) == 2) {
      xcb_warp_pointer(connection, XCB_NONE, screen->root, 0, 0, 0, 0, static_cast<std::int16_t>(x),
                       static_cast<std::int16_t>(y));
      xcb_flush(connection);
    }
  }
};

void report(const xcb_generic_event_t& event) {
  // Press and release share one layout.
  const auto& input = reinterpret_cast<const xcb_button_press_event_t&>(event);
  const std::string place = std::to_string(input.root_x) + " " + std::to_string(input.root_y);
  if ((event.response_type & 0x7F) == XCB_BUTTON_PRESS) {
    say("press " + std::to_string(input.detail) + " " + place);
  } else if ((event.response_type & 0x7F) == XCB_BUTTON_RELEASE) {
    say("release " + std::to_string(input.detail) + " " + place);
  }
}

}  // namespace

int main() {
  Pattern pattern;
  pattern.connection = xcb_connect(nullptr, nullptr);
  if (xcb_connection_has_error(pattern.connection) != 0) {
    std::fputs("pattern_client: the display cannot be opened\n", stderr);
    return 1;
  }
  pattern.screen = xcb_setup_roots_iterator(xcb_get_setup(pattern.connection)).data;
  pattern.window = xcb_generate_id(pattern.connection);
  const std::uint32_t values[] = {
      1, XCB_EVENT_MASK_EXPOSURE | XCB_EVENT_MASK_BUTTON_PRESS | XCB_EVENT_MASK_BUTTON_RELEASE};
  xcb_create_window(pattern.connection, XCB_COPY_FROM_PARENT, pattern.window, pattern.screen->root, 0, 0,
                    pattern.screen->width_in_pixels, pattern.screen->height_in_pixels, 0,
                    XCB_WINDOW_CLASS_INPUT_OUTPUT, XCB_COPY_FROM_PARENT,
                    XCB_CW_OVERRIDE_REDIRECT | XCB_CW_EVENT_MASK, values);
  pattern.context = xcb_generate_id(pattern.connection);
  xcb_create_gc(pattern.connection, pattern.context, pattern.window, 0, nullptr);
  xcb_map_window(pattern.connection, pattern.window);
  pattern.draw();
  bool isReady = false;
  std::string input;

  for (;;) {
    std::array<pollfd, 2> descriptors{
        {{xcb_get_file_descriptor(pattern.connection), POLLIN, 0}, {STDIN_FILENO, POLLIN, 0}}};
    poll(descriptors.data(), descriptors.size(), -1);
    while (xcb_generic_event_t* event = xcb_poll_for_event(pattern.connection)) {
      if ((event->response_type & 0x7F) == XCB_EXPOSE) {
        pattern.draw();
        if (!isReady) say("ready");
        isReady = true;
      }
      report(*event);
      std::free(event);
    }
    if (xcb_connection_has_error(pattern.connection) != 0) return 0;
    if ((descriptors[1].revents & (POLLIN | POLLHUP)) != 0) {
      std::array<char, 256> part{};
      const auto length = read(STDIN_FILENO, part.data(), part.size());
      if (length <= 0) return 0;
      input.append(part.data(), static_cast<std::size_t>(length));
      for (auto end = input.find('\n'); end != std::string::npos; end = input.find('\n')) {
        pattern.obey(input.substr(0, end));
        input.erase(0, end + 1);
      }
    }
  }
}
