#include "platform/linux/windows/RandRDisplayModes.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <future>
#include <thread>
#include <utility>

#include "platform/linux/x11/X11Properties.h"
#include "runtime/Log.h"

namespace kestrune::linux_platform {
namespace {

constexpr Logger kLog("App");
constexpr std::chrono::seconds kLayoutLimit{1};
constexpr std::chrono::milliseconds kWorkAreaLimit{300};
constexpr std::chrono::milliseconds kLookAgain{10};

std::string nameOfDisplay(const X11Server& server) {
  if (!server.address().name.empty()) return server.address().name;
  // Nothing in this program changes its environment.
  const char* name = std::getenv("DISPLAY");  // NOLINT(concurrency-mt-unsafe)
  return name != nullptr ? name : "";
}

/// Numbers of modes are new with each run of the X server.
bool looksLike(const DisplayMode& a, const DisplayMode& b) {
  return a.width == b.width && a.height == b.height && std::abs(a.refreshRate - b.refreshRate) < 0.01 &&
         a.isUsableForDesktop == b.isUsableForDesktop;
}

/// Nothing where no window manager runs.
std::vector<std::uint32_t> readWorkAreas(const X11Connection& connection) {
  const auto atoms = internAtoms(connection, {"_NET_SUPPORTING_WM_CHECK", "_NET_WORKAREA"});
  if (runningWindowManager(connection, atoms[0]) == XCB_NONE) return {};
  return X11Property(connection, connection.root(), atoms[1]).values();
}

}  // namespace

/// An output that shows something, and the screen around it.
struct RandRDisplayModes::Shown {
  const RandRScreen& screen;
  const RandRScreen::Output& output;
  const RandRScreen::Controller& controller;

  std::optional<DisplayMode> mode() const { return screen.describe(controller.mode, controller); }
  std::vector<DisplayMode> modes() const {
    std::vector<DisplayMode> all;
    for (const auto each : output.modes) {
      if (const auto described = screen.describe(each, controller)) all.push_back(*described);
    }
    return all;
  }
};

RandRDisplayModes::RandRDisplayModes(std::shared_ptr<X11Server> server, std::filesystem::path stateFolder)
    : server_(std::move(server)), records_(std::move(stateFolder), nameOfDisplay(*server_)) {
  giveBackAbandoned();
}

void RandRDisplayModes::withDisplay(DisplayID display, const Use& use) const {
  try {
    const auto connection = X11Connection::open(server_->address());
    const auto screen = readRandRScreen(*connection);
    if (!screen) return;
    const auto* output = screen->findOutput(display);
    const auto* controller = output != nullptr ? screen->controllerOf(*output) : nullptr;
    if (controller != nullptr) use(*connection, {*screen, *output, *controller});
  } catch (const X11Error&) {  // the X11Server says why
  }
}

std::optional<DisplayMode> RandRDisplayModes::currentMode(DisplayID display) const {
  std::optional<DisplayMode> mode;
  withDisplay(display, [&](const X11Connection&, const Shown& shown) { mode = shown.mode(); });
  return mode;
}

std::optional<std::vector<DisplayMode>> RandRDisplayModes::allModes(DisplayID display) const {
  std::optional<std::vector<DisplayMode>> modes;
  withDisplay(display, [&](const X11Connection&, const Shown& shown) { modes = shown.modes(); });
  return modes;
}

bool RandRDisplayModes::setMode(DisplayID display, const DisplayMode& mode) {
  bool isSet = false;
  withDisplay(display, [&](const X11Connection& connection, const Shown& shown) {
    const auto modes = shown.modes();
    const auto isMeant = [&](const DisplayMode& each) { return each.id == mode.id && looksLike(each, mode); };
    if (std::none_of(modes.begin(), modes.end(), isMeant)) return;
    const auto workAreas = readWorkAreas(connection);
    isSet = change(connection, shown, mode);
    if (isSet) waitForLayout(connection, shown.screen, workAreas);
  });
  return isSet;
}

bool RandRDisplayModes::change(const X11Connection& connection, const Shown& shown, const DisplayMode& mode) {
  const std::string& output = shown.output.name;
  const auto current = shown.mode();
  if (!current) return false;
  if (const auto ours = changed_.find(output);
      ours != changed_.end() && ours->second.original.id == mode.id) {
    if (!giveBack(connection, shown, ours->second)) return false;
    changed_.erase(ours);
    records_.remove(output);
    return true;
  }
  if (current->id == mode.id) return true;
  const RandRScreen next = withMode(shown.screen, shown.controller.id, mode);
  const auto before =
      changed_.find(output) != changed_.end() ? std::optional(changed_[output]) : std::nullopt;
  ModeRecord record = before.value_or(ModeRecord{*current, {}, {}});
  record.set = mode;
  for (std::size_t index = 0; index < next.controllers.size(); ++index) {
    const PixelRect& from = shown.screen.controllers[index].area;
    const PixelRect& to = next.controllers[index].area;
    if (from.x == to.x && from.y == to.y) continue;
    record.moves.push_back({next.controllers[index].id, from.x, from.y, to.x, to.y});
  }
  // The mode to go back to is what another program that runs has found, and that goes back to it.
  const bool isHeld = records_.isHeldByOther(output);
  if (!isHeld) records_.write(output, record);
  if (!applyRandRScreen(connection, shown.screen, next)) {
    if (!isHeld) before ? records_.write(output, *before) : records_.remove(output);
    return false;
  }
  changed_[output] = record;
  return true;
}

bool RandRDisplayModes::giveBack(const X11Connection& connection, const Shown& shown,
                                 const ModeRecord& record) const {
  const auto modes = shown.modes();
  auto original = std::find_if(modes.begin(), modes.end(), [&](const DisplayMode& each) {
    return each.id == record.original.id && looksLike(each, record.original);
  });
  if (original == modes.end()) {
    original = std::find_if(modes.begin(), modes.end(),
                            [&](const DisplayMode& each) { return looksLike(each, record.original); });
  }
  if (original == modes.end()) return false;
  RandRScreen next = withMode(shown.screen, shown.controller.id, *original);
  // The last move first: a display may have made room twice.
  for (auto move = record.moves.rbegin(); move != record.moves.rend(); ++move) {
    for (auto& each : next.controllers) {
      if (each.id != move->controller || each.area.x != move->toX || each.area.y != move->toY) continue;
      each.area.x = move->fromX;
      each.area.y = move->fromY;
    }
  }
  fitToControllers(next);
  return applyRandRScreen(connection, shown.screen, next);
}

void RandRDisplayModes::giveBackAbandoned() {
  for (const X11Display& display : server_->state()->layout.displays) {
    withDisplay(display.id, [&](const X11Connection& connection, const Shown& shown) {
      const std::string& output = shown.output.name;
      const auto record = records_.readAbandoned(output);
      const auto current = shown.mode();
      if (!record || !current) return;
      if (!looksLike(*current, record->set)) {
        records_.remove(output);  // the user has chosen another one since
      } else if (giveBack(connection, shown, *record)) {
        records_.remove(output);
        kLog.notice("Put back the mode of display " + output + " that the last run had changed");
        waitForLayout(connection, shown.screen, {});
      } else {
        kLog.error("The mode of display " + output + " that the last run had changed cannot be put back");
      }
    });
  }
}

void RandRDisplayModes::waitForLayout(const X11Connection& connection, const RandRScreen& before,
                                      const std::vector<std::uint32_t>& workAreas) const {
  const auto root =
      waitForReply(connection, xcb_get_geometry_reply, xcb_get_geometry(connection, connection.root()));
  const bool isResized = root && (root->width != before.area.width || root->height != before.area.height);
  const auto end = std::chrono::steady_clock::now() + kWorkAreaLimit;
  while (isResized && !workAreas.empty() && readWorkAreas(connection) == workAreas &&
         std::chrono::steady_clock::now() < end) {
    std::this_thread::sleep_for(kLookAgain);
  }
  const auto known = std::make_shared<std::promise<void>>();
  server_->refresh([known](const X11Server::State&) { known->set_value(); });
  known->get_future().wait_for(kLayoutLimit);
}

}  // namespace kestrune::linux_platform
