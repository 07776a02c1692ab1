#pragma once

#include <xcb/xtest.h>

#include <filesystem>
#include <memory>
#include <sstream>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "platform/InputEvents.h"
#include "platform/linux/x11/X11Connection.h"
#include "support/ChildProcess.h"
#include "support/TemporaryDirectory.h"
#include "support/XServerFixture.h"

namespace kestrune::testing {

using linux_platform::waitForReply;
using linux_platform::X11Address;
using linux_platform::X11Connection;

inline void typeText(InputEvents& events, std::u16string_view text) {
  for (const bool isDown : {true, false}) {
    const auto source = events.createSource();
    if (!source) return;
    const auto event = source->keyboardEvent(0, isDown);
    event->setUnicodeString(text);
    event->post();
  }
}

/// The keyboard as the server and another client of it see it.
class KeyboardView {
 public:
  explicit KeyboardView(const X11Address& server) : connection_(X11Connection::open(server)) {}
  explicit KeyboardView(const XServer& server) : KeyboardView(X11Address(server.displayName())) {}

  const X11Connection& connection() const { return *connection_; }
  std::vector<xcb_keysym_t> mapping() const {
    const auto reply = waitForReply(*connection_, xcb_get_keyboard_mapping_reply,
                                    xcb_get_keyboard_mapping(*connection_, 8, 248));
    const auto* symbols = xcb_get_keyboard_mapping_keysyms(reply.get());
    return {symbols, symbols + xcb_get_keyboard_mapping_keysyms_length(reply.get())};
  }
  xcb_keysym_t symbol(xcb_keycode_t code) const {
    const auto symbols = mapping();
    return symbols.at((code - 8U) * (symbols.size() / 248));
  }
  /// Takes a symbol off every key that gives it.
  void unmap(xcb_keysym_t symbol) const {
    constexpr xcb_keysym_t kNothing = 0;
    for (xcb_keycode_t code = 8; code < 255; ++code) {
      if (this->symbol(code) == symbol) xcb_change_keyboard_mapping(*connection_, 1, code, 1, &kNothing);
    }
    sync();
  }
  void key(xcb_keycode_t code, bool isDown) const {
    xcb_test_fake_input(*connection_, isDown ? XCB_KEY_PRESS : XCB_KEY_RELEASE, code, 0, 0, 0, 0, 0);
    sync();
  }
  bool isHeld(xcb_keycode_t code) const {
    const auto keys = waitForReply(*connection_, xcb_query_keymap_reply, xcb_query_keymap(*connection_));
    return (keys->keys[code / 8] >> (code % 8) & 1) != 0;
  }
  /// Modifiers and buttons in force.
  unsigned state() const {
    return waitForReply(*connection_, xcb_query_pointer_reply,
                        xcb_query_pointer(*connection_, connection_->root()))
        ->mask;
  }
  void sync() const { connection_->roundTrip(); }

 private:
  const std::unique_ptr<X11Connection> connection_;
};

/// A window over the whole screen that writes down what reaches it: "motion 10,20 state 256" (but not to
/// where the pointer is already), "press 1", "release 1" (buttons), "key 0xff0d down".
class RecordingWindow {
 public:
  explicit RecordingWindow(const XServer& server) : RecordingWindow(X11Address(server.displayName())) {}
  explicit RecordingWindow(const X11Address& server) : view_(server) {
    const auto& connection = view_.connection();
    window_ = xcb_generate_id(connection);
    const std::uint32_t values[] = {1, XCB_EVENT_MASK_KEY_PRESS | XCB_EVENT_MASK_KEY_RELEASE |
                                           XCB_EVENT_MASK_BUTTON_PRESS | XCB_EVENT_MASK_BUTTON_RELEASE |
                                           XCB_EVENT_MASK_POINTER_MOTION};
    xcb_create_window(connection, XCB_COPY_FROM_PARENT, window_, connection.root(), 0, 0,
                      connection.screen().width_in_pixels, connection.screen().height_in_pixels, 0,
                      XCB_WINDOW_CLASS_INPUT_OUTPUT, XCB_COPY_FROM_PARENT,
                      XCB_CW_OVERRIDE_REDIRECT | XCB_CW_EVENT_MASK, values);
    xcb_map_window(connection, window_);
    view_.sync();
  }

  const KeyboardView& keyboard() const { return view_; }
  /// Where a window manager has given the keyboard to another window.
  void takeKeyboard() const {
    xcb_set_input_focus(view_.connection(), XCB_INPUT_FOCUS_PARENT, window_, XCB_CURRENT_TIME);
    view_.sync();
  }
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
    const auto& key = reinterpret_cast<const xcb_key_press_event_t&>(event);  // all have the same form
    const int type = event.response_type & 0x7F;
    std::ostringstream line;
    if (type == XCB_MOTION_NOTIFY) {
      const std::pair point(key.root_x, key.root_y);
      if (std::exchange(pointer_, point) == point) return {};
      line << "motion " << key.root_x << "," << key.root_y << " state " << key.state;
    } else if (type == XCB_BUTTON_PRESS || type == XCB_BUTTON_RELEASE) {
      line << (type == XCB_BUTTON_PRESS ? "press " : "release ") << int{key.detail};
    } else if (type == XCB_KEY_PRESS || type == XCB_KEY_RELEASE) {
      line << "key 0x" << std::hex << view_.symbol(key.detail) << (type == XCB_KEY_PRESS ? " down" : " up");
    }
    return line.str();
  }

  KeyboardView view_;
  xcb_window_t window_ = XCB_NONE;
  std::pair<std::int16_t, std::int16_t> pointer_{-1, -1};
};

/// A terminal that has the keyboard and writes what it is given into a file.
class Terminal {
 public:
  explicit Terminal(const XServer& server)
      : process_("env DISPLAY=" + server.displayName() +
                 " LC_ALL=C.UTF-8 xterm -u8 -geometry 80x24+0+0 -e sh -c 'stty raw -echo; cd " +
                 folder_.path().string() + "; touch typed ready; exec cat > typed'") {
    const KeyboardView view(server);
    const auto isReady = [&] { return std::filesystem::exists(folder_.path() / "ready") && focus(view); };
    if (!eventually(isReady)) throw std::runtime_error("xterm did not come up");
  }

  /// What has been typed once it is as much as `expected`, or for as long as something came.
  std::string typedLike(const std::string& expected) const {
    const auto typed = [this] { return readText(folder_.path() / "typed"); };
    while (typed().size() < expected.size()) {
      const auto before = typed().size();
      if (!eventually([&] { return typed().size() > before; })) break;
    }
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
      return connection.roundTrip();
    }
    return false;
  }

  const TemporaryDirectory folder_;
  const ChildProcess process_;
};

}  // namespace kestrune::testing
