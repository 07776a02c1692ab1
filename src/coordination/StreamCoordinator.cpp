#include "coordination/StreamCoordinator.h"

#include "access/TokenStore.h"
#include "input/RemoteControlService.h"
#include "server/StreamingServer.h"
#include "server/ViewerTokenSource.h"
#include "system/SleepAssertion.h"
#include "viewer/AudioChunkStore.h"
#include "viewer/VideoPacketStore.h"

namespace kestrune {
namespace {

constexpr Logger kLog("App");

/// The server asks for the token through an interface of its own, so that services stay apart.
class StoredTokenSource final : public ViewerTokenSource {
 public:
  explicit StoredTokenSource(std::shared_ptr<TokenStore> store) : store_(std::move(store)) {}
  std::string token() override { return store_->token(); }

 private:
  const std::shared_ptr<TokenStore> store_;
};

ScreenCaptureService::Dependencies captureDependencies(const StreamCoordinatorDependencies& from,
                                                       std::shared_ptr<CapturePreviewHub> previewHub) {
  ScreenCaptureService::Dependencies to;
  to.previewHub = std::move(previewHub);
  to.capture = from.screenCapture;
  to.audioConverter = from.audioConverter;
  to.displays = from.displays;
  to.clock = from.clock;
  to.compression = from.compression;
  to.pixelTransfer = from.pixelTransfer;
  to.callbackQueue = from.mainQueue;
  to.makeQueue = from.makeQueue;
  to.picker = from.picker;
  to.bundleIdentifier = from.bundle->bundleIdentifier();
  return to;
}

}  // namespace

std::shared_ptr<StreamCoordinator> StreamCoordinator::make(StreamCoordinatorDependencies dependencies) {
  std::shared_ptr<StreamCoordinator> coordinator(new StreamCoordinator(std::move(dependencies)));
  coordinator->connect();
  return coordinator;
}

StreamCoordinator::StreamCoordinator(StreamCoordinatorDependencies dependencies)
    : previewHub(std::make_shared<CapturePreviewHub>(dependencies.mainQueue)),
      dependencies_(std::move(dependencies)),
      mainQueue_(dependencies_.mainQueue),
      defaults_(dependencies_.defaults),
      tokenStore_(dependencies_.tokenStore),
      sleepAssertion_(std::make_unique<SleepAssertion>(dependencies_.activities)),
      captureFailureLog_(kLog, dependencies_.clock) {
  refreshLaunchAtLoginStatus();
  loadPreferences();
  settingObservations_.push_back(preventMacSleep.observe([this](bool) { updateSleepAssertion(); }));
  screenCapturePermissionGranted = dependencies_.permissions->isScreenCaptureAllowed();
  remoteControlPermissionGranted = dependencies_.permissions->isTrustedForInput();
  captureService_ = std::make_shared<ScreenCaptureService>(captureDependencies(dependencies_, previewHub));
  server_ = std::make_shared<StreamingServer>(
      dependencies_.network, dependencies_.bundle, std::make_shared<StoredTokenSource>(tokenStore_),
      std::make_shared<AudioChunkStore>(), std::make_shared<VideoPacketStore>(), dependencies_.clock,
      dependencies_.viewerPort);
  remoteControlService_ =
      std::make_shared<RemoteControlService>(dependencies_.inputEvents, dependencies_.displays,
                                             dependencies_.permissions, mainQueue_, dependencies_.clock);
}

StreamCoordinator::~StreamCoordinator() = default;

void StreamCoordinator::connect() {
  remoteControlService_->setEnabled(true);
  wireCapture();
  wireServer();
  wireRemoteControl();
  observePreferences();
  announceStreamSettings();
  refreshViewerURLs();
}

bool StreamCoordinator::canChangeSource() const {
  return (!ownsActiveResources_ || isRemoteStartArmed) && !isRemoteStartBusy && !isCapturing;
}

bool StreamCoordinator::canEditStreamSettings() const {
  return !isUpdatingStreamSettings && phase->value != StreamPhase::Case::starting &&
         phase->value != StreamPhase::Case::recovering;
}

bool StreamCoordinator::canChangeDisplayMode() const {
  return !ownsActiveResources_ && !isCapturing && !isRemoteStartBusy;
}

TaskHandle StreamCoordinator::startFlow(Task<void> flow) {
  return startTask(mainQueue_, keepingAlive(shared_from_this(), std::move(flow)));
}

Task<void> StreamCoordinator::keepingAlive([[maybe_unused]] std::shared_ptr<StreamCoordinator> self,
                                           Task<void> flow) {
  Task<void> body = std::move(flow);
  co_await body;
}

Task<void> StreamCoordinator::awaitAndClear(TaskHandle& slot) {
  const TaskHandle task = slot;
  co_await task.finished();
  if (slot == task) slot.reset();
}

}  // namespace kestrune
