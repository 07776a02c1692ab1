#include <gtest/gtest.h>

#include "platform/linux/windows/X11Windows.h"
#include "platform/linux/x11/X11Properties.h"
#include "support/XServerFixture.h"

namespace kestrune::linux_platform {
namespace {

using testing::ChildProcess;
using testing::eventually;
using testing::XServer;

constexpr Rect kScreen{0, 0, 800, 600};

/// A window that says of itself what the test wants: its owner need not exist.
class TestWindow {
 public:
  TestWindow(const XServer& server, std::uint32_t owner, const Rect& area, const char* type = nullptr,
             std::string_view machine = {})
      : connection_(X11Connection::open(server.displayName())), id_(xcb_generate_id(*connection_)) {
    const auto number = [](double value) { return static_cast<std::int16_t>(value); };
    xcb_create_window(*connection_, XCB_COPY_FROM_PARENT, id_, connection_->root(), number(area.x),
                      number(area.y), static_cast<std::uint16_t>(area.width),
                      static_cast<std::uint16_t>(area.height), 3, XCB_WINDOW_CLASS_INPUT_OUTPUT,
                      XCB_COPY_FROM_PARENT, 0, nullptr);
    set("_NET_WM_PID", XCB_ATOM_CARDINAL, owner);
    if (type != nullptr) set("_NET_WM_WINDOW_TYPE", XCB_ATOM_ATOM, atom(type));
    if (!machine.empty()) {
      xcb_change_property(*connection_, XCB_PROP_MODE_REPLACE, id_, XCB_ATOM_WM_CLIENT_MACHINE,
                          XCB_ATOM_STRING, 8, static_cast<std::uint32_t>(machine.size()), machine.data());
    }
    xcb_map_window(*connection_, id_);
    connection_->roundTrip();
  }

  xcb_atom_t atom(std::string_view name) const { return internAtoms(*connection_, {name}).front(); }
  bool hasState(std::string_view name) const {
    const auto states = X11Property(*connection_, id_, atom("_NET_WM_STATE")).values();
    return std::find(states.begin(), states.end(), atom(name)) != states.end();
  }
  bool hasFocus() const {
    const auto reply =
        waitForReply(*connection_, xcb_get_input_focus_reply, xcb_get_input_focus(*connection_));
    return reply && reply->focus == id_;
  }
  /// Asks the window manager as a client does.
  void ask(std::string_view what, std::uint32_t first, std::string_view state = {}) const {
    xcb_client_message_event_t message{};
    message.response_type = XCB_CLIENT_MESSAGE;
    message.format = 32;
    message.window = id_;
    message.type = atom(what);
    message.data.data32[0] = first;
    if (!state.empty()) message.data.data32[1] = atom(state);
    xcb_send_event(*connection_, 0, connection_->root(), XCB_EVENT_MASK_SUBSTRUCTURE_REDIRECT,
                   reinterpret_cast<const char*>(&message));
    connection_->roundTrip();
  }
  bool become(std::string_view state) const {
    state == "_NET_WM_STATE_HIDDEN" ? ask("WM_CHANGE_STATE", 3) : ask("_NET_WM_STATE", 1, state);
    return eventually([&] { return hasState(state); });
  }

 private:
  void set(std::string_view name, xcb_atom_t type, std::uint32_t value) const {
    xcb_change_property(*connection_, XCB_PROP_MODE_REPLACE, id_, atom(name), type, 32, 1, &value);
  }

  const std::unique_ptr<X11Connection> connection_;
  const xcb_window_t id_;
};

class X11WindowsTest : public ::testing::Test {
 protected:
  void startManager() {
    manager_ = std::make_unique<ChildProcess>("env DISPLAY=" + server_.displayName() + " openbox");
    // Once it has managed what was there, it tells the work area.
    ASSERT_TRUE(eventually([&] { return server_.run("xprop -root _NET_WORKAREA | grep -q =") == 0; }));
  }
  std::vector<ProcessID> owners() {
    std::vector<ProcessID> all;
    for (const auto& each : windows_.onScreenWindows()) all.push_back(each.owner);
    return all;
  }
  std::optional<Rect> boundsOf(ProcessID owner) {
    for (const auto& each : windows_.onScreenWindows()) {
      if (each.owner == owner) return each.bounds;
    }
    return std::nullopt;
  }
  /// A window manager may be slow, as the service knows.
  bool place(ProcessID owner, const Rect& frame) {
    return eventually([&] { return windows_.placeFirstWindow(owner, frame); });
  }
  bool comesToShow(const std::vector<ProcessID>& expected) {
    return eventually([&] { return owners() == expected; });
  }

  XServer server_{800, 600};
  std::unique_ptr<ChildProcess> manager_;
  const std::shared_ptr<const X11Server> known_ = std::make_shared<X11Server>(server_.displayName());
  X11Windows windows_{known_};
};

TEST_F(X11WindowsTest, ListsWhatAWindowManagerShows) {
  startManager();
  const TestWindow lower(server_, 11, {10, 30, 300, 200});
  ASSERT_TRUE(comesToShow({11}));
  const TestWindow upper(server_, 12, {100, 100, 300, 200});
  ASSERT_TRUE(comesToShow({12, 11}));
  const TestWindow elsewhere(server_, 13, {0, 0, 200, 200}, nullptr, "another.example");
  ASSERT_TRUE(comesToShow({0, 12, 11}));
  const TestWindow dock(server_, 14, {0, 0, 200, 20}, "_NET_WM_WINDOW_TYPE_DOCK");
  const TestWindow desktop(server_, 15, {0, 0, 800, 600}, "_NET_WM_WINDOW_TYPE_DESKTOP");
  ASSERT_TRUE(comesToShow({14, 0, 12, 11}));
  const auto all = windows_.onScreenWindows();
  ASSERT_EQ(all.size(), 4U);
  EXPECT_GT(all[0].layer, 0);
  EXPECT_EQ(all[1].layer, 0);
  ASSERT_TRUE(upper.become("_NET_WM_STATE_HIDDEN"));
  EXPECT_TRUE(comesToShow({14, 0, 11}));
  windows_.activate(11);
  EXPECT_TRUE(comesToShow({14, 11, 0}));
  EXPECT_TRUE(eventually([&] { return lower.hasFocus(); }));
  windows_.unhide(12);
  EXPECT_TRUE(eventually([&] { return owners().size() == 4; }));
}

TEST_F(X11WindowsTest, PlacesAWindowOutOfEveryState) {
  startManager();
  const TestWindow window(server_, 11, {10, 30, 300, 200});
  ASSERT_TRUE(comesToShow({11}));
  EXPECT_FALSE(windows_.placeFirstWindow(12, {0, 0, 400, 300}));
  for (const auto* state : {"", "_NET_WM_STATE_HIDDEN", "_NET_WM_STATE_FULLSCREEN",
                            "_NET_WM_STATE_MAXIMIZED_VERT", "_NET_WM_STATE_SHADED"}) {
    ASSERT_TRUE(*state == 0 || window.become(state));
    EXPECT_TRUE(place(11, {50, 60, 400, 300})) << state;
    // The frame stands around it: within what was given, and below the title.
    const Rect bounds = boundsOf(11).value_or(Rect{});
    EXPECT_TRUE(bounds.x >= 50 && bounds.y > 60 && bounds.y + bounds.height <= 360 && bounds.width > 380)
        << state << " " << bounds.x << "," << bounds.y << " " << bounds.width << "x" << bounds.height;
    ASSERT_TRUE(window.become("_NET_WM_STATE_MAXIMIZED_HORZ"));
  }
  const TestWindow dialog(server_, 11, {100, 100, 200, 150}, "_NET_WM_WINDOW_TYPE_DIALOG");
  ASSERT_TRUE(comesToShow({11, 11}));
  // All that windows may cover: maximized, with the frame in it.
  EXPECT_TRUE(place(11, kScreen));
  EXPECT_TRUE(window.hasState("_NET_WM_STATE_MAXIMIZED_VERT"));
  EXPECT_FALSE(dialog.hasState("_NET_WM_STATE_MAXIMIZED_VERT"));
}

TEST_F(X11WindowsTest, WorksWithoutAWindowManager) {
  const TestWindow lower(server_, 11, {10, 30, 300, 200});
  const TestWindow upper(server_, 12, {100, 100, 300, 200});
  EXPECT_TRUE(comesToShow({12, 11}));
  EXPECT_EQ(boundsOf(11), (Rect{13, 33, 300, 200}));
  EXPECT_TRUE(place(11, kScreen));
  EXPECT_EQ(owners(), (std::vector<ProcessID>{11, 12}));
  EXPECT_EQ(boundsOf(11), (Rect{3, 3, 794, 594}));
  EXPECT_TRUE(lower.hasFocus());
}

TEST_F(X11WindowsTest, AServerThatHangsCostsOneWait) {
  const TestWindow window(server_, 11, {10, 30, 300, 200});
  ASSERT_TRUE(comesToShow({11}));
  server_.hang();
  const auto begin = std::chrono::steady_clock::now();
  EXPECT_TRUE(owners().empty());
  EXPECT_FALSE(windows_.placeFirstWindow(11, kScreen));
  for (int call = 0; call < 20; ++call) EXPECT_TRUE(owners().empty());
  EXPECT_LT(std::chrono::steady_clock::now() - begin, 2 * X11Windows::kAnswerLimit);
  server_.goOn();
  EXPECT_TRUE(comesToShow({11}));
}

}  // namespace
}  // namespace kestrune::linux_platform
