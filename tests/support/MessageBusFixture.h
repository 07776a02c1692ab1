#pragma once

#include <filesystem>
#include <stdexcept>
#include <string>

#include "support/ChildProcess.h"
#include "support/TemporaryDirectory.h"

namespace kestrune::testing {

/// A message bus (dbus-daemon) of one test's own, with its files in a folder of the test's; it ends with this
/// object, or with the test process however that dies.
class MessageBus {
 public:
  explicit MessageBus(const std::filesystem::path& folder)
      : socket_((folder / "bus").string()), daemon_(commandLine(folder, socket_)) {
    if (!eventually([&] { return std::filesystem::exists(socket_); })) {
      throw std::runtime_error("dbus-daemon did not start");
    }
  }

  std::string address() const { return "unix:path=" + socket_; }

 private:
  static std::string commandLine(const std::filesystem::path& folder, const std::string& socket) {
    const auto configuration = folder / "bus.conf";
    writeText(configuration, "<busconfig><type>session</type><listen>unix:path=" + socket +
                                 "</listen><policy context=\"default\"><allow send_destination=\"*\"/>"
                                 "<allow eavesdrop=\"false\"/><allow own=\"*\"/></policy></busconfig>");
    return "dbus-daemon --nofork --config-file=" + configuration.string();
  }

  const std::string socket_;
  const ChildProcess daemon_;
};

}  // namespace kestrune::testing
