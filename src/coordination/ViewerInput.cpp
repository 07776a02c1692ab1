#include "coordination/ViewerInput.h"

#include <utility>

#include "input/RemoteControlService.h"

namespace kestrune {

ViewerInput::ViewerInput(std::weak_ptr<RemoteControlService> remoteControl, std::function<void()> openChrome,
                         std::function<void()> resetBrowser)
    : remoteControl_(std::move(remoteControl)),
      openChrome_(std::move(openChrome)),
      resetBrowser_(std::move(resetBrowser)) {}

template <class... Parameters, class... Arguments>
RemoteTapResult ViewerInput::forward(RemoteTapResult (RemoteControlService::*operation)(Parameters...),
                                     const Arguments&... arguments) const {
  const auto service = remoteControl_.lock();
  return service ? ((*service).*operation)(arguments...) : RemoteTapResult::eventFailed;
}

RemoteTapResult ViewerInput::onRemoteTap(double x, double y) {
  return forward(&RemoteControlService::tap, x, y);
}

RemoteTapResult ViewerInput::onRemotePointer(RemotePointerPhase phase, double x, double y) {
  return forward(&RemoteControlService::pointer, phase, x, y);
}

RemoteTapResult ViewerInput::onRemoteMove(double dx, double dy, double sensitivity) {
  return forward(&RemoteControlService::move, dx, dy, sensitivity);
}

RemoteTapResult ViewerInput::onRemoteClick(RemoteMouseButton button) {
  return forward(&RemoteControlService::click, button);
}

RemoteTapResult ViewerInput::onRemoteButton(bool down) {
  return forward(&RemoteControlService::setButton, down);
}

RemoteTapResult ViewerInput::onRemoteScroll(double dx, double dy) {
  return forward(&RemoteControlService::scroll, dx, dy);
}

RemoteTapResult ViewerInput::onRemoteText(const std::string& text) {
  return forward(&RemoteControlService::typeText, text);
}

RemoteTapResult ViewerInput::onRemoteKey(const std::string& key) {
  return forward(&RemoteControlService::pressKey, key);
}

void ViewerInput::onRemoteControlEnded() {
  if (const auto service = remoteControl_.lock()) service->releaseButton();
}

RemoteTapResult ViewerInput::onRemotePlayPause() {
  return forward(&RemoteControlService::togglePlayPause);
}

RemoteTapResult ViewerInput::onRemoteFullscreen() {
  return forward(&RemoteControlService::pressKey, "f");
}

RemoteTapResult ViewerInput::onRemoteOpenChrome() {
  openChrome_();
  return RemoteTapResult::clicked;
}

RemoteTapResult ViewerInput::onRemoteResetBrowser() {
  resetBrowser_();
  return RemoteTapResult::clicked;
}

}  // namespace kestrune
