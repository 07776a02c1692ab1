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

/// A started server, with every callback noted in `events`.
class ServerTest : public testing::Test {
 protected:
  using Connection = std::shared_ptr<FakeTcpConnection>;

  ServerTest() {
    const auto note = [this](std::string event) { events.push_back(std::move(event)); };
    const auto noteResult = [this, note](std::string event) {
      note(std::move(event));
      return result;
    };
    server->onStreamStartRequested = [note] { note("start"); };
    server->onKeyframeRequested = [note] { note("keyframe"); };
    server->onRemoteTap = [noteResult](double x, double y) { return noteResult(numbers("tap", {x, y})); };
    server->onRemotePointer = [noteResult](RemotePointerPhase phase, double x, double y) {
      return noteResult(numbers("pointer " + std::string(rawValue(phase)), {x, y}));
    };
    server->onRemoteMove = [noteResult](double dx, double dy, double sensitivity) {
      return noteResult(numbers("move", {dx, dy, sensitivity}));
    };
    server->onRemoteClick = [noteResult](RemoteMouseButton button) {
      return noteResult("click " + std::string(rawValue(button)));
    };
    server->onRemoteButton = [noteResult](bool down) {
      return noteResult(down ? "button down" : "button up");
    };
    server->onRemoteScroll = [noteResult](double dx, double dy) {
      return noteResult(numbers("scroll", {dx, dy}));
    };
    server->onRemoteText = [noteResult](const std::string& text) { return noteResult("text " + text); };
    server->onRemoteKey = [noteResult](const std::string& key) { return noteResult("key " + key); };
    server->onRemotePlayPause = [noteResult] { return noteResult("playPause"); };
    server->onRemoteFullscreen = [noteResult] { return noteResult("fullscreen"); };
    server->onRemoteOpenChrome = [noteResult] { return noteResult("openChrome"); };
    server->onRemoteResetBrowser = [noteResult] { return noteResult("resetBrowser"); };
    server->onStreamSettingsChanged = [note](StreamProfile profile, StreamFrameRate rate) {
      note("settings " + std::string(rawValue(profile)) + " " + std::to_string(framesPerSecond(rate)));
    };
    server->onVideoCodecFallbackRequested = [note] { note("codecFallback"); };
    server->onRemoteControlEnded = [note] { note("controlEnded"); };
    server->onViewerTelemetry = [note](const ViewerTelemetry& telemetry) {
      note(numbers("telemetry", {telemetry.viewerFPS, static_cast<double>(telemetry.reconnects)}));
    };
    server->onViewerConnectionChanged = [note](bool connected, bool wasPlaying) {
      note(std::string(connected ? "connected" : "disconnected") + (wasPlaying ? " playing" : ""));
    };
  }

  void SetUp() override { startServer(); }
  void TearDown() override { EXPECT_EQ(log.mentions("A viewer connection is ended: "), throws); }

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
  static std::string numbers(std::string text, std::initializer_list<double> values) {
    for (const double value : values) text += " " + testing::PrintToString(value);
    return text;
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
  RemoteTapResult result = RemoteTapResult::clicked;
  std::vector<std::string> events;
  std::string startResult;
  bool throws = false;  // the test makes a handler throw
};

}  // namespace kestrune
