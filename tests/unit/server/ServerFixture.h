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
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
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

/// What a server's handlers were asked, one line each.
struct HandlerLog {
  RemoteTapResult result = RemoteTapResult::clicked;  // of every input
  std::vector<std::string> events;
  bool takesReports = false;
  IssueReportCompletion finishReport;
  std::exception_ptr textFailure;  // thrown by onRemoteText()

  static std::string numbers(std::string text, std::initializer_list<double> values) {
    for (const double value : values) text += " " + testing::PrintToString(value);
    return text;
  }
  RemoteTapResult note(std::string event) {
    events.push_back(std::move(event));
    return result;
  }
};

class NotedInput final : public RemoteInput {
 public:
  explicit NotedInput(HandlerLog& log) : log_(log) {}
  RemoteTapResult onRemoteTap(double x, double y) override { return log_.note(log_.numbers("tap", {x, y})); }
  RemoteTapResult onRemotePointer(RemotePointerPhase phase, double x, double y) override {
    return log_.note(log_.numbers("pointer " + std::string(rawValue(phase)), {x, y}));
  }
  RemoteTapResult onRemoteMove(double dx, double dy, double sensitivity) override {
    return log_.note(log_.numbers("move", {dx, dy, sensitivity}));
  }
  RemoteTapResult onRemoteClick(RemoteMouseButton button) override {
    return log_.note("click " + std::string(rawValue(button)));
  }
  RemoteTapResult onRemoteButton(bool down) override { return log_.note(down ? "button down" : "button up"); }
  RemoteTapResult onRemoteScroll(double dx, double dy) override {
    return log_.note(log_.numbers("scroll", {dx, dy}));
  }
  RemoteTapResult onRemoteText(const std::string& text) override {
    if (log_.textFailure) std::rethrow_exception(log_.textFailure);
    return log_.note("text " + text);
  }
  RemoteTapResult onRemoteKey(const std::string& key) override { return log_.note("key " + key); }
  RemoteTapResult onRemotePlayPause() override { return log_.note("playPause"); }
  RemoteTapResult onRemoteFullscreen() override { return log_.note("fullscreen"); }
  RemoteTapResult onRemoteOpenChrome() override { return log_.note("openChrome"); }
  RemoteTapResult onRemoteResetBrowser() override { return log_.note("resetBrowser"); }
  void onRemoteControlEnded() override { log_.note("controlEnded"); }

 private:
  HandlerLog& log_;
};

class NotedRequests final : public ViewerRequests {
 public:
  explicit NotedRequests(HandlerLog& log) : log_(log) {}
  void onStreamStartRequested() override { log_.note("start"); }
  void onKeyframeRequested() override { log_.note("keyframe"); }
  void onStreamSettingsChanged(StreamProfile profile, StreamFrameRate rate) override {
    log_.note("settings " + std::string(rawValue(profile)) + " " + std::to_string(framesPerSecond(rate)));
  }
  void onVideoCodecFallbackRequested() override { log_.note("codecFallback"); }
  void onViewerTelemetry(const ViewerTelemetry& telemetry) override {
    log_.note(log_.numbers("telemetry", {telemetry.viewerFPS, static_cast<double>(telemetry.reconnects)}));
  }
  bool onIssueReportRequested(const ViewerIssueReportRequest& request,
                              const IssueReportCompletion& completion) override {
    if (!log_.takesReports) return false;
    log_.note(request.reportId + " " + request.category + " " + request.symptom);
    log_.finishReport = completion;
    return true;
  }
  void onViewerConnectionChanged(bool connected, bool wasPlaying) override {
    log_.note(std::string(connected ? "connected" : "disconnected") + (wasPlaying ? " playing" : ""));
  }

 private:
  HandlerLog& log_;
};

/// A started server, with everything that its handlers are asked noted in `events`.
class ServerTest : public testing::Test, public HandlerLog {
 protected:
  using Connection = std::shared_ptr<FakeTcpConnection>;

  ServerTest() {
    server->setHandlers(std::make_shared<NotedInput>(*this), std::make_shared<NotedRequests>(*this));
  }

  void SetUp() override { startServer(); }
  void TearDown() override {
    EXPECT_EQ(log.mentions("A viewer connection is ended: "), textFailure != nullptr);
  }

  void startServer() {
    server->start([this](std::exception_ptr failure) {
      startResult = failure ? localizedDescription(failure) : "started";
    });
    time->runReady();
  }
  void stopServer() {
    server->stop([this] { events.push_back("stopped"); });
    time->runReady();
  }

  /// One request on a connection of its own; what was sent back so far.
  std::string exchange(const std::string& request) {
    const auto connection = network->connect();
    connection->deliver(request);
    time->runReady();
    return connection->sent;
  }
  static std::string get(const std::string& target, const std::string& token = {}) {
    return "GET " + target + " HTTP/1.1\r\n" +
           (token.empty() ? std::string() : "Authorization: Bearer " + token + "\r\n") + "\r\n";
  }

  Connection openWebSocket() {
    auto connection = network->connect();
    connection->deliver(kUpgradeRequest);
    time->runReady();
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
    connection->deliver(textFrame(text));
    time->runReady();
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
