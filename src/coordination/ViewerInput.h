#pragma once

#include <memory>
#include <string>

#include "viewer/RemoteInput.h"

namespace kestrune {

class RemoteControlService;

/// The input of every route's viewer, handed straight to the services on the queue of the route, past the
/// main queue and its state. Once a service is gone, eventFailed.
class ViewerInput final : public RemoteInput {
 public:
  explicit ViewerInput(std::weak_ptr<RemoteControlService> remoteControl);

  RemoteTapResult onRemoteTap(double x, double y) override;
  RemoteTapResult onRemotePointer(RemotePointerPhase phase, double x, double y) override;
  RemoteTapResult onRemoteMove(double dx, double dy, double sensitivity) override;
  RemoteTapResult onRemoteClick(RemoteMouseButton button) override;
  RemoteTapResult onRemoteButton(bool down) override;
  RemoteTapResult onRemoteScroll(double dx, double dy) override;
  RemoteTapResult onRemoteText(const std::string& text) override;
  RemoteTapResult onRemoteKey(const std::string& key) override;
  void onRemoteControlEnded() override;
  RemoteTapResult onRemotePlayPause() override;
  RemoteTapResult onRemoteFullscreen() override;

 private:
  template <class... Parameters, class... Arguments>
  RemoteTapResult forward(RemoteTapResult (RemoteControlService::*operation)(Parameters...),
                          const Arguments&... arguments) const;

  const std::weak_ptr<RemoteControlService> remoteControl_;
};

}  // namespace kestrune
