#include <atomic>
#include <memory>

#include "coordination/CoordinatorParts.h"
#include "coordination/StreamCoordinator.h"
#include "input/RemoteControlService.h"
#include "server/StreamingServer.h"

/// The table of callbacks from the services. Callbacks hold their targets weakly, so that no service keeps
/// another alive.
namespace kestrune {
namespace {

constexpr int kMostWaitingTurns = 8;  // of each kind

/// A callback that runs `body(target, arguments...)` where it is called, if the target still lives.
template <class Target, class Body>
auto directly(const std::shared_ptr<Target>& target, Body body) {
  return [weak = std::weak_ptr<Target>(target), body](auto&&... arguments) {
    if (const auto alive = weak.lock()) body(*alive, std::forward<decltype(arguments)>(arguments)...);
  };
}

/// The same for a remote input, which answers eventFailed once its target is gone.
template <class Body>
auto input(const std::shared_ptr<RemoteControlService>& target, Body body) {
  return [weak = std::weak_ptr<RemoteControlService>(target), body](auto&&... arguments) {
    const auto alive = weak.lock();
    return alive ? body(*alive, std::forward<decltype(arguments)>(arguments)...)
                 : RemoteTapResult::eventFailed;
  };
}

}  // namespace

/// A callback for any thread: `body(parts, arguments...)` has a turn of its own on the main queue.
template <class Body>
auto StreamCoordinator::onMainQueue(Body body) {
  return [queue = parts_->mainQueue, weak = weak_from_this(), body](auto... arguments) {
    queue->post([weak, body, ... held = std::move(arguments)] {
      if (const auto self = weak.lock()) body(*self->parts_, held...);
    });
  };
}

/// The same for what a viewer can send as fast as the connection carries it: beyond kMostWaitingTurns waiting
/// turns, which say the same, a further one is dropped.
template <class Body>
auto StreamCoordinator::onMainQueueWhileFew(Body body) {
  return [queue = parts_->mainQueue, weak = weak_from_this(), body,
          waiting = std::make_shared<std::atomic<int>>(0)](auto... arguments) {
    if (*waiting >= kMostWaitingTurns) return;
    ++*waiting;
    queue->post([weak, body, waiting, ... held = std::move(arguments)] {
      --*waiting;
      if (const auto self = weak.lock()) body(*self->parts_, held...);
    });
  };
}

void StreamCoordinator::connect() {
  parts_->remoteControl->setEnabled(true);
  wireCapture();
  wireServer();
  wireRemoteControl();
  parts_->preferences->observeExternalChanges(parts_->mainQueue, [weak = weak_from_this()](const auto& keys) {
    if (const auto self = weak.lock()) {
      self->parts_->liveSettings.takeEdited(keys, self->canChangeDisplayMode());
    }
  });
  parts_->liveSettings.announce();
  parts_->viewerAddress.refresh();
}

/// The capture service calls back on the main queue, but for media, which goes from its thread to the routes.
void StreamCoordinator::wireCapture() {
  const std::shared_ptr<CoordinatorParts> parts(shared_from_this(), parts_.get());  // shares our life
  ScreenCaptureCallbacks callbacks;
  callbacks.onSourceChanged =
      directly(parts, [](auto& to, auto source) { to.source.handleSourceChanged(std::move(source)); });
  callbacks.onControlTargetChanged =
      directly(parts_->remoteControl, [](auto& to, auto target) { to.setTarget(target); });
  callbacks.onVideoPacket = [watch = std::weak_ptr(parts_->encodingWatch),
                             routes = std::weak_ptr(parts_->routes)](const EncodedVideoPacket& packet) {
    if (const auto alive = watch.lock()) alive->notePacket();
    if (const auto alive = routes.lock()) alive->broadcastVideo(packet);
  };
  callbacks.onAudioChunk =
      directly(parts_->routes, [](auto& to, auto chunk) { to.broadcastAudio(std::move(chunk)); });
  callbacks.onMetricsChanged =
      directly(parts_->telemetry, [](auto& to, const auto& record) { to.applyCaptureMetrics(record); });
  callbacks.onError =
      directly(parts_->encodingWatch, [](auto& to, const auto& failure) { to.handleCaptureError(failure); });
  callbacks.onCaptureStopped = directly(parts, [](auto& to, auto failure) {
    to.startFlow(to.lifecycle.handleCaptureStopped(std::move(failure)));
  });
  parts_->captureService->setCallbacks(std::move(callbacks));
}

/// The server calls back on its own queue.
void StreamCoordinator::wireServer() {
  StreamingServer& server = *parts_->server;
  server.onStreamStartRequested =
      onMainQueueWhileFew([](auto& to) { to.startFlow(to.lifecycle.handleStreamStartRequest()); });
  server.onViewerConnectionChanged =
      onMainQueue([](auto& to, bool connected, bool) { to.viewers->handleLocalViewerChange(connected); });
  server.onKeyframeRequested = directly(parts_->captureService, [](auto& to) { to.requestKeyframe(); });
  server.onStreamSettingsChanged = onMainQueueWhileFew([](auto& to, StreamProfile active, StreamFrameRate) {
    to.startFlow(to.liveSettings.takeViewerSettings(active));
  });
  server.onVideoCodecFallbackRequested =
      onMainQueueWhileFew([](auto& to) { to.startFlow(to.liveSettings.fallBackToH264()); });
  server.onViewerTelemetry = onMainQueueWhileFew(
      [](auto& to, const auto& telemetry) { to.telemetry->takeViewerTelemetry(telemetry); });
}

/// Remote input goes from the server's queue straight into the system, past the main queue and its state.
void StreamCoordinator::wireRemoteControl() {
  const auto& control = parts_->remoteControl;
  StreamingServer& server = *parts_->server;
  using Phase = RemotePointerPhase;
  server.onRemoteTap = input(control, [](auto& to, double x, double y) { return to.tap(x, y); });
  server.onRemotePointer =
      input(control, [](auto& to, Phase step, double x, double y) { return to.pointer(step, x, y); });
  server.onRemoteMove = input(control, [](auto& to, double dx, double dy, double sensitivity) {
    return to.move(dx, dy, sensitivity);
  });
  server.onRemoteClick = input(control, [](auto& to, RemoteMouseButton button) { return to.click(button); });
  server.onRemoteButton = input(control, [](auto& to, bool down) { return to.setButton(down); });
  server.onRemoteScroll = input(control, [](auto& to, double dx, double dy) { return to.scroll(dx, dy); });
  server.onRemoteText = input(control, [](auto& to, const std::string& text) { return to.typeText(text); });
  server.onRemoteKey = input(control, [](auto& to, const std::string& key) { return to.pressKey(key); });
  server.onRemotePlayPause = input(control, [](auto& to) { return to.togglePlayPause(); });
  server.onRemoteFullscreen = input(control, [](auto& to) { return to.pressKey("f"); });
  server.onRemoteControlEnded = directly(control, [](auto& to) { to.releaseButton(); });
}

}  // namespace kestrune
