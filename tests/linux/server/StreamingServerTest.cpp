// The server on real sockets and its real thread, with its owner's calls coming from others.

#include <gmock/gmock.h>

#include <future>
#include <thread>
#include <vector>

#include "linux/network/LoopbackPeer.h"
#include "platform/linux/network/AsioNetwork.h"
#include "runtime/Error.h"
#include "server/StreamingServer.h"
#include "support/CapturedLog.h"
#include "support/DescriptorLimit.h"
#include "support/FakeBundle.h"
#include "support/WebSocketPeer.h"

namespace kestrune {
namespace {

struct FixedTokenSource final : ViewerTokenSource {
  std::string token() override { return "token"; }
};

/// A server with a network of its own.
struct RealServer {
  explicit RealServer(std::uint16_t port)
      : server(std::make_shared<StreamingServer>(network, std::make_shared<FakeBundle>(),
                                                 std::make_shared<FixedTokenSource>(), audio,
                                                 std::make_shared<VideoPacketStore>(), systemClock(), port)) {
  }

  /// "" on success, else what a person is told.
  std::string start() {
    std::promise<std::string> outcome;
    server->start([&outcome](std::exception_ptr failure) {
      outcome.set_value(failure ? localizedDescription(failure) : "");
    });
    return outcome.get_future().get();
  }
  void stop() {
    std::promise<void> done;
    server->stop([&done] { done.set_value(); });
    done.get_future().get();
  }
  StreamingServerSnapshot snapshot() {
    std::promise<StreamingServerSnapshot> taken;
    server->snapshot([&taken](StreamingServerSnapshot snapshot) { taken.set_value(std::move(snapshot)); });
    return taken.get_future().get();
  }

  std::shared_ptr<AudioChunkStore> audio = std::make_shared<AudioChunkStore>();
  std::shared_ptr<linux_platform::AsioNetwork> network = std::make_shared<linux_platform::AsioNetwork>();
  std::shared_ptr<StreamingServer> server;
};

/// The next whole frame, whatever the division of the stream.
ServerFrame readFrame(const LoopbackPeer& peer) {
  auto bytes = peer.receive(2);
  if (bytes.size() < 2) throw std::runtime_error("the connection ended");
  const auto marker = static_cast<std::uint8_t>(bytes.at(1));
  const std::size_t lengthSize = marker == 127 ? 8 : marker == 126 ? 2 : 0;
  const auto length = peer.receive(lengthSize);
  std::size_t size = lengthSize == 0 ? marker : 0;
  for (const char byte : length) size = size << 8 | static_cast<std::uint8_t>(byte);
  bytes += length + peer.receive(size);
  return takeServerFrames(bytes).at(0);
}

LoopbackPeer connectViewer(std::uint16_t port, int receiveBuffer = 0) {
  LoopbackPeer peer(port, receiveBuffer);
  peer.send(kUpgradeRequest + textFrame(authMessage("token")));
  peer.receiveTo("\r\n\r\n");
  for (int greeting = 0; greeting < 4; ++greeting) readFrame(peer);
  return peer;
}

TEST(StreamingServerOnSocketsTest, AViewerIsServedWhileOthersFloodAndTrickle) {
  const auto port = LoopbackPeer::freePort();
  CapturedLog log;
  RealServer host(port);
  ASSERT_EQ(host.start(), "");
  const auto viewer = connectViewer(port);

  std::vector<LoopbackPeer> crowd;
  for (int index = 0; index < 300; ++index) {
    crowd.emplace_back(port);
    crowd.back().send("GET /he");
  }
  // Nobody reads these answers, nor sends what the next one waits for.
  for (int index = 0; index < 100; ++index)
    crowd[static_cast<std::size_t>(index)].send("alth HTTP/1.1\r\n\r\n");

  constexpr std::uint8_t kFrames = 40;
  std::thread encoder([&host] {
    for (std::uint8_t index = 0; index < kFrames; ++index) {
      host.server->broadcastVideo({std::make_shared<const Bytes>(Bytes(50'000, index)), index == 0, index});
    }
  });
  std::thread owner([&host] {
    for (int index = 0; index < 20; ++index) host.snapshot();
  });
  for (std::uint8_t index = 0; index < kFrames; ++index) {
    const auto frame = readFrame(viewer);
    EXPECT_EQ(frame.firstByte, 0x82);
    EXPECT_EQ(frame.payload.at(0), index == 0 ? 1 : 0);
    EXPECT_EQ(frame.payload.substr(9), std::string(50'000, static_cast<char>(index)));
  }
  viewer.send(textFrame(R"({"type":"ping"})"));
  EXPECT_EQ(readFrame(viewer).payload, R"({"type":"pong"})");
  encoder.join();
  owner.join();
  EXPECT_EQ(host.snapshot().droppedOutboundFrames, 0u);

  host.stop();
  EXPECT_EQ(viewer.receive(1), "");
}

TEST(StreamingServerOnSocketsTest, AReplacedViewerWithABacklogLearnsWhy) {
  const auto port = LoopbackPeer::freePort();
  CapturedLog log;
  RealServer host(port);
  ASSERT_EQ(host.start(), "");
  // The first waits in the kernel as a whole; of the others most wait in the server.
  for (const int frames : {1, 40}) {
    const auto viewer = connectViewer(port, 4096);
    for (int index = 0; index < frames; ++index) {
      host.server->broadcastVideo({std::make_shared<const Bytes>(Bytes(90'000)), true, 1});
    }
    host.snapshot();
    const auto newer = connectViewer(port);
    const std::string input = textFrame(R"({"type":"ping"})");
    for (int index = 0; index < 1000; ++index) ASSERT_TRUE(viewer.send(input)) << index;
    int received = 0;
    auto frame = readFrame(viewer);
    for (; frame.firstByte == 0x82; frame = readFrame(viewer)) ++received;
    EXPECT_EQ(frame.firstByte, 0x88);
    EXPECT_EQ(frame.payload, "\x0F\xA1Replaced by newer viewer");
    EXPECT_TRUE(frames == 1 ? received == 1 : received < frames / 2) << received;
    EXPECT_EQ(viewer.receive(1), "");
  }
  host.stop();
}

TEST(StreamingServerOnSocketsTest, IdleConnectionsGiveWayWhenDescriptorsRunOut) {
  const auto port = LoopbackPeer::freePort();
  CapturedLog log;
  RealServer host(port);
  ASSERT_EQ(host.start(), "");
  const auto viewer = connectViewer(port);
  const LoopbackPeer poll(port);
  poll.send("GET /audio HTTP/1.1\r\nAuthorization: Bearer token\r\n\r\n");
  host.snapshot();
  std::vector<LoopbackPeer> crowd(100);
  const DescriptorLimit limit(DescriptorLimit::leaving(40));
  for (auto& peer : crowd) {
    ASSERT_TRUE(peer.connectTo(port));
    peer.send("GET /he");
  }
  crowd.back().send("alth HTTP/1.1\r\n\r\n");
  EXPECT_EQ(crowd.back().receive(15), "HTTP/1.1 200 OK");
  EXPECT_EQ(crowd.front().receive(1), "");
  crowd[90].send("alth HTTP/1.1\r\n\r\n");
  EXPECT_EQ(crowd[90].receive(15), "HTTP/1.1 200 OK");

  viewer.send(textFrame(R"({"type":"ping"})"));
  EXPECT_EQ(readFrame(viewer).payload, R"({"type":"pong"})");
  host.audio->append({0, 48'000, 2, 1, Bytes(4)});
  EXPECT_EQ(poll.receive(15), "HTTP/1.1 200 OK");
  host.stop();
}

}  // namespace
}  // namespace kestrune
