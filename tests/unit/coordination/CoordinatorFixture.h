#pragma once

#include <gmock/gmock.h>

#include <memory>
#include <string>
#include <vector>

#include "coordination/StreamCoordinator.h"
#include "support/CapturedLog.h"
#include "support/FakeActivities.h"
#include "support/FakeBrowser.h"
#include "support/FakeBundle.h"
#include "support/FakeCompression.h"
#include "support/FakeCredentials.h"
#include "support/FakeInputEvents.h"
#include "support/FakeNetwork.h"
#include "support/FakePixelTransfer.h"
#include "support/FakePreferences.h"
#include "support/FakeScreenCapture.h"
#include "support/ManualTime.h"
#include "support/WebSocketPeer.h"

namespace kestrune {

using namespace std::chrono_literals;
using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::IsSupersetOf;
using testing::Not;

/// The coordinator on its real services, with the system and time under the test's hand.
class CoordinatorTest : public testing::Test {
 protected:
  using Case = StreamPhase::Case;
  using Viewer = std::shared_ptr<FakeTcpConnection>;
  static constexpr const char* kToken = "abcdefghijklmnopqrstuvwxyz0123456789-_ABCDE";

  CoordinatorTest() {
    credentials->setItem("com.fennwick.Kestrune.viewer", "capability-token", kToken);
    displays->displays = screen->displays = {{7, {0, 0, 1000, 500}}};
  }

  /// The fake sessions never answer, and an encoder lives until they have; work that waits holds encoders,
  /// which hold the clock that holds the work.
  ~CoordinatorTest() override {
    for (const auto& session : compression->sessions) session->frames.clear();
    coordinator.reset();
    time->discardAll();
  }

  void make() {
    Platform platform;
    platform.clock = time;
    platform.makeQueue = [this](std::string label) { return time->makeQueue(std::move(label)); };
    platform.bundle = std::make_shared<FakeBundle>();
    platform.preferences = preferences;
    platform.credentials = credentials;
    platform.random = std::make_shared<FakeRandomSource>();
    platform.displays = displays;
    platform.displayModes = displayModes;
    platform.virtualDisplays = virtualDisplays;
    platform.displayArrangement = virtualDisplays;
    platform.applications = browser;
    platform.windows = browser;
    platform.files = files;
    platform.permissions = permissions;
    platform.inputEvents = input;
    platform.screenCapture = screen;
    platform.compression = compression;
    platform.pixelTransfer = std::make_shared<FakePixelTransferFactory>();
    platform.network = network;
    platform.activities = activities;
    platform.loginItem = std::make_shared<FakeLoginItem>();
    coordinator = StreamCoordinator::make(platform, mainQueue);
    observation =
        coordinator->phase.observe([this](const StreamPhase& phase) { phases.push_back(phase.title()); });
    time->runReady();
  }

  TaskHandle start(Task<void> task) { return startTask(mainQueue, std::move(task)); }
  void run(Task<void> task) {
    const auto handle = start(std::move(task));
    time->runReady();
    EXPECT_TRUE(handle.isFinished());
    EXPECT_FALSE(handle.failure());
  }

  /// What the program does at launch.
  void launch() {
    make();
    run(coordinator->selectDefaultDisplayIfNeeded());
    run(coordinator->startServing());
  }

  Viewer connectViewer() {
    auto viewer = network->connect();
    viewer->deliver(kUpgradeRequest);
    time->runReady();
    viewer->sent.clear();
    send(viewer, authMessage(kToken));
    return viewer;
  }
  void send(const Viewer& viewer, const std::string& text) {
    viewer->deliver(textFrame(text));
    time->runReady();
  }
  void requestStart(const Viewer& viewer) { send(viewer, R"({"type":"startStream"})"); }
  void disconnect(const Viewer& viewer) {
    viewer->deliverEnd();
    time->runReady();
  }
  /// The texts sent to the viewer since the last look.
  static std::vector<std::string> received(const Viewer& viewer) {
    std::vector<std::string> texts;
    for (auto& frame : takeServerFrames(viewer->sent)) {
      if (frame.firstByte == 0x81) texts.push_back(std::move(frame.payload));
    }
    return texts;
  }
  /// The stream states among them, with their messages.
  static std::vector<std::string> states(const Viewer& viewer) {
    std::vector<std::string> found;
    for (const auto& text : received(viewer)) {
      if (text.find("\"streamState\"") != std::string::npos) found.push_back(text);
    }
    return found;
  }
  static std::string state(const std::string& name, const std::string& message = {}) {
    return R"({"type":"streamState","state":")" + name + "\"" +
           (message.empty() ? "" : R"(,"message":")" + message + "\"") + "}";
  }

  /// A viewer of a host on standby, which has read its greeting.
  Viewer waitingViewer() {
    launch();
    auto viewer = connectViewer();
    viewer->sent.clear();
    phases.clear();
    return viewer;
  }
  Viewer streamToViewer() {
    auto viewer = waitingViewer();
    requestStart(viewer);
    EXPECT_TRUE(coordinator->isCapturing);
    viewer->sent.clear();
    phases.clear();
    return viewer;
  }
  static VideoSample frame() { return makeVideoSample(640, 320); }
  /// Ends the oldest call of the newest stream that waits.
  void answer(const std::exception_ptr& failed = nullptr) {
    screen->latest()->complete(failed);
    time->runReady();
  }
  /// Likewise, and later calls do not wait.
  void answerAll() {
    screen->latest()->holds = false;
    answer();
  }
  void edit(const std::map<std::string, std::optional<PreferenceValue>>& changes) {
    preferences->edit(changes);
    time->runReady();
  }
  /// One frame on its way from the screen to the encoder.
  void showFrame() {
    screen->latest()->sendVideo(frame());
    time->runReady();
  }

  CapturedLog log;
  std::shared_ptr<ManualTime> time = ManualTime::make();
  std::shared_ptr<SerialQueue> mainQueue = time->makeQueue("main");
  std::shared_ptr<FakePreferences> preferences = std::make_shared<FakePreferences>();
  std::shared_ptr<FakeCredentials> credentials = std::make_shared<FakeCredentials>();
  std::shared_ptr<FakePrivacyPermissions> permissions = std::make_shared<FakePrivacyPermissions>();
  std::shared_ptr<FakeDisplays> displays = std::make_shared<FakeDisplays>();
  std::shared_ptr<FakeInputEvents> input = std::make_shared<FakeInputEvents>();
  std::shared_ptr<FakeNetwork> network = std::make_shared<FakeNetwork>(time->makeQueue("server"));
  std::shared_ptr<FakeScreenCapture> screen = std::make_shared<FakeScreenCapture>();
  std::shared_ptr<FakeBrowser> browser = std::make_shared<FakeBrowser>();
  std::shared_ptr<FakeUserFiles> files = std::make_shared<FakeUserFiles>();
  std::shared_ptr<FakeVirtualDisplays> virtualDisplays =
      std::make_shared<FakeVirtualDisplays>(std::vector{&displays->displays, &screen->displays});
  std::shared_ptr<FakeDisplayModes> displayModes = std::make_shared<FakeDisplayModes>();
  std::shared_ptr<FakeCompressionSessionFactory> compression =
      std::make_shared<FakeCompressionSessionFactory>();
  std::shared_ptr<FakeActivities> activities = std::make_shared<FakeActivities>();
  std::shared_ptr<StreamCoordinator> coordinator;
  Observation observation;
  std::vector<std::string> phases;  // every change
};

}  // namespace kestrune
