#pragma once

#include <xcb/randr.h>

#include <map>
#include <optional>
#include <string>
#include <vector>

#include "platform/DisplayModes.h"
#include "platform/linux/x11/X11Connection.h"

namespace kestrune::linux_platform {

/// What the RandR extension (1.2 at least) shows of a screen: which controller (CRTC) feeds which outputs, in
/// which mode, from which part of the screen. All sizes in pixels.
struct RandRScreen {
  struct Controller {
    xcb_randr_crtc_t id = XCB_NONE;
    PixelRect area;  // rotated
    xcb_randr_mode_t mode = XCB_NONE;
    std::uint16_t rotation = XCB_RANDR_ROTATION_ROTATE_0;
    std::vector<xcb_randr_output_t> outputs;

    friend bool operator==(const Controller&, const Controller&) = default;
  };
  struct Output {
    xcb_randr_output_t id = XCB_NONE;
    std::string name;
    xcb_randr_crtc_t controller = XCB_NONE;
    std::vector<xcb_randr_mode_t> modes;
  };

  xcb_timestamp_t configured = 0;  // the server refuses a change of what is not the newest
  std::map<xcb_randr_mode_t, xcb_randr_mode_info_t> modes;
  std::vector<Controller> controllers;  // those that show something
  std::vector<Output> outputs;
  PixelRect area;      // of the screen
  PixelRect smallest;  // the limits of that
  PixelRect largest;
  int millimetresPerThousandPixels = 0;

  const Output* findOutput(DisplayID display) const;
  /// What shows on an output; null where nothing does.
  const Controller* controllerOf(const Output& output) const;
  /// A mode as it looks on a controller that may be rotated.
  std::optional<DisplayMode> describe(xcb_randr_mode_t mode, const Controller& controller) const;
};

/// Nothing without RandR, or on a broken connection.
std::optional<RandRScreen> readRandRScreen(const X11Connection& connection);

/// The same screen with another mode on one controller, which keeps its place. The others keep theirs, but
/// for those on its right or below it that it would grow into: these move on with all that is there. The size
/// of the screen is what its controllers need.
RandRScreen withMode(RandRScreen screen, xcb_randr_crtc_t controller, const DisplayMode& mode);
/// Gives the screen the size that its controllers need.
void fitToControllers(RandRScreen& screen);

/// Makes the screen as `next` says, with the server grabbed. False if the server refused any of it: then it
/// is as `now` says again.
bool applyRandRScreen(const X11Connection& connection, const RandRScreen& now, const RandRScreen& next);

}  // namespace kestrune::linux_platform
