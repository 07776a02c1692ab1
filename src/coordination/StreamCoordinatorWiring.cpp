#include <atomic>
#include <memory>

#include "coordination/StreamCoordinator.h"
#include "input/RemoteControlService.h"
#include "server/StreamingServer.h"
#include "viewer/AudioChunkStore.h"

/// Who hears whom. Callbacks hold their targets weakly, so that no service keeps another alive.
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

/// The same for a remote input, which answers eventFailed once nobody is there to take it.
template <class Body>
auto input(const std::shared_ptr<RemoteControlService>& target, Body body) {
  return [weak = std::weak_ptr<RemoteControlService>(target), body](auto&&... arguments) {
    const auto alive = weak.lock();
    return alive ? body(*alive, std::forward<decltype(arguments)>(arguments)...)
                 : RemoteTapResult::eventFailed;
  };
}

}  // namespace

/// A callback for any thread: `body(coordinator, arguments...)` has a turn of its own on the main queue.
template <class Body>
auto StreamCoordinator::onMainQueue(Body body) {
  return [queue = mainQueue_, weak = weak_from_this(), body](auto... arguments) {
    queue->post([weak, body, ... held = std::move(arguments)] {
      if (const auto self = weak.lock()) body(*self, held...);
    });
  };
}

/// The same for what a viewer can send as fast as the road carries it: what finds several turns waiting is
/// dropped, since it would say what they say.
template <class Body>
auto StreamCoordinator::onMainQueueWhileFew(Body body) {
  return [queue = mainQueue_, weak = weak_from_this(), body,
          waiting = std::make_shared<std::atomic<int>>(0)](auto... arguments) {
    if (*waiting >= kMostWaitingTurns) return;
    ++*waiting;
    queue->post([weak, body, waiting, ... held = std::move(arguments)] {
      --*waiting;
      if (const auto self = weak.lock()) body(*self, held...);
    });
  };
}

/// The capture service calls back on the main queue already, in the order of the events.
void StreamCoordinator::wireCapture() {
  const auto self = shared_from_this();
  ScreenCaptureCallbacks callbacks;
  callbacks.onSourceChanged = directly(
      self, [](auto& coordinator, auto source) { coordinator.handleSourceChanged(std::move(source)); });
  callbacks.onControlTargetChanged =
      directly(remoteControlService_, [](auto& control, auto target) { control.setTarget(target); });
  callbacks.onVideoPacket = directly(
      self, [](auto& coordinator, auto packet) { coordinator.handleVideoPacket(std::move(packet)); });
  callbacks.onAudioChunk =
      directly(server_->audioStore(), [](auto& store, auto chunk) { store.append(std::move(chunk)); });
  callbacks.onMetricsChanged =
      directly(self, [](auto& coordinator, const auto& record) { coordinator.applyCaptureMetrics(record); });
  callbacks.onError =
      directly(self, [](auto& coordinator, const auto& failure) { coordinator.handleCaptureError(failure); });
  callbacks.onCaptureStopped = directly(self, [](auto& coordinator, auto failure) {
    coordinator.startFlow(coordinator.handleCaptureStopped(std::move(failure)));
  });
  captureService_->setCallbacks(std::move(callbacks));
}

/// The server calls back on its own queue.
void StreamCoordinator::wireServer() {
  server_->onStreamStartRequested =
      onMainQueueWhileFew([](auto& self) { self.startFlow(self.handleStreamStartRequest()); });
  server_->onViewerConnectionChanged =
      onMainQueue([](auto& self, bool connected, bool) { self.handleLocalViewerChange(connected); });
  server_->onKeyframeRequested = directly(captureService_, [](auto& capture) { capture.requestKeyframe(); });
  server_->onStreamSettingsChanged =
      onMainQueueWhileFew([](auto& self, StreamProfile active, StreamFrameRate) {
        self.startFlow(self.takeViewerSettings(active));
      });
  server_->onVideoCodecFallbackRequested =
      onMainQueueWhileFew([](auto& self) { self.startFlow(self.fallBackToH264()); });
  server_->onViewerTelemetry =
      onMainQueueWhileFew([](auto& self, const auto& telemetry) { self.handleViewerTelemetry(telemetry); });
}

/// Remote input goes from the server's queue straight into the system, past the main queue and its state.
void StreamCoordinator::wireRemoteControl() {
  const auto& control = remoteControlService_;
  using Phase = RemotePointerPhase;
  server_->onRemoteTap = input(control, [](auto& to, double x, double y) { return to.tap(x, y); });
  server_->onRemotePointer =
      input(control, [](auto& to, Phase step, double x, double y) { return to.pointer(step, x, y); });
  server_->onRemoteMove = input(control, [](auto& to, double dx, double dy, double sensitivity) {
    return to.move(dx, dy, sensitivity);
  });
  server_->onRemoteClick =
      input(control, [](auto& to, RemoteMouseButton button) { return to.click(button); });
  server_->onRemoteButton = input(control, [](auto& to, bool down) { return to.setButton(down); });
  server_->onRemoteScroll = input(control, [](auto& to, double dx, double dy) { return to.scroll(dx, dy); });
  server_->onRemoteText = input(control, [](auto& to, const std::string& text) { return to.typeText(text); });
  server_->onRemoteKey = input(control, [](auto& to, const std::string& key) { return to.pressKey(key); });
  server_->onRemotePlayPause = input(control, [](auto& to) { return to.togglePlayPause(); });
  server_->onRemoteFullscreen = input(control, [](auto& to) { return to.pressKey("f"); });
  server_->onRemoteControlEnded = directly(control, [](auto& to) { to.releaseButton(); });
}

}  // namespace kestrune
