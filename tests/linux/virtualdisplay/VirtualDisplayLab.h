#pragma once

#include <sys/socket.h>

#include <filesystem>
#include <memory>
#include <string>

#include "platform/linux/capture/X11ScreenCapture.h"
#include "platform/linux/input/XTestInputEvents.h"
#include "platform/linux/virtualdisplay/XvfbVirtualDisplays.h"
#include "platform/linux/x11/X11Displays.h"
#include "platform/linux/x11/X11PrivacyPermissions.h"
#include "support/TemporaryDirectory.h"

namespace kestrune::linux_platform {

inline ServerPorts portsOf(const std::shared_ptr<X11Server>& server) {
  ServerPorts ports;
  ports.displays = std::make_shared<X11Displays>(server);
  ports.permissions = std::make_shared<X11PrivacyPermissions>(server);
  ports.inputEvents = std::make_shared<XTestInputEvents>(server);
  ports.screenCapture = std::make_shared<X11ScreenCapture>(server);
  return ports;
}

inline VirtualDisplayDescriptor descriptor() {
  VirtualDisplayDescriptor made;
  made.name = "A display";
  made.maxPixelsWide = 640;
  made.maxPixelsHigh = 480;
  made.widthInMillimeters = 169.33;
  made.heightInMillimeters = 127;
  return made;
}
inline VirtualDisplaySettings settings(int width, int height, bool hiDPI = false) {
  return {hiDPI, {{width, height, 60}}};
}

/// What a program is given to open its windows on a display.
struct Entrance {
  explicit Entrance(const std::vector<std::string>& environment) {
    for (const auto& entry : environment) {
      if (entry.starts_with("DISPLAY=")) address.name = entry.substr(8);
      if (entry.starts_with("XAUTHORITY=")) authority = entry.substr(11);
    }
    const std::string entry = readText(authority);
    if (entry.size() > 16) address.cookie = entry.substr(entry.size() - 16);
  }

  X11Address address;
  std::filesystem::path authority;

  std::filesystem::path socket() const { return "/tmp/.X11-unix/X" + address.name.substr(1); }
};

/// The process that serves a connection.
inline pid_t serverOf(const X11Connection& connection) {
  ucred peer{};
  socklen_t size = sizeof peer;
  getsockopt(connection.descriptor(), SOL_SOCKET, SO_PEERCRED, &peer, &size);
  return peer.pid;
}

}  // namespace kestrune::linux_platform
