#pragma once

#include <string>

#include "model/RemoteControl.h"

namespace kestrune {

/// Where the input of a viewer goes. Called on the queue of the route that the viewer uses; must not block.
/// Coordinates are normalized to what the viewer sees, (0, 0) at its top left, and unchecked; so are texts
/// and keys. The result is what the viewer is told.
///
/// What an implementation does not override answers as a host that has no such thing; the class itself is
/// the input of a host that takes none.
class RemoteInput {
 public:
  virtual ~RemoteInput() = default;

  // In control mode
  virtual RemoteTapResult onRemoteTap(double /*x*/, double /*y*/) { return kNoTarget; }
  virtual RemoteTapResult onRemotePointer(RemotePointerPhase, double /*x*/, double /*y*/) {
    return kNoTarget;
  }
  /// Fractions of the picture's size.
  virtual RemoteTapResult onRemoteMove(double /*dx*/, double /*dy*/, double /*sensitivity*/) {
    return kNoTarget;
  }
  virtual RemoteTapResult onRemoteClick(RemoteMouseButton) { return kNoTarget; }
  virtual RemoteTapResult onRemoteButton(bool /*down*/) { return kNoTarget; }
  virtual RemoteTapResult onRemoteScroll(double /*dx*/, double /*dy*/) { return kNoTarget; }
  virtual RemoteTapResult onRemoteText(const std::string& /*text*/) { return kNoTarget; }
  virtual RemoteTapResult onRemoteKey(const std::string& /*key*/) { return kNoTarget; }
  /// Control mode has ended, at the viewer's request or with its connection.
  virtual void onRemoteControlEnded() {}

  // In video mode
  virtual RemoteTapResult onRemotePlayPause() { return RemoteTapResult::eventFailed; }
  virtual RemoteTapResult onRemoteFullscreen() { return RemoteTapResult::eventFailed; }

  // In both modes
  virtual RemoteTapResult onRemoteOpenChrome() { return RemoteTapResult::eventFailed; }
  virtual RemoteTapResult onRemoteResetBrowser() { return RemoteTapResult::eventFailed; }

 private:
  static constexpr auto kNoTarget = RemoteTapResult::displayRequired;
};

}  // namespace kestrune
