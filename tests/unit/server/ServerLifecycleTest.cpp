#include "ServerFixture.h"

namespace kestrune {
namespace {

class ServerLifecycleTest : public ServerTest {
 protected:
  void SetUp() override {}
};

TEST_F(ServerLifecycleTest, StartsOnLoopbackOnce) {
  EXPECT_EQ(server->localURL(), "http://127.0.0.1:8080");
  startServer();
  EXPECT_EQ(startResult, "started");
  EXPECT_EQ(network->endpoints.at(0).host, "127.0.0.1");
  EXPECT_EQ(network->endpoints.at(0).port, 8080);
  startServer();
  EXPECT_EQ(startResult, "Streaming is already running.");
  EXPECT_THAT(exchange(get("/health")), HasSubstr("{\"ok\":true}"));
}

TEST_F(ServerLifecycleTest, TellsWhyItCannotStart) {
  tokens->fails = true;
  startServer();
  EXPECT_EQ(startResult, "no keyring");
  tokens->fails = false;
  network->reason = "Address already in use";
  const std::vector<std::pair<TcpListener::State, std::string>> outcomes{
      {TcpListener::State::failed, "Address already in use"},
      {TcpListener::State::cancelled, "The local streaming server is not ready."},
      {TcpListener::State::setup, ""},  // the stop overtakes the start
      {TcpListener::State::ready, "started"}};
  for (const auto& [outcome, told] : outcomes) {
    network->outcome = outcome;
    startResult.clear();
    startServer();
    EXPECT_EQ(network->isListening(), outcome != TcpListener::State::failed);
    stopServer();
    EXPECT_EQ(startResult, told);
  }
}

TEST_F(ServerLifecycleTest, StopLeavesNothingBehind) {
  startServer();
  const auto viewer = connectViewer();
  enterControlMode(viewer);
  audio->append({0, 48'000, 2, 1, Bytes(4)});
  const auto poll = connect(get("/audio?after=1", kToken));
  const auto waiting = connect("GET /");
  EXPECT_EQ(snapshot().storedAudioChunks, 1);

  stopServer();
  EXPECT_THAT(seen(), ElementsAre("disconnected", "controlEnded", "stopped"));
  for (const auto& connection : {viewer, poll, waiting}) EXPECT_TRUE(connection->cancelled);
  const auto after = snapshot();
  EXPECT_FALSE(after.viewerConnected);
  EXPECT_EQ(after.bytesSent, 0u);
  EXPECT_EQ(after.storedAudioChunks + after.storedVideoPackets + after.uptimeSeconds, 0);
  time->advance(30s);
  EXPECT_EQ(poll->sent, "");
  EXPECT_EQ(time->pendingDelayedWork(), 0u);

  startServer();
  connectViewer();
  EXPECT_EQ(snapshot().audioSequence, 1u);
}

TEST_F(ServerLifecycleTest, ALaterFailureOrItsEndCancelsWhatIsOpen) {
  startServer();
  const auto first = connectViewer();
  network->changeListenerState(TcpListener::State::failed, "gone");
  time->runReady();
  EXPECT_TRUE(first->cancelled);
  EXPECT_THAT(seen(), ElementsAre("disconnected playing"));
  startServer();
  const auto viewer = connectViewer();
  server->broadcastVideo({std::make_shared<const Bytes>(1), true, 0});
  server.reset();
  time->advance(60s);
  EXPECT_TRUE(viewer->cancelled);
  EXPECT_EQ(network->listenersCancelled, 2u);
}

}  // namespace
}  // namespace kestrune
