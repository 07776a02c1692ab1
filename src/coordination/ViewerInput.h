#pragma once

#include <functional>
#include <memory>
#include <string>

#include "viewer/RemoteInput.h"

namespace kestrune {

class RemoteControlService;

/// The input of every route's viewer, handed straight to the services on the queue of the route, past the
/// main queue and its state. Once a service is gone, eventFailed. The browser alone belongs to the main
/// queue: what is asked of it is answered before it is done.
class ViewerInput final : public RemoteInput {
 public:
  /// The two functions are called on the queue of the route and must not block.
  ViewerInput(std::weak_ptr<RemoteControlService> remoteControl, std::function<void()> openChrome,
              std::function<void()> resetBrowser);

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
  RemoteTapResult onRemoteOpenChrome() override;
  RemoteTapResult onRemoteResetBrowser() override;

 private:
  template <class... Parameters, class... Arguments>
  RemoteTapResult forward(RemoteTapResult (RemoteControlService::*operation)(Parameters...),
                          const Arguments&... arguments) const;

  const std::weak_ptr<RemoteControlService> remoteControl_;
  const std::function<void()> openChrome_;
  const std::function<void()> resetBrowser_;
};

}  // namespace kestrune
