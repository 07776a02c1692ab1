#include "platform/linux/x11/DisplayLayout.h"

#include <xcb/randr.h>

#include <algorithm>

#include "platform/linux/x11/X11Properties.h"

namespace kestrune::linux_platform {

namespace {

struct Found {
  X11Display display;
  bool isPrimary = false;
};

std::vector<Found> readMonitors(const X11Connection& connection) {
  std::vector<Found> found;
  const auto reply = waitForReply(connection, xcb_randr_get_monitors_reply,
                                  xcb_randr_get_monitors(connection, connection.root(), 1));
  if (!reply) return found;
  for (auto monitors = xcb_randr_get_monitors_monitors_iterator(reply.get()); monitors.rem > 0;
       xcb_randr_monitor_info_next(&monitors)) {
    const xcb_randr_monitor_info_t& monitor = *monitors.data;
    if (monitor.width == 0 || monitor.height == 0) continue;
    // A monitor that some client made up has no output; its name is then what stays the same.
    const DisplayID id = xcb_randr_monitor_info_outputs_length(&monitor) > 0
                             ? *xcb_randr_monitor_info_outputs(&monitor)
                             : monitor.name;
    found.push_back({{id, {monitor.x, monitor.y, monitor.width, monitor.height}}, monitor.primary != 0});
  }
  return found;
}

std::vector<Found> readOutputs(const X11Connection& connection) {
  std::vector<Found> found;
  const auto resources = waitForReply(connection, xcb_randr_get_screen_resources_reply,
                                      xcb_randr_get_screen_resources(connection, connection.root()));
  if (!resources) return found;
  const auto primary = waitForReply(connection, xcb_randr_get_output_primary_reply,
                                    xcb_randr_get_output_primary(connection, connection.root()));
  const xcb_randr_crtc_t* crtcs = xcb_randr_get_screen_resources_crtcs(resources.get());
  const int count = xcb_randr_get_screen_resources_crtcs_length(resources.get());
  for (int i = 0; i < count; ++i) {
    const auto crtc =
        waitForReply(connection, xcb_randr_get_crtc_info_reply,
                     xcb_randr_get_crtc_info(connection, crtcs[i], resources->config_timestamp));
    if (!crtc || crtc->width == 0 || crtc->height == 0) continue;
    const int outputCount = xcb_randr_get_crtc_info_outputs_length(crtc.get());
    if (outputCount == 0) continue;
    const xcb_randr_output_t* outputs = xcb_randr_get_crtc_info_outputs(crtc.get());
    const bool isPrimary =
        primary && std::find(outputs, outputs + outputCount, primary->output) != outputs + outputCount;
    found.push_back({{outputs[0], {crtc->x, crtc->y, crtc->width, crtc->height}}, isPrimary});
  }
  return found;
}

std::vector<Found> readRoot(const X11Connection& connection) {
  const auto reply =
      waitForReply(connection, xcb_get_geometry_reply, xcb_get_geometry(connection, connection.root()));
  if (!reply) return {};
  return {{{connection.root(), {0, 0, reply->width, reply->height}}, true}};
}

Rect toGlobal(const PixelRect& area, Point origin) {
  return {area.x - origin.x, area.y - origin.y, static_cast<double>(area.width),
          static_cast<double>(area.height)};
}

PixelRect intersection(const PixelRect& a, const PixelRect& b) {
  const int left = std::max(a.x, b.x);
  const int top = std::max(a.y, b.y);
  const int width = std::min(a.x + a.width, b.x + b.width) - left;
  const int height = std::min(a.y + a.height, b.y + b.height) - top;
  return width > 0 && height > 0 ? PixelRect{left, top, width, height} : PixelRect{};
}

enum WorkAreaAtom : std::size_t { kWorkArea, kCurrentDesktop, kSupportingWmCheck };

}  // namespace

const X11Display* DisplayLayout::find(DisplayID id) const {
  const auto found =
      std::find_if(displays.begin(), displays.end(), [id](const X11Display& each) { return each.id == id; });
  return found == displays.end() ? nullptr : &*found;
}

Point DisplayLayout::globalOrigin() const {
  if (displays.empty()) return {};
  return {static_cast<double>(displays.front().area.x), static_cast<double>(displays.front().area.y)};
}

Rect DisplayLayout::bounds(const X11Display& display) const {
  return toGlobal(display.area, globalOrigin());
}

Rect DisplayLayout::visibleBounds(const X11Display& display) const {
  return display.workArea.width > 0 ? toGlobal(display.workArea, globalOrigin()) : bounds(display);
}

int randrVersion(const X11Connection& connection, std::uint32_t newest) {
  if (!connection.extension(xcb_randr_id)) return 0;
  const auto reply =
      waitForReply(connection, xcb_randr_query_version_reply, xcb_randr_query_version(connection, 1, newest));
  return reply ? static_cast<int>(reply->major_version * 100 + reply->minor_version) : 0;
}

DisplayLayout readDisplayLayout(const X11Connection& connection, std::uint32_t newestRandr) {
  const int version = randrVersion(connection, newestRandr);
  std::vector<Found> found;
  if (version >= 105) found = readMonitors(connection);
  if (found.empty() && version >= 102) found = readOutputs(connection);
  if (found.empty() && version < 102) found = readRoot(connection);

  auto mainDisplay =
      std::find_if(found.begin(), found.end(), [](const Found& each) { return each.isPrimary; });
  if (mainDisplay == found.end()) {
    mainDisplay = std::find_if(found.begin(), found.end(), [](const Found& each) {
      return each.display.area.x == 0 && each.display.area.y == 0;
    });
  }
  if (mainDisplay != found.end()) std::rotate(found.begin(), mainDisplay, mainDisplay + 1);

  DisplayLayout layout;
  for (const Found& each : found) {
    const bool isMirror =
        std::any_of(layout.displays.begin(), layout.displays.end(),
                    [&each](const X11Display& other) { return other.area == each.display.area; });
    if (!isMirror) layout.displays.push_back(each.display);
  }
  return layout;
}

DisplayLayoutWatch::DisplayLayoutWatch(const X11Connection& connection) {
  if (const auto randr = connection.extension(xcb_randr_id)) {
    randrEvent_ = randr->firstEvent;
    xcb_randr_select_input(connection, connection.root(),
                           XCB_RANDR_NOTIFY_MASK_SCREEN_CHANGE | XCB_RANDR_NOTIFY_MASK_CRTC_CHANGE |
                               XCB_RANDR_NOTIFY_MASK_OUTPUT_CHANGE);
  }
  // Monitors that a client makes or removes are announced in this way only.
  const std::uint32_t wantsStructure = XCB_EVENT_MASK_STRUCTURE_NOTIFY;
  xcb_change_window_attributes(connection, connection.root(), XCB_CW_EVENT_MASK, &wantsStructure);
  connection.flush();
}

bool DisplayLayoutWatch::isChange(const xcb_generic_event_t& event) const {
  const int type = event.response_type & 0x7f;
  if (type == XCB_CONFIGURE_NOTIFY) return true;
  return randrEvent_ &&
         (type == *randrEvent_ + XCB_RANDR_SCREEN_CHANGE_NOTIFY || type == *randrEvent_ + XCB_RANDR_NOTIFY);
}

WorkAreas::WorkAreas(const X11Connection& connection)
    : connection_(connection),
      atoms_(internAtoms(connection, {"_NET_WORKAREA", "_NET_CURRENT_DESKTOP", "_NET_SUPPORTING_WM_CHECK"})) {
  const std::uint32_t wanted = XCB_EVENT_MASK_STRUCTURE_NOTIFY | XCB_EVENT_MASK_PROPERTY_CHANGE;
  xcb_change_window_attributes(connection, connection.root(), XCB_CW_EVENT_MASK, &wanted);
  connection.flush();
}

void WorkAreas::read(DisplayLayout& layout) const {
  for (X11Display& display : layout.displays) display.workArea = {};
  if (runningWindowManager(connection_, atoms_[kSupportingWmCheck]) == XCB_NONE) return;
  X11Property areas(connection_, connection_.root(), atoms_[kWorkArea]);
  X11Property desktop(connection_, connection_.root(), atoms_[kCurrentDesktop], 1);
  const auto values = areas.values();
  std::size_t first = std::size_t{4} * desktop.value().value_or(0);
  if (first + 4 > values.size()) first = 0;  // a window manager may tell one area for all desktops
  if (first + 4 > values.size()) return;
  const auto value = [&](std::size_t index) { return static_cast<int>(values[first + index]); };
  const PixelRect told{value(0), value(1), value(2), value(3)};
  for (X11Display& display : layout.displays) display.workArea = intersection(display.area, told);
}

bool WorkAreas::isChange(const xcb_generic_event_t& event) const {
  if ((event.response_type & 0x7f) != XCB_PROPERTY_NOTIFY) return false;
  const auto& notify = reinterpret_cast<const xcb_property_notify_event_t&>(event);
  return std::find(atoms_.begin(), atoms_.end(), notify.atom) != atoms_.end();
}

}  // namespace kestrune::linux_platform
