// The server on real sockets and its real thread, with its owner's calls coming from others.

#include <gmock/gmock.h>

#include <algorithm>
#include <atomic>
#include <future>
#include <thread>
#include <utility>
#include <vector>

#include "linux/network/LoopbackPeer.h"
#include "platform/linux/network/AsioNetwork.h"
#include "server/StreamingServer.h"
#include "support/CapturedLog.h"
#include "support/DescriptorLimit.h"
#include "support/FakeBundle.h"
#include "support/WebSocketPeer.h"

namespace kestrune {
namespace {

using namespace std::chrono_literals;

struct FixedTokenSource final : ViewerTokenSource {
  std::string token() override { return "token"; }
};

struct CountedRequests final : ViewerRequests {
  std::atomic<int> keyframes{0};
  void onKeyframeRequested() override { ++keyframes; }
};

constexpr std::size_t kFrameSize = 90'000;

/// The next whole frame, however the stream is divided.
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

/// The low bytes of a video frame's time stamp.
int numberOf(const ServerFrame& frame) {
  return static_cast<std::uint8_t>(frame.payload.at(7)) << 8 | static_cast<std::uint8_t>(frame.payload.at(8));
}

class StreamingServerOnSocketsTest : public testing::Test {
 protected:
  void SetUp() override {
    server->setHandlers(std::make_shared<RemoteInput>(), requests);
    ASSERT_FALSE(await<std::exception_ptr>([this](auto done) { server->start(done); }));
  }
  void TearDown() override {
    await<bool>([this](auto done) { server->stop([done] { done(true); }); });
  }

  /// What `begin(done)` passes to `done` within ten seconds.
  template <class Value, class Begin>
  static Value await(Begin begin) {
    const auto outcome = std::make_shared<std::promise<Value>>();
    begin([outcome](Value value) { outcome->set_value(std::move(value)); });
    auto future = outcome->get_future();
    if (future.wait_for(10s) != std::future_status::ready) throw std::runtime_error("nothing came");
    return future.get();
  }
  StreamingServerSnapshot snapshot() {
    return await<StreamingServerSnapshot>([this](auto done) { server->snapshot(done); });
  }
  std::weak_ptr<const Bytes> broadcast(int number, bool isKeyframe) {
    const auto payload = std::make_shared<const Bytes>(kFrameSize);
    server->broadcastVideo({payload, isKeyframe, static_cast<std::uint64_t>(number)});
    return payload;
  }
  LoopbackPeer connectViewer(int receiveBuffer = 0) const {
    LoopbackPeer peer(port, receiveBuffer);
    peer.send(kUpgradeRequest + textFrame(authMessage("token")));
    peer.receiveTo("\r\n\r\n");
    for (int greeting = 0; greeting < 4; ++greeting) readFrame(peer);
    return peer;
  }
  static void expectPong(const LoopbackPeer& viewer) {
    viewer.send(textFrame(R"({"type":"ping"})"));
    EXPECT_EQ(readFrame(viewer).payload, R"({"type":"pong"})");
  }

  CapturedLog log;
  const std::uint16_t port = LoopbackPeer::freePort();
  std::shared_ptr<AudioChunkStore> audio = std::make_shared<AudioChunkStore>();
  std::shared_ptr<CountedRequests> requests = std::make_shared<CountedRequests>();
  std::shared_ptr<StreamingServer> server = std::make_shared<StreamingServer>(
      std::make_shared<linux_platform::AsioNetwork>(), std::make_shared<FakeBundle>(),
      std::make_shared<FixedTokenSource>(), audio, std::make_shared<VideoPacketStore>(), systemClock(), port);
};

TEST_F(StreamingServerOnSocketsTest, AViewerIsServedWhileOthersFloodAndTrickle) {
  const auto viewer = connectViewer();
  std::vector<LoopbackPeer> crowd;
  for (int index = 0; index < 300; ++index) {
    crowd.emplace_back(port);
    crowd.back().send("GET /he");
  }
  // These answers are not read, and what the others wait for is not sent.
  for (std::size_t index = 0; index < 100; ++index) crowd[index].send("alth HTTP/1.1\r\n\r\n");

  constexpr int kFrames = 40;
  std::thread encoder([this] {
    for (int index = 0; index < kFrames; ++index) broadcast(index, index == 0);
  });
  for (int index = 0; index < 20; ++index) snapshot();
  for (int index = 0; index < kFrames; ++index) {
    const auto frame = readFrame(viewer);
    EXPECT_EQ(frame.payload.size(), 9 + kFrameSize);
    EXPECT_EQ(numberOf(frame), index);
  }
  expectPong(viewer);
  encoder.join();
  EXPECT_EQ(snapshot().droppedOutboundFrames, 0u);
}

TEST_F(StreamingServerOnSocketsTest, AViewerThatStopsReadingCostsBoundedMemoryAndGoesOnAtAKeyframe) {
  constexpr int kFrames = 500;
  const auto viewer = connectViewer(4096);
  std::vector<std::weak_ptr<const Bytes>> payloads;
  for (int number = 0; number < kFrames; ++number) {
    payloads.push_back(broadcast(number, number == 0));
    if (number % 20 == 0) snapshot();  // so that none is lost before its turn on the server's thread
  }
  const auto dropped = static_cast<int>(snapshot().droppedOutboundFrames);
  EXPECT_GT(dropped, 300);
  const auto held =
      std::count_if(payloads.begin(), payloads.end(), [](const auto& payload) { return !payload.expired(); });
  // What waits, what is in flight, and what the store of recent packets holds.
  EXPECT_LE(static_cast<std::size_t>(held) * kFrameSize,
            kVideoModeBudget.maxBytes + kFrameSize + VideoPacketStore::kMaxBytes);
  EXPECT_EQ(requests->keyframes, 2);  // for its arrival, and once for the loss

  int last = -1;
  for (int backlog = kFrames - dropped; backlog > 0; --backlog) {
    const int number = numberOf(readFrame(viewer));
    EXPECT_GT(number, std::exchange(last, number));
  }
  broadcast(kFrames, false);  // the link is free again, but what this one refers to is lost
  broadcast(kFrames + 1, true);
  broadcast(kFrames + 2, false);
  for (const int number : {kFrames + 1, kFrames + 2}) {
    const auto frame = readFrame(viewer);
    EXPECT_EQ(numberOf(frame), number);
    EXPECT_EQ(frame.payload.at(0), number == kFrames + 1);
  }
  expectPong(viewer);
}

TEST_F(StreamingServerOnSocketsTest, AReplacedViewerWithABacklogLearnsWhy) {
  // The first waits in the kernel as a whole; of the others most wait in the server.
  for (const int frames : {1, 60}) {
    const auto viewer = connectViewer(4096);
    for (int index = 0; index < frames; ++index) broadcast(0, true);
    snapshot();
    const auto newer = connectViewer();
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
}

TEST_F(StreamingServerOnSocketsTest, IdleConnectionsGiveWayWhenDescriptorsRunOut) {
  const auto viewer = connectViewer();
  const LoopbackPeer poll(port);
  poll.send("GET /audio HTTP/1.1\r\nAuthorization: Bearer token\r\n\r\n");
  snapshot();
  std::vector<LoopbackPeer> crowd(100);
  const DescriptorLimit limit(DescriptorLimit::leaving(40));
  for (auto& peer : crowd) {
    ASSERT_TRUE(peer.connectTo(port));
    peer.send("GET /he");
  }
  for (const auto* late : {&crowd[99], &crowd[90]}) {
    late->send("alth HTTP/1.1\r\n\r\n");
    EXPECT_EQ(late->receive(15), "HTTP/1.1 200 OK");
  }
  EXPECT_EQ(crowd.front().receive(1), "");
  expectPong(viewer);
  audio->append({0, 48'000, 2, 1, Bytes(4)});
  EXPECT_EQ(poll.receive(15), "HTTP/1.1 200 OK");
}

}  // namespace
}  // namespace kestrune
