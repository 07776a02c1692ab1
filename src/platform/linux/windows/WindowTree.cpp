#include "platform/linux/windows/WindowTree.h"

#include <unistd.h>

#include <algorithm>
#include <array>

#include "platform/linux/x11/X11Properties.h"

namespace kestrune::linux_platform {
namespace {

/// More would be no desktop that a person uses; it bounds what is asked for at once.
constexpr std::uint32_t kMostWindows = 4096;
/// A frame holds its client as a child or a grandchild.
constexpr int kFrameDepth = 2;
constexpr std::uint32_t kOnAllDesktops = 0xFFFFFFFF;
constexpr std::uint32_t kIconicState = 3;  // ICCCM 4.1.3.1

std::string hostName() {
  std::array<char, 256> name{};
  gethostname(name.data(), name.size() - 1);
  return name.data();
}

bool contains(const std::vector<std::uint32_t>& values, xcb_atom_t value) {
  return std::find(values.begin(), values.end(), value) != values.end();
}

/// As EWMH writes extents: left, right, top, bottom.
Extents extentsOf(const std::vector<std::uint32_t>& values) {
  if (values.size() < 4) return {};
  const auto value = [&](std::size_t index) { return static_cast<int>(std::min(values[index], 4096U)); };
  return {value(0), value(1), value(2), value(3)};
}

}  // namespace

PixelRect grown(const PixelRect& area, const Extents& by) {
  return {area.x - by.left, area.y - by.top, area.width + by.left + by.right,
          area.height + by.top + by.bottom};
}

PixelRect shrunk(const PixelRect& area, const Extents& by) {
  return grown(area, {-by.left, -by.right, -by.top, -by.bottom});
}

/// All that is asked about one window, sent at construction.
class WindowTree::Question {
 public:
  Question(const WindowTree& tree, xcb_window_t window)
      : tree_(tree),
        window_(window),
        attributes_(xcb_get_window_attributes(tree.connection_, window)),
        geometry_(xcb_get_geometry(tree.connection_, window)),
        position_(xcb_translate_coordinates(tree.connection_, window, tree.connection_.root(), 0, 0)),
        pid_(tree.connection_, window, tree.atoms_.pid, 1),
        machine_(tree.connection_, window, XCB_ATOM_WM_CLIENT_MACHINE),
        type_(tree.connection_, window, tree.atoms_.type),
        state_(tree.connection_, window, tree.atoms_.state),
        wmState_(tree.connection_, window, tree.atoms_.wmState, 1),
        desktop_(tree.connection_, window, tree.atoms_.desktop, 1),
        transientFor_(tree.connection_, window, XCB_ATOM_WM_TRANSIENT_FOR, 1),
        invisible_(tree.connection_, window, tree.atoms_.invisibleExtents, 4) {}

  /// Nothing for what is gone, or no window of a person's.
  std::optional<ClientWindow> answer() {
    const auto& connection = tree_.connection_;
    const auto attributes = waitForReply(connection, xcb_get_window_attributes_reply, attributes_);
    const auto geometry = waitForReply(connection, xcb_get_geometry_reply, geometry_);
    const auto position = waitForReply(connection, xcb_translate_coordinates_reply, position_);
    if (!attributes || !geometry || !position) return std::nullopt;
    if (attributes->override_redirect != 0 || attributes->_class != XCB_WINDOW_CLASS_INPUT_OUTPUT) {
      return std::nullopt;
    }
    ClientWindow window;
    window.id = window_;
    window.area = {position->dst_x, position->dst_y, geometry->width, geometry->height};
    readOwner(window);
    readType(window);
    readState(window, attributes->map_state == XCB_MAP_STATE_VIEWABLE);
    return window;
  }

 private:
  void readOwner(ClientWindow& window) {
    const auto pid = pid_.value();
    const std::string machine = machine_.text();
    if (pid && (machine.empty() || machine == tree_.machine_)) window.owner = static_cast<ProcessID>(*pid);
  }

  void readType(ClientWindow& window) {
    const auto& atoms = tree_.atoms_;
    const bool isTransient = transientFor_.value().value_or(XCB_NONE) != XCB_NONE;
    // The first that we know counts; without one it is a dialog or a normal window.
    const auto types = type_.values();
    const xcb_atom_t type = !types.empty() ? types.front()
                            : isTransient  ? atoms.typeDialog
                                           : atoms.typeNormal;
    window.isDesktop = type == atoms.typeDesktop;
    window.isDialog = isTransient || type == atoms.typeDialog;
    window.layer = type == atoms.typeNormal || type == atoms.typeDialog ? 0 : 1;
  }

  void readState(ClientWindow& window, bool isViewable) {
    const auto& atoms = tree_.atoms_;
    // What a window manager wrote that has ended holds no longer.
    const auto states = tree_.isManaged() ? state_.values() : std::vector<std::uint32_t>();
    const bool isIconic = wmState_.value() == kIconicState;
    const std::uint32_t desktop = desktop_.value().value_or(kOnAllDesktops);
    const bool isHere = !tree_.isManaged() || desktop == kOnAllDesktops || desktop == tree_.desktop_;
    window.isMinimized = contains(states, atoms.stateHidden) || (!isViewable && isIconic);
    window.isOnScreen = isViewable && isHere && !window.isMinimized;
    const bool isTall = contains(states, atoms.maximizedVertically);
    const bool isWide = contains(states, atoms.maximizedHorizontally);
    window.isMaximized = isTall && isWide;
    window.isHeld =
        isTall || isWide || contains(states, atoms.stateFullScreen) || contains(states, atoms.stateShaded);
    // Where the window manager does not know of shadows, a client draws a border in their place.
    if (tree_.managerSupports(atoms.invisibleExtents)) window.invisible = extentsOf(invisible_.values());
  }

  const WindowTree& tree_;
  const xcb_window_t window_;
  const xcb_get_window_attributes_cookie_t attributes_;
  const xcb_get_geometry_cookie_t geometry_;
  const xcb_translate_coordinates_cookie_t position_;
  X11Property pid_, machine_, type_, state_, wmState_, desktop_, transientFor_, invisible_;
};

WindowTree::WindowTree(const X11Connection& connection, const WindowAtoms& atoms)
    : connection_(connection),
      atoms_(atoms),
      manager_(runningWindowManager(connection, atoms.supportingWmCheck)),
      machine_(hostName()) {
  if (manager_ == XCB_NONE) return;
  X11Property supported(connection, connection.root(), atoms.supported);
  X11Property desktop(connection, connection.root(), atoms.currentDesktop, 1);
  const auto names = supported.values();
  supported_.insert(names.begin(), names.end());
  desktop_ = desktop.value().value_or(0);
}

std::vector<ClientWindow> WindowTree::windows() const {
  std::vector<Question> questions;
  const auto all = candidates();
  questions.reserve(all.size());
  for (const auto each : all) questions.emplace_back(*this, each);
  std::vector<ClientWindow> windows;
  for (auto question = questions.rbegin(); question != questions.rend(); ++question) {
    if (auto window = question->answer()) windows.push_back(*window);
  }
  if (connection_.isBroken()) windows.clear();
  return windows;
}

std::optional<ClientWindow> WindowTree::look(const ClientWindow& window) const {
  return Question(*this, window.id).answer();
}

std::vector<xcb_window_t> WindowTree::candidates() const {
  if (isManaged()) {
    for (const xcb_atom_t list : {atoms_.clientListStacking, atoms_.clientList}) {
      if (!managerSupports(list)) continue;
      return X11Property(connection_, connection_.root(), list, kMostWindows).values();
    }
  }
  auto children = childrenOf(connection_.root());
  // The topmost come last.
  if (children.size() > kMostWindows) children.erase(children.begin(), children.end() - kMostWindows);
  std::transform(children.begin(), children.end(), children.begin(),
                 [this](xcb_window_t child) { return clientIn(child); });
  return children;
}

/// A window manager marks each client with WM_STATE (ICCCM 4.1.3.1). Without one, a child of the root is its
/// own client; no frame has a class.
xcb_window_t WindowTree::clientIn(xcb_window_t top) const {
  X11Property windowClass(connection_, top, XCB_ATOM_WM_CLASS);
  std::vector<xcb_window_t> level{top};
  for (int depth = 0; depth <= kFrameDepth && level.size() <= kMostWindows; ++depth) {
    std::vector<X11Property> marks;
    marks.reserve(level.size());
    for (const auto window : level) marks.emplace_back(connection_, window, atoms_.wmState, 1);
    for (std::size_t index = 0; index < level.size(); ++index) {
      if (marks[index].value()) return level[index];
    }
    if (depth == 0 && !windowClass.text().empty()) break;
    std::vector<xcb_window_t> next;
    for (const auto window : level) {
      const auto children = childrenOf(window);
      next.insert(next.end(), children.begin(), children.end());
    }
    level = std::move(next);
  }
  return top;
}

xcb_window_t WindowTree::topOf(xcb_window_t window) const {
  for (int depth = 0; depth < 2 * kFrameDepth; ++depth) {
    const auto tree = waitForReply(connection_, xcb_query_tree_reply, xcb_query_tree(connection_, window));
    if (!tree || tree->parent == tree->root || tree->parent == XCB_NONE) break;
    window = tree->parent;
  }
  return window;
}

std::vector<xcb_window_t> WindowTree::childrenOf(xcb_window_t window) const {
  const auto tree = waitForReply(connection_, xcb_query_tree_reply, xcb_query_tree(connection_, window));
  if (!tree) return {};
  const auto* first = xcb_query_tree_children(tree.get());
  return {first, first + xcb_query_tree_children_length(tree.get())};
}

Extents WindowTree::frameOf(const ClientWindow& window) const {
  if (managerSupports(atoms_.frameExtents)) {
    return extentsOf(X11Property(connection_, window.id, atoms_.frameExtents, 4).values());
  }
  const auto top =
      waitForReply(connection_, xcb_get_geometry_reply, xcb_get_geometry(connection_, topOf(window.id)));
  if (!top) return {};
  const int border = 2 * top->border_width;
  const PixelRect outer{top->x, top->y, top->width + border, top->height + border};
  return {window.area.x - outer.x, outer.x + outer.width - window.area.x - window.area.width,
          window.area.y - outer.y, outer.y + outer.height - window.area.y - window.area.height};
}

}  // namespace kestrune::linux_platform
