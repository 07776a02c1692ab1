#pragma once

#include <chrono>
#include <optional>
#include <string>
#include <vector>

#include "platform/linux/files/UniqueDescriptor.h"
#include "platform/linux/virtualdisplay/OwnedProcess.h"
#include "platform/linux/virtualdisplay/ServerFiles.h"
#include "platform/linux/x11/EventFd.h"
#include "platform/linux/x11/X11Connection.h"

namespace kestrune::linux_platform {

/// An Xvfb of this process' own, with one screen, which lets in only the holders of its key and listens on no
/// network, and a window manager on it where there is one (openbox). Both end with this object, and with the
/// process however that dies. Confined to one thread, which must live as long.
class PrivateXServer {
 public:
  struct Screen {
    int width = 0;  // pixels
    int height = 0;
    int dotsPerInch = 0;
  };

  static bool isInstalled();

  /// Starts the server and does not wait until it is ready. Throws a std::system_error if it cannot be
  /// started.
  explicit PrivateXServer(const Screen& screen);
  /// Ends the server in good order: it leaves no file behind.
  ~PrivateXServer();
  PrivateXServer(const PrivateXServer&) = delete;
  PrivateXServer& operator=(const PrivateXServer&) = delete;

  /// Waits until programs can connect (kStartLimit at most); false if the server ended, or `stop` was
  /// signalled.
  bool waitUntilReady(const EventFd& stop);
  static constexpr std::chrono::seconds kStartLimit{10};
  /// Gives the screen a plain background and an arrow, starts the window manager and waits for that
  /// (kWindowManagerLimit at most). Throws an X11Error.
  void furnish();
  static constexpr std::chrono::milliseconds kWindowManagerLimit{500};
  /// Until the server has ended or `stop` was signalled.
  void waitForEnd(const EventFd& stop);
  /// Until no program but the window manager is connected (kClientLimit at most): a browser that was asked to
  /// end needs its display to save what it has open.
  void waitForClients();
  static constexpr std::chrono::milliseconds kClientLimit{2500};

  /// Once it is ready.
  const X11Address& address() const { return address_; }
  /// What a program's environment needs for its windows to open here.
  std::vector<std::string> environment() const;
  /// How it ended by itself, for the log; nothing if it has not.
  std::optional<std::string> failure();

 private:
  enum class Wait { ready, silent, over };
  Wait wait(const EventFd& stop, std::chrono::milliseconds limit);
  void readMessages();
  void startWindowManager();
  void waitForWindowManager(const X11Connection& connection);

  const ServerFiles files_;
  UniqueDescriptor numberOutput_;   // the server tells its display number by it
  UniqueDescriptor messageOutput_;  // its standard error
  std::string number_;
  std::string messages_;  // the newest, kMostMessages at most
  X11Address address_;
  std::optional<OwnedProcess> server_;
  std::optional<OwnedProcess> windowManager_;  // ends first
};

}  // namespace kestrune::linux_platform
