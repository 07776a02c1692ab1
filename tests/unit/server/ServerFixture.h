#pragma once

#include <gmock/gmock.h>

#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "model/KestruneError.h"
#include "server/StreamingServer.h"
#include "support/CapturedLog.h"
#include "support/FakeBundle.h"
#include "support/FakeNetwork.h"
#include "support/ManualTime.h"
#include "support/WebSocketPeer.h"

namespace kestrune {

using namespace std::chrono_literals;
using testing::AllOf;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::StartsWith;

inline constexpr const char* kToken = "abcdefghijklmnopqrstuvwxyz0123456789-_ABCDE";

inline std::string closeFrame(std::uint16_t code, const std::string& reason) {
  return std::string{static_cast<char>(code >> 8), static_cast<char>(code & 0xFF)} + reason;
}

class FixedTokenSource final : public ViewerTokenSource {
 public:
  bool fails = false;
  std::string token() override {
    if (fails) throw KestruneError::operationFailed("no keyring");
    return kToken;
  }
};

/// A host that notes what it is asked, one line each.
struct NotedHost : RemoteInput, ViewerRequests {
  RemoteTapResult result = RemoteTapResult::clicked;  // of every input
  std::vector<std::string> events;
  bool takesReports = false;
  IssueReportCompletion finishReport;
  std::exception_ptr textFailure;  // thrown by onRemoteText()

  /// For one that outlives all who hold it.
  std::shared_ptr<NotedHost> unowned() { return {std::shared_ptr<void>(), this}; }
  RemoteTapResult note(std::string event, std::initializer_list<double> values = {}) {
    for (const double value : values) event += " " + testing::PrintToString(value);
    events.push_back(std::move(event));
    return result;
  }

  RemoteTapResult onRemoteTap(double x, double y) override { return note("tap", {x, y}); }
  RemoteTapResult onRemotePointer(RemotePointerPhase phase, double x, double y) override {
    return note("pointer " + std::string(rawValue(phase)), {x, y});
  }
  RemoteTapResult onRemoteMove(double dx, double dy, double speed) override {
    return note("move", {dx, dy, speed});
  }
  RemoteTapResult onRemoteClick(RemoteMouseButton button) override {
    return note("click " + std::string(rawValue(button)));
  }
  RemoteTapResult onRemoteButton(bool down) override { return note(down ? "button down" : "button up"); }
  RemoteTapResult onRemoteScroll(double dx, double dy) override { return note("scroll", {dx, dy}); }
  RemoteTapResult onRemoteText(const std::string& text) override {
    if (textFailure) std::rethrow_exception(textFailure);
    return note("text " + text);
  }
  RemoteTapResult onRemoteKey(const std::string& key) override { return note("key " + key); }
  RemoteTapResult onRemotePlayPause() override { return note("playPause"); }
  RemoteTapResult onRemoteFullscreen() override { return note("fullscreen"); }
  RemoteTapResult onRemoteOpenChrome() override { return note("openChrome"); }
  RemoteTapResult onRemoteResetBrowser() override { return note("resetBrowser"); }
  void onRemoteControlEnded() override { note("controlEnded"); }

  void onStreamStartRequested() override { note("start"); }
  void onKeyframeRequested() override { note("keyframe"); }
  void onStreamSettingsChanged(StreamProfile profile, StreamFrameRate rate) override {
    note("settings " + std::string(rawValue(profile)) + " " + std::to_string(framesPerSecond(rate)));
  }
  void onVideoCodecFallbackRequested() override { note("codecFallback"); }
  void onViewerTelemetry(const ViewerTelemetry& report) override {
    note("telemetry", {report.viewerFPS, static_cast<double>(report.reconnects)});
  }
  bool onIssueReportRequested(const ViewerIssueReportRequest& request,
                              const IssueReportCompletion& completion) override {
    if (takesReports) note(request.reportId + " " + request.category + " " + request.symptom);
    finishReport = completion;
    return takesReports;
  }
  void onViewerConnectionChanged(bool connected, bool wasPlaying) override {
    note(std::string(connected ? "connected" : "disconnected") + (wasPlaying ? " playing" : ""));
  }
};

/// A started server, with everything that its handlers are asked noted in `events`.
class ServerTest : public testing::Test, public NotedHost {
 protected:
  using Connection = std::shared_ptr<FakeTcpConnection>;

  void SetUp() override { startServer(); }
  void TearDown() override {
    EXPECT_EQ(log.mentions("A viewer connection is ended: "), textFailure != nullptr);
  }

  void startServer() {
    server->setHandlers(unowned(), unowned());
    server->start([this](std::exception_ptr failure) {
      startResult = failure ? localizedDescription(failure) : "started";
    });
    time->runReady();
  }
  void stopServer() {
    server->stop([this] { events.push_back("stopped"); });
    time->runReady();
  }

  // What a peer does, and all that follows at once.
  Connection connect(const std::string& bytes, bool takesSends = true) {
    auto connection = network->connect();
    connection->takesSends = takesSends;
    deliver(connection, bytes);
    return connection;
  }
  void deliver(const Connection& connection, const std::string& bytes) {
    connection->deliver(bytes);
    time->runReady();
  }
  void end(const Connection& connection) {
    connection->deliverEnd();
    time->runReady();
  }
  void completeSend(const Connection& connection, bool succeeded = true) {
    connection->completeSend(succeeded);
    time->runReady();
  }
  /// The answer to a request, so far.
  std::string exchange(const std::string& request) { return connect(request)->sent; }
  static std::string get(const std::string& target, const std::string& token = {}) {
    return "GET " + target + " HTTP/1.1\r\n" +
           (token.empty() ? std::string() : "Authorization: Bearer " + token + "\r\n") + "\r\n";
  }

  Connection openWebSocket() {
    auto connection = connect(kUpgradeRequest);
    connection->sent.clear();
    return connection;
  }
  /// An authenticated viewer whose greeting has been read.
  Connection connectViewer() {
    auto connection = openWebSocket();
    sendText(connection, authMessage(kToken));
    events.clear();
    connection->sent.clear();
    return connection;
  }
  void sendText(const Connection& connection, const std::string& text) {
    deliver(connection, textFrame(text));
  }
  void enterControlMode(const Connection& viewer) {
    sendText(viewer, R"({"type":"mode","mode":"control"})");
    broadcast(10, true);  // ends the wait for a keyframe
    events.clear();
    viewer->sent.clear();
  }
  /// The texts sent since the last look; binary frames as "video KIND SIZE", others by their payload.
  static std::vector<std::string> received(const Connection& connection) {
    std::vector<std::string> messages;
    for (auto& frame : takeServerFrames(connection->sent)) {
      if (frame.firstByte == 0x82) {
        messages.push_back(std::string("video ") + (frame.payload.at(0) ? "key " : "delta ") +
                           std::to_string(frame.payload.size()));
      } else {
        messages.push_back(std::move(frame.payload));
      }
    }
    return messages;
  }
  /// The events since the last look.
  std::vector<std::string> seen() { return std::exchange(events, {}); }

  void broadcast(std::size_t payloadSize, bool isKeyframe) {
    server->broadcastVideo({std::make_shared<const Bytes>(payloadSize), isKeyframe, 1});
    time->runReady();
  }
  StreamingServerSnapshot snapshot() {
    StreamingServerSnapshot taken;
    server->snapshot([&taken](StreamingServerSnapshot snapshot) { taken = std::move(snapshot); });
    time->runReady();
    return taken;
  }

  CapturedLog log;
  std::shared_ptr<ManualTime> time = ManualTime::make();
  std::shared_ptr<FakeNetwork> network = std::make_shared<FakeNetwork>(time->makeQueue("server"));
  std::shared_ptr<FakeBundle> bundle = std::make_shared<FakeBundle>();
  std::shared_ptr<FixedTokenSource> tokens = std::make_shared<FixedTokenSource>();
  std::shared_ptr<AudioChunkStore> audio = std::make_shared<AudioChunkStore>();
  std::shared_ptr<VideoPacketStore> video = std::make_shared<VideoPacketStore>();
  std::shared_ptr<StreamingServer> server =
      std::make_shared<StreamingServer>(network, bundle, tokens, audio, video, time);
  std::string startResult;
};

}  // namespace kestrune
