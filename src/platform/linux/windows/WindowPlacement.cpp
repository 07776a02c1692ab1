#include "platform/linux/windows/WindowPlacement.h"

#include <algorithm>
#include <thread>

namespace kestrune::linux_platform {
namespace {

constexpr std::chrono::milliseconds kLookAgain{5};
/// The user's own tool, which window managers obey (EWMH, source indication).
constexpr std::uint32_t kPager = 2;

std::uint32_t bits(int value) {
  return static_cast<std::uint32_t>(value);
}

}  // namespace

bool WindowPlacement::place(const ClientWindow& window, const PixelRect& area, bool isWholeWorkArea) const {
  const bool isMaximized = isWholeWorkArea && tree_.isManaged();
  const bool isThere = !window.isMinimized && has(window, area) && (!isMaximized || window.isHeld);
  if (window.isMinimized) show(window);
  activate(window);
  if (isThere) return true;
  if (window.isHeld) release(window);
  const auto isFree = [](const ClientWindow& now) { return !now.isMinimized && !now.isHeld; };
  const auto freed = await(window, isFree);
  if (!freed) return false;
  move(*freed, area);
  if (isMaximized) changeState(*freed, true, atoms_.maximizedVertically, atoms_.maximizedHorizontally);
  const auto isPlaced = [&](const ClientWindow& now) {
    return now.isMaximized == isMaximized && has(now, area);
  };
  return await(*freed, isPlaced).has_value();
}

void WindowPlacement::show(const ClientWindow& window) const {
  xcb_map_window(connection_, window.id);  // ICCCM 4.1.4: from iconic to normal
  connection_.flush();
}

void WindowPlacement::activate(const ClientWindow& window) const {
  if (tree_.isManaged() && tree_.managerSupports(atoms_.activeWindow)) {
    askManager(window, atoms_.activeWindow, {kPager, XCB_CURRENT_TIME, XCB_NONE});
    return;
  }
  const std::uint32_t above = XCB_STACK_MODE_ABOVE;
  xcb_configure_window(connection_, window.id, XCB_CONFIG_WINDOW_STACK_MODE, &above);
  // The server refuses the focus for a window that is not there yet.
  const auto isShown = [](const ClientWindow& now) { return now.isOnScreen; };
  if (!await(window, isShown)) return;
  xcb_set_input_focus(connection_, XCB_INPUT_FOCUS_PARENT, window.id, XCB_CURRENT_TIME);
  connection_.flush();
}

std::optional<ClientWindow> WindowPlacement::await(const ClientWindow& window, const Condition& isSo) const {
  for (;;) {
    const auto now = tree_.look(window);
    if (!now) return std::nullopt;
    if (isSo(*now)) return now;
    if (std::chrono::steady_clock::now() + kLookAgain >= deadline_) return std::nullopt;
    std::this_thread::sleep_for(kLookAgain);
  }
}

bool WindowPlacement::has(const ClientWindow& window, const PixelRect& area) const {
  return grown(shrunk(window.area, window.invisible), tree_.frameOf(window)) == area;
}

void WindowPlacement::release(const ClientWindow& window) const {
  changeState(window, false, atoms_.stateFullScreen, atoms_.stateShaded);
  changeState(window, false, atoms_.maximizedVertically, atoms_.maximizedHorizontally);
}

void WindowPlacement::move(const ClientWindow& window, const PixelRect& area) const {
  // The position is that of the frame's corner, or of the border's; the size is the client's.
  const PixelRect outer = grown(area, window.invisible);
  const PixelRect inner = shrunk(outer, tree_.frameOf(window));
  const std::array<std::uint32_t, 4> values{bits(outer.x), bits(outer.y), bits(std::max(1, inner.width)),
                                            bits(std::max(1, inner.height))};
  if (tree_.managerSupports(atoms_.moveResize)) {
    constexpr std::uint32_t kAllGiven = 0xF << 8;
    const std::uint32_t how = XCB_GRAVITY_NORTH_WEST | kAllGiven | kPager << 12;
    askManager(window, atoms_.moveResize, {how, values[0], values[1], values[2], values[3]});
    return;
  }
  xcb_configure_window(
      connection_, window.id,
      XCB_CONFIG_WINDOW_X | XCB_CONFIG_WINDOW_Y | XCB_CONFIG_WINDOW_WIDTH | XCB_CONFIG_WINDOW_HEIGHT,
      values.data());
  connection_.flush();
}

void WindowPlacement::changeState(const ClientWindow& window, bool isAdded, xcb_atom_t first,
                                  xcb_atom_t second) const {
  askManager(window, atoms_.state, {isAdded ? 1U : 0U, first, second, kPager});
}

void WindowPlacement::askManager(const ClientWindow& window, xcb_atom_t what,
                                 const std::array<std::uint32_t, 5>& values) const {
  xcb_client_message_event_t message{};
  message.response_type = XCB_CLIENT_MESSAGE;
  message.format = 32;
  message.window = window.id;
  message.type = what;
  std::copy(values.begin(), values.end(), std::begin(message.data.data32));
  xcb_send_event(connection_, 0, connection_.root(),
                 XCB_EVENT_MASK_SUBSTRUCTURE_REDIRECT | XCB_EVENT_MASK_SUBSTRUCTURE_NOTIFY,
                 reinterpret_cast<const char*>(&message));
  connection_.flush();
}

}  // namespace kestrune::linux_platform
