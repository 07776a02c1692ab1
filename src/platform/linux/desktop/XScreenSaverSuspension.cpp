#include "platform/linux/desktop/XScreenSaverSuspension.h"

#include <xcb/screensaver.h>

namespace kestrune::linux_platform {

XScreenSaverSuspension::XScreenSaverSuspension(std::string displayName)
    : displayName_(std::move(displayName)) {}

std::optional<std::string> XScreenSaverSuspension::hold() {
  if (isHeld()) return {};
  try {
    auto connection = X11Connection::open(displayName_);
    if (!connection->extension(xcb_screensaver_id)) return "the X server has no MIT-SCREEN-SAVER extension";
    const auto version =
        waitForReply(*connection, xcb_screensaver_query_version_reply,
                     xcb_screensaver_query_version(*connection, XCB_SCREENSAVER_MAJOR_VERSION,
                                                   XCB_SCREENSAVER_MINOR_VERSION));
    if (!version) return "the X server does not tell the version of its screen saver";
    const auto refusal = connection->check(xcb_screensaver_suspend_checked(*connection, 1));
    if (refusal || connection->isBroken()) {
      return "the X server does not suspend its screen saver: " + describe(refusal.get());
    }
    connection_ = std::move(connection);
    return {};
  } catch (const X11Error& failure) {
    return failure.localizedDescription();
  }
}

void XScreenSaverSuspension::release() {
  connection_.reset();
}

void XScreenSaverSuspension::advance() {
  if (!connection_) return;
  while (const XcbOwned<xcb_generic_event_t> event{xcb_poll_for_event(*connection_)}) {
  }
  if (connection_->isBroken()) connection_.reset();
}

}  // namespace kestrune::linux_platform
