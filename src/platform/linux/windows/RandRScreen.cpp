#include "platform/linux/windows/RandRScreen.h"

#include <algorithm>

#include "platform/linux/x11/DisplayLayout.h"

namespace kestrune::linux_platform {
namespace {

constexpr int kPanningVersion = 103;

double refreshRate(const xcb_randr_mode_info_t& mode) {
  double lines = mode.vtotal;
  if ((mode.mode_flags & XCB_RANDR_MODE_FLAG_DOUBLE_SCAN) != 0) lines *= 2;
  if ((mode.mode_flags & XCB_RANDR_MODE_FLAG_INTERLACE) != 0) lines /= 2;
  const double pixels = lines * mode.htotal;
  return pixels > 0 ? mode.dot_clock / pixels : 0;
}

bool isOnItsSide(std::uint16_t rotation) {
  return (rotation & (XCB_RANDR_ROTATION_ROTATE_90 | XCB_RANDR_ROTATION_ROTATE_270)) != 0;
}

bool overlap(const PixelRect& a, const PixelRect& b) {
  return a.x < b.x + b.width && b.x < a.x + a.width && a.y < b.y + b.height && b.y < a.y + a.height;
}

/// One exchange with the server per controller and output; the replies of both versions have one form.
template <class Reply>
void readParts(const X11Connection& connection, const Reply& resources, const xcb_randr_crtc_t* crtcs,
               const xcb_randr_output_t* outputs, RandRScreen& screen) {
  for (int index = 0; index < resources.num_crtcs; ++index) {
    const auto crtc =
        waitForReply(connection, xcb_randr_get_crtc_info_reply,
                     xcb_randr_get_crtc_info(connection, crtcs[index], resources.config_timestamp));
    if (!crtc || crtc->mode == XCB_NONE) continue;
    const auto* fed = xcb_randr_get_crtc_info_outputs(crtc.get());
    screen.controllers.push_back({crtcs[index],
                                  {crtc->x, crtc->y, crtc->width, crtc->height},
                                  crtc->mode,
                                  crtc->rotation,
                                  {fed, fed + xcb_randr_get_crtc_info_outputs_length(crtc.get())}});
  }
  for (int index = 0; index < resources.num_outputs; ++index) {
    const auto output =
        waitForReply(connection, xcb_randr_get_output_info_reply,
                     xcb_randr_get_output_info(connection, outputs[index], resources.config_timestamp));
    if (!output) continue;
    const auto* name = xcb_randr_get_output_info_name(output.get());
    const auto* modes = xcb_randr_get_output_info_modes(output.get());
    screen.outputs.push_back({outputs[index],
                              {name, name + xcb_randr_get_output_info_name_length(output.get())},
                              output->crtc,
                              {modes, modes + xcb_randr_get_output_info_modes_length(output.get())}});
  }
}

bool readResources(const X11Connection& connection, int version, RandRScreen& screen) {
  // The first one asks the monitors anew, which may take a second.
  if (version < kPanningVersion) {
    const auto reply = waitForReply(connection, xcb_randr_get_screen_resources_reply,
                                    xcb_randr_get_screen_resources(connection, connection.root()));
    if (!reply) return false;
    screen.configured = reply->config_timestamp;
    for (auto mode = xcb_randr_get_screen_resources_modes_iterator(reply.get()); mode.rem > 0;
         xcb_randr_mode_info_next(&mode)) {
      screen.modes[mode.data->id] = *mode.data;
    }
    readParts(connection, *reply, xcb_randr_get_screen_resources_crtcs(reply.get()),
              xcb_randr_get_screen_resources_outputs(reply.get()), screen);
    return true;
  }
  const auto reply = waitForReply(connection, xcb_randr_get_screen_resources_current_reply,
                                  xcb_randr_get_screen_resources_current(connection, connection.root()));
  if (!reply) return false;
  screen.configured = reply->config_timestamp;
  for (auto mode = xcb_randr_get_screen_resources_current_modes_iterator(reply.get()); mode.rem > 0;
       xcb_randr_mode_info_next(&mode)) {
    screen.modes[mode.data->id] = *mode.data;
  }
  readParts(connection, *reply, xcb_randr_get_screen_resources_current_crtcs(reply.get()),
            xcb_randr_get_screen_resources_current_outputs(reply.get()), screen);
  return true;
}

/// Changes the screen while no other client can.
class ScreenChange {
 public:
  explicit ScreenChange(const X11Connection& connection, int millimetresPerThousandPixels)
      : connection_(connection), millimetres_(millimetresPerThousandPixels) {
    xcb_grab_server(connection_);
  }
  ~ScreenChange() {
    xcb_ungrab_server(connection_);
    connection_.roundTrip();
  }
  ScreenChange(const ScreenChange&) = delete;
  ScreenChange& operator=(const ScreenChange&) = delete;

  bool resize(const PixelRect& area) const {
    const auto millimetres = [&](int pixels) {
      return static_cast<std::uint32_t>(std::max(1, pixels * millimetres_ / 1000));
    };
    return !connection_.check(xcb_randr_set_screen_size_checked(
               connection_, connection_.root(), static_cast<std::uint16_t>(area.width),
               static_cast<std::uint16_t>(area.height), millimetres(area.width), millimetres(area.height))) &&
           !connection_.isBroken();
  }

  bool configure(const RandRScreen::Controller& controller, xcb_timestamp_t configured) const {
    const auto reply =
        waitForReply(connection_, xcb_randr_set_crtc_config_reply,
                     xcb_randr_set_crtc_config(
                         connection_, controller.id, XCB_CURRENT_TIME, configured,
                         static_cast<std::int16_t>(controller.area.x),
                         static_cast<std::int16_t>(controller.area.y), controller.mode, controller.rotation,
                         static_cast<std::uint32_t>(controller.outputs.size()), controller.outputs.data()));
    return reply && reply->status == XCB_RANDR_SET_CONFIG_SUCCESS;
  }

  /// A screen that is larger than the display and moves with the pointer would not fit the new mode.
  void stopPanning(xcb_randr_crtc_t controller) const {
    const auto panning = waitForReply(connection_, xcb_randr_get_panning_reply,
                                      xcb_randr_get_panning(connection_, controller));
    if (!panning || (panning->width == 0 && panning->height == 0)) return;
    waitForReply(
        connection_, xcb_randr_set_panning_reply,
        xcb_randr_set_panning(connection_, controller, XCB_CURRENT_TIME, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0));
  }

 private:
  const X11Connection& connection_;
  const int millimetres_;
};

}  // namespace

const RandRScreen::Output* RandRScreen::findOutput(DisplayID display) const {
  const auto found =
      std::find_if(outputs.begin(), outputs.end(), [&](const Output& each) { return each.id == display; });
  return found == outputs.end() ? nullptr : &*found;
}

const RandRScreen::Controller* RandRScreen::controllerOf(const Output& output) const {
  const auto found = std::find_if(controllers.begin(), controllers.end(),
                                  [&](const Controller& each) { return each.id == output.controller; });
  return found == controllers.end() ? nullptr : &*found;
}

std::optional<DisplayMode> RandRScreen::describe(xcb_randr_mode_t mode, const Controller& controller) const {
  const auto found = modes.find(mode);
  if (found == modes.end()) return std::nullopt;
  const xcb_randr_mode_info_t& info = found->second;
  DisplayMode described{mode, info.width, info.height, refreshRate(info), true};
  if (isOnItsSide(controller.rotation)) std::swap(described.width, described.height);
  constexpr std::uint32_t kPoor = XCB_RANDR_MODE_FLAG_INTERLACE | XCB_RANDR_MODE_FLAG_DOUBLE_SCAN;
  described.isUsableForDesktop = (info.mode_flags & kPoor) == 0;
  return described;
}

std::optional<RandRScreen> readRandRScreen(const X11Connection& connection) {
  const int version = randrVersion(connection);
  if (version < 102) return std::nullopt;
  RandRScreen screen;
  if (!readResources(connection, version, screen)) return std::nullopt;
  const auto root =
      waitForReply(connection, xcb_get_geometry_reply, xcb_get_geometry(connection, connection.root()));
  const auto range = waitForReply(connection, xcb_randr_get_screen_size_range_reply,
                                  xcb_randr_get_screen_size_range(connection, connection.root()));
  if (!root || !range) return std::nullopt;
  screen.area = {0, 0, root->width, root->height};
  screen.smallest = {0, 0, range->min_width, range->min_height};
  screen.largest = {0, 0, range->max_width, range->max_height};
  // As it was when the connection was made, both.
  const xcb_screen_t& known = connection.screen();
  screen.millimetresPerThousandPixels =
      known.width_in_pixels > 0 ? 1000 * known.width_in_millimeters / known.width_in_pixels : 0;
  return screen;
}

void fitToControllers(RandRScreen& screen) {
  screen.area = screen.smallest;
  for (const auto& each : screen.controllers) {
    screen.area.width = std::max(screen.area.width, each.area.x + each.area.width);
    screen.area.height = std::max(screen.area.height, each.area.y + each.area.height);
  }
}

RandRScreen withMode(RandRScreen screen, xcb_randr_crtc_t controller, const DisplayMode& mode) {
  const auto changed = std::find_if(screen.controllers.begin(), screen.controllers.end(),
                                    [&](const auto& each) { return each.id == controller; });
  if (changed == screen.controllers.end()) return screen;
  const PixelRect old = changed->area;
  changed->mode = mode.id;
  changed->area.width = mode.width;
  changed->area.height = mode.height;
  const auto isRight = [&](const auto& each) { return each.area.x >= old.x + old.width; };
  const auto isBelow = [&](const auto& each) { return each.area.y >= old.y + old.height; };
  const auto isHit = [&](const auto& each) {
    return each.id != controller && !overlap(each.area, old) && overlap(each.area, changed->area);
  };
  const auto& all = screen.controllers;
  const bool movesRight =
      std::any_of(all.begin(), all.end(), [&](const auto& each) { return isHit(each) && isRight(each); });
  const bool movesDown = std::any_of(all.begin(), all.end(), [&](const auto& each) {
    return isHit(each) && isBelow(each) && !isRight(each);
  });
  for (auto& each : screen.controllers) {
    if (movesRight && isRight(each)) {
      each.area.x += mode.width - old.width;
    } else if (movesDown && isBelow(each)) {
      each.area.y += mode.height - old.height;
    }
  }
  fitToControllers(screen);
  return screen;
}

bool applyRandRScreen(const X11Connection& connection, const RandRScreen& now, const RandRScreen& next) {
  if (next.area.width > next.largest.width || next.area.height > next.largest.height) return false;
  std::vector<std::size_t> changed;
  for (std::size_t index = 0; index < next.controllers.size(); ++index) {
    if (!(next.controllers[index] == now.controllers[index])) changed.push_back(index);
  }
  // Controllers may only show what is there: the screen grows before them and shrinks after them.
  const PixelRect both{0, 0, std::max(now.area.width, next.area.width),
                       std::max(now.area.height, next.area.height)};
  const bool canPan = randrVersion(connection) >= kPanningVersion;
  const ScreenChange change(connection, now.millimetresPerThousandPixels);
  const auto make = [&](const RandRScreen& wanted, const PixelRect& present) {
    if (both != present && !change.resize(both)) return false;
    const bool areSet = std::all_of(changed.begin(), changed.end(), [&](std::size_t index) {
      return change.configure(wanted.controllers[index], now.configured);
    });
    return areSet && (wanted.area == both || change.resize(wanted.area));
  };
  for (const std::size_t index : changed) {
    if (canPan) change.stopPanning(next.controllers[index].id);
  }
  if (make(next, now.area)) return true;
  if (!connection.isBroken()) make(now, PixelRect{});
  return false;
}

}  // namespace kestrune::linux_platform
