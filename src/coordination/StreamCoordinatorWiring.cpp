#include <atomic>
#include <memory>

#include "coordination/CoordinatorParts.h"
#include "coordination/StreamCoordinator.h"
#include "coordination/ViewerInput.h"
#include "input/RemoteControlService.h"
#include "server/StreamingServer.h"
#include "viewer/ViewerRequests.h"

/// Who takes the events of the services. Callbacks hold their targets weakly, so that no service keeps
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

}  // namespace

/// What the local viewer asks, from the server's queue. Most of it has a turn of its own on the main queue.
class StreamCoordinator::LocalViewerRequests final
    : public ViewerRequests,
      public std::enable_shared_from_this<LocalViewerRequests> {
 public:
  LocalViewerRequests(std::weak_ptr<StreamCoordinator> owner, const CoordinatorParts& parts)
      : owner_(std::move(owner)), mainQueue_(parts.mainQueue), captureService_(parts.captureService) {}

  void onStreamStartRequested() override {
    postWhileFew(starts_, [](auto& to) { to.startFlow(to.lifecycle.handleStreamStartRequest()); });
  }
  void onKeyframeRequested() override {
    if (const auto capture = captureService_.lock()) capture->requestKeyframe();
  }
  void onStreamSettingsChanged(StreamProfile active, StreamFrameRate) override {
    postWhileFew(settings_, [active](auto& to) { to.startFlow(to.liveSettings.takeViewerSettings(active)); });
  }
  void onVideoCodecFallbackRequested() override {
    postWhileFew(fallbacks_, [](auto& to) { to.startFlow(to.liveSettings.fallBackToH264()); });
  }
  void onViewerTelemetry(const ViewerTelemetry& telemetry) override {
    postWhileFew(reports_, [telemetry](auto& to) { to.telemetry->takeViewerTelemetry(telemetry); });
  }
  void openChrome() {
    postWhileFew(openings_, [](auto& to) { to.startFlow(to.browserDisplay.handleOpenChromeRequest()); });
  }
  void resetBrowser() {
    postWhileFew(resets_, [](auto& to) { to.startFlow(to.browserDisplay.handleResetBrowserRequest()); });
  }
  void onViewerConnectionChanged(bool connected, bool wasPlaying) override {
    post([connected, wasPlaying](auto& to) {
      to.viewers->handleViewerChange(ViewerRouteKind::local, connected, wasPlaying);
    });
  }

 private:
  using WaitingTurns = std::atomic<int>;

  template <class Body>
  void post(Body body) {
    mainQueue_->post([owner = owner_, body = std::move(body)] {
      if (const auto self = owner.lock()) body(*self->parts_);
    });
  }
  /// The same, with a limit to the backlog, for what a viewer can send as fast as the connection carries it:
  /// beyond kMostWaitingTurns requests of a kind a further one is dropped as redundant.
  template <class Body>
  void postWhileFew(WaitingTurns& waiting, Body body) {
    if (waiting >= kMostWaitingTurns) return;
    ++waiting;
    post([self = shared_from_this(), &waiting, body = std::move(body)](CoordinatorParts& to) {
      --waiting;
      body(to);
    });
  }

  const std::weak_ptr<StreamCoordinator> owner_;
  const std::shared_ptr<SerialQueue> mainQueue_;
  const std::weak_ptr<ScreenCaptureService> captureService_;
  WaitingTurns starts_ = 0;
  WaitingTurns settings_ = 0;
  WaitingTurns fallbacks_ = 0;
  WaitingTurns reports_ = 0;
  WaitingTurns openings_ = 0;
  WaitingTurns resets_ = 0;
};

void StreamCoordinator::connect() {
  parts_->remoteControl->setEnabled(true);
  wireCapture();
  wireServer();
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
  const std::shared_ptr<CoordinatorParts> parts(
      shared_from_this(), parts_.get());  // weak copies of it expire with the coordinator
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

void StreamCoordinator::wireServer() {
  auto requests = std::make_shared<LocalViewerRequests>(weak_from_this(), *parts_);
  auto input = std::make_shared<ViewerInput>(
      parts_->remoteControl, [requests] { requests->openChrome(); },
      [requests] { requests->resetBrowser(); });
  parts_->server->setHandlers(std::move(input), std::move(requests));
}

}  // namespace kestrune
