#pragma once

#include <memory>
#include <optional>
#include <string>

#include "platform/linux/x11/X11Connection.h"

namespace kestrune::linux_platform {

/// Holds off the X server's own screen saver and with it the power saving of the display (MIT-SCREEN-SAVER
/// 1.1), over a connection of its own: it ends with the connection. Confined to one thread; hold() waits for
/// the server's answer.
class XScreenSaverSuspension {
 public:
  /// An empty name means the DISPLAY of the environment.
  explicit XScreenSaverSuspension(std::string displayName);

  /// Tries, if it is not held. What went wrong, or nothing if it is held now.
  std::optional<std::string> hold();
  void release();
  /// Notices the loss of the connection, to be called when the descriptor is ready.
  void advance();

  /// Negative while it is not held. advance() and release() may close it.
  int descriptor() const { return connection_ ? connection_->descriptor() : -1; }
  bool isHeld() const { return connection_ != nullptr; }

 private:
  const std::string displayName_;
  std::unique_ptr<X11Connection> connection_;  // present while held
};

}  // namespace kestrune::linux_platform
