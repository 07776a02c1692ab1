#pragma once

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>
#include <xcb/xtest.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <functional>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "platform/InputEvents.h"
#include "platform/linux/x11/X11Connection.h"
#include "support/XServerFixture.h"

namespace kestrune::testing {

using linux_platform::waitForReply;
using linux_platform::X11Connection;

/// Asks until `isTrue` or ten seconds have passed.
inline bool eventually(const std::function<bool()>& isTrue) {
  const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(10);
  while (!isTrue()) {
    if (std::chrono::steady_clock::now() > end) return false;
    poll(nullptr, 0, 5);
  }
  return true;
}

inline void typeText(InputEvents& events, std::u16string_view text) {
  const auto source = events.createSource();
  if (!source) return;
  const auto down = source->keyboardEvent(0, true);
  const auto up = source->keyboardEvent(0, false);
  down->setUnicodeString(text);
  up->setUnicodeString(text);
  down->post();
  up->post();
}

inline void pressKey(InputEvents& events, std::uint16_t code) {
  const auto source = events.createSource();
  source->keyboardEvent(code, true)->post();
  source->keyboardEvent(code, false)->post();
}

/// The keyboard as the server and another client of it see it.
class KeyboardView {
 public:
  explicit KeyboardView(const XServer& server) : connection_(X11Connection::open(server.displayName())) {}

  const X11Connection& connection() const { return *connection_; }
  std::vector<xcb_keysym_t> mapping() const {
    const auto reply = waitForReply(*connection_, xcb_get_keyboard_mapping_reply,
                                    xcb_get_keyboard_mapping(*connection_, 8, 248));
    const auto* symbols = xcb_get_keyboard_mapping_keysyms(reply.get());
    return {symbols, symbols + xcb_get_keyboard_mapping_keysyms_length(reply.get())};
  }
  /// Of all key codes, those that give anything.
  std::vector<xcb_keycode_t> codesInUse() const {
    const auto symbols = mapping();
    const std::size_t width = symbols.size() / 248;
    std::vector<xcb_keycode_t> result;
    for (std::size_t index = 0; index < symbols.size(); ++index) {
      const auto code = static_cast<xcb_keycode_t>(8 + index / width);
      if (symbols[index] != 0 && (result.empty() || result.back() != code)) result.push_back(code);
    }
    return result;
  }
  xcb_keysym_t symbol(xcb_keycode_t code) const {
    const auto symbols = mapping();
    return symbols.at((code - 8U) * (symbols.size() / 248));
  }
  void remap(xcb_keycode_t code, xcb_keysym_t symbol) const {
    xcb_change_keyboard_mapping(*connection_, 1, code, 1, &symbol);
    sync();
  }
  void key(xcb_keycode_t code, bool isDown) const {
    xcb_test_fake_input(*connection_, isDown ? XCB_KEY_PRESS : XCB_KEY_RELEASE, code, 0, 0, 0, 0, 0);
    sync();
  }
  /// Modifiers and buttons in force.
  unsigned state() const {
    return waitForReply(*connection_, xcb_query_pointer_reply,
                        xcb_query_pointer(*connection_, connection_->root()))
        ->mask;
  }
  void sync() const {
    waitForReply(*connection_, xcb_get_input_focus_reply, xcb_get_input_focus(*connection_));
  }

 private:
  const std::unique_ptr<X11Connection> connection_;
};

/// A window over the whole screen that writes down what reaches it, without motions to where the pointer is
/// already, such as "motion 10,20 state 256",
/// "press 1", "release 1" (buttons), "key 0xff0d down".
class RecordingWindow {
 public:
  explicit RecordingWindow(const XServer& server) : view_(server) {
    const auto& connection = view_.connection();
    const auto window = xcb_generate_id(connection);
    const std::uint32_t values[] = {1, XCB_EVENT_MASK_KEY_PRESS | XCB_EVENT_MASK_KEY_RELEASE |
                                           XCB_EVENT_MASK_BUTTON_PRESS | XCB_EVENT_MASK_BUTTON_RELEASE |
                                           XCB_EVENT_MASK_POINTER_MOTION};
    xcb_create_window(connection, XCB_COPY_FROM_PARENT, window, connection.root(), 0, 0,
                      connection.screen().width_in_pixels, connection.screen().height_in_pixels, 0,
                      XCB_WINDOW_CLASS_INPUT_OUTPUT, XCB_COPY_FROM_PARENT,
                      XCB_CW_OVERRIDE_REDIRECT | XCB_CW_EVENT_MASK, values);
    xcb_map_window(connection, window);
    view_.sync();
  }

  const KeyboardView& keyboard() const { return view_; }
  /// What has come until now, once.
  std::vector<std::string> take() {
    view_.sync();
    std::vector<std::string> lines;
    while (
        const linux_platform::XcbOwned<xcb_generic_event_t> event{xcb_poll_for_event(view_.connection())}) {
      auto line = describe(*event);
      if (!line.empty()) lines.push_back(std::move(line));
    }
    return lines;
  }

 private:
  std::string describe(const xcb_generic_event_t& event) {
    std::ostringstream line;
    switch (event.response_type & 0x7F) {
      case XCB_MOTION_NOTIFY: {
        const auto& motion = reinterpret_cast<const xcb_motion_notify_event_t&>(event);
        if (std::exchange(pointer_, {motion.root_x, motion.root_y}) ==
            std::pair(motion.root_x, motion.root_y)) {
          break;
        }
        line << "motion " << motion.root_x << "," << motion.root_y << " state " << motion.state;
        break;
      }
      case XCB_BUTTON_PRESS:
      case XCB_BUTTON_RELEASE: {
        const auto& button = reinterpret_cast<const xcb_button_press_event_t&>(event);
        line << ((event.response_type & 0x7F) == XCB_BUTTON_PRESS ? "press " : "release ")
             << static_cast<int>(button.detail);
        break;
      }
      case XCB_KEY_PRESS:
      case XCB_KEY_RELEASE: {
        const auto& key = reinterpret_cast<const xcb_key_press_event_t&>(event);
        line << "key 0x" << std::hex << view_.symbol(key.detail)
             << ((event.response_type & 0x7F) == XCB_KEY_PRESS ? " down" : " up");
        break;
      }
      default:
        break;
    }
    return line.str();
  }

  KeyboardView view_;
  std::pair<std::int16_t, std::int16_t> pointer_{-1, -1};
};

/// A terminal that has the keyboard and writes what it is given into a file.
class Terminal {
 public:
  explicit Terminal(const XServer& server) {
    std::string pattern = (std::filesystem::temp_directory_path() / "terminal-XXXXXX").string();
    if (mkdtemp(pattern.data()) == nullptr) throw std::runtime_error("no temporary folder");
    folder_ = pattern;
    const std::string shell = "stty raw -echo; cd " + pattern + "; touch typed ready; exec cat > typed";
    const pid_t parent = getpid();
    process_ = fork();
    if (process_ == 0) {
      prctl(PR_SET_PDEATHSIG, SIGKILL);
      if (getppid() != parent) _exit(127);
      execlp("env", "env", ("DISPLAY=" + server.displayName()).c_str(), "LC_ALL=C.UTF-8", "xterm", "-u8",
             "-geometry", "80x24+0+0", "-e", "sh", "-c", shell.c_str(), nullptr);
      _exit(127);
    }
    const KeyboardView view(server);
    const bool isReady =
        eventually([&] { return std::filesystem::exists(folder_ / "ready") && focus(view); });
    if (!isReady) throw std::runtime_error("xterm did not come up");
  }
  ~Terminal() {
    ::kill(process_, SIGTERM);
    waitpid(process_, nullptr, 0);
    std::error_code ignored;
    std::filesystem::remove_all(folder_, ignored);
  }
  Terminal(const Terminal&) = delete;
  Terminal& operator=(const Terminal&) = delete;

  std::string typed() const {
    std::ostringstream text;
    text << std::ifstream(folder_ / "typed").rdbuf();
    return text.str();
  }
  /// Waits until as much has been typed as `expected` has; what was typed then.
  std::string typedLike(const std::string& expected) const {
    eventually([&] { return typed().size() >= expected.size(); });
    return typed();
  }

 private:
  static bool focus(const KeyboardView& view) {
    const auto& connection = view.connection();
    const auto tree =
        waitForReply(connection, xcb_query_tree_reply, xcb_query_tree(connection, connection.root()));
    const auto* windows = xcb_query_tree_children(tree.get());
    for (int index = 0; index < xcb_query_tree_children_length(tree.get()); ++index) {
      const auto attributes = waitForReply(connection, xcb_get_window_attributes_reply,
                                           xcb_get_window_attributes(connection, windows[index]));
      if (!attributes || attributes->map_state != XCB_MAP_STATE_VIEWABLE) continue;
      xcb_set_input_focus(connection, XCB_INPUT_FOCUS_PARENT, windows[index], XCB_CURRENT_TIME);
      view.sync();
      return true;
    }
    return false;
  }

  std::filesystem::path folder_;
  pid_t process_ = -1;
};

}  // namespace kestrune::testing
