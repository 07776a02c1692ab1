#include "ServerFixture.h"

namespace kestrune {
namespace {

class ServerViewerTest : public ServerTest {
 protected:
  /// A peer that has sent the token, and `rest` with it.
  Connection authenticate(const std::string& rest) {
    auto connection = openWebSocket();
    sendText(connection, authMessage(kToken, rest));
    return connection;
  }
  /// In control mode, and taking nothing from then on.
  Connection connectStuckViewer() {
    auto viewer = connectViewer();
    enterControlMode(viewer);
    viewer->takesSends = false;
    return viewer;
  }
  /// What it receives once it takes everything.
  std::vector<std::string> release(const Connection& viewer) {
    viewer->takesSends = true;
    completeSend(viewer);
    return received(viewer);
  }
};

TEST_F(ServerViewerTest, GreetsAViewerInOrder) {
  server->updateStreamSettings(StreamProfile::high, StreamFrameRate::fps30, StreamVideoCodec::hevc);
  server->updateRemoteStreamState(RemoteStreamState::error, "No \"display\"");
  server->updateRemoteCursorState({true, 0.25, 1.0});
  HostDiagnostics diagnostics;
  diagnostics.captureMode = "physicalDisplay";
  server->updateHostDiagnostics(diagnostics);
  audio->append({0, 48'000, 2, 1, Bytes(4)});

  const auto connection = authenticate("");
  EXPECT_THAT(
      received(connection),
      ElementsAre(
          R"({"type":"authenticated","audioSequence":1})",
          R"({"type":"streamSettings","quality":"high","fps":30,"codec":"hevc","reconfigured":false,"audioSequence":1})",
          R"({"type":"cursorState","visible":true,"x":0.25,"y":1.0})",
          R"({"type":"streamState","state":"error","message":"No \"display\""})",
          R"({"type":"hostDiagnostics","hostKind":"mac","captureMode":"physicalDisplay","captureTargetFPS":0,)"
          R"("captureFPS":0.0,"encodeFPS":0.0,"bitRateMbps":0.0,"capturedFrames":0,"encodedFrames":0,)"
          R"("captureDroppedFrames":0,"encoderPendingFrames":0,"serverPendingFrames":0,)"
          R"("networkDroppedFrames":0,"audioChannels":0})"));
  EXPECT_THAT(seen(), ElementsAre("connected", "keyframe"));
  server->updateStreamSettings(StreamProfile::safe, StreamFrameRate::fps24, StreamVideoCodec::h264);
  server->updateRemoteStreamState(RemoteStreamState::streaming, std::nullopt);
  server->updateRemoteStreamState(RemoteStreamState::error, "\xff");  // no text frame can carry it
  time->runReady();
  EXPECT_THAT(
      received(connection),
      ElementsAre(
          R"({"type":"streamSettings","quality":"safe","fps":24,"codec":"h264","reconfigured":true,"audioSequence":1})",
          R"({"type":"streamState","state":"streaming"})"));
}

TEST_F(ServerViewerTest, ReadsAMessageThatCameWithTheHandshakeHoweverTheyAreDivided) {
  const auto stream = kUpgradeRequest + textFrame(authMessage(kToken));
  for (const std::size_t piece : {std::size_t{1}, std::size_t{7}, stream.size()}) {
    const auto connection = network->connect();
    connection->takesSends = false;
    connection->deliver(stream, piece);
    time->runReady();
    EXPECT_THAT(connection->inFlight, StartsWith("HTTP/1.1 101"));
    connection->takesSends = true;
    completeSend(connection);
    EXPECT_EQ(takeServerFrames(connection->sent.erase(0, connection->sent.find("\r\n\r\n") + 4)).size(), 4u);
  }
}

TEST_F(ServerViewerTest, ClosesAPeerThatBreaksTheRules) {
  const auto closesWith = [this](const std::string& bytes, std::uint16_t code, const std::string& reason,
                                 bool authenticated = false) {
    const auto connection = authenticated ? connectViewer() : openWebSocket();
    deliver(connection, bytes);
    EXPECT_THAT(received(connection), ElementsAre(closeFrame(code, reason))) << reason;
    EXPECT_TRUE(connection->cancelled) << reason;
  };
  for (const auto& bytes :
       {maskedFrame(0xC1, "x"), std::string("\x81\x01x", 3), maskedFrame(0x81, std::string(65'537, 'x'))}) {
    closesWith(bytes, 1002, "Bad WebSocket frame", true);
  }
  closesWith(maskedFrame(0x01, "x"), 1003, "Fragmentation unsupported", true);
  closesWith(maskedFrame(0x82, "x"), 1003, "Text control messages required", true);
  closesWith(maskedFrame(0x89, ""), 1008, "Authenticate first");
  closesWith(textFrame(R"({"type":"startStream"})"), 1008, "Authenticate first");
  closesWith(textFrame(R"({"type":"auth","token":7})"), 1008, "Unauthorized");
  closesWith(textFrame(authMessage(std::string(kToken) + "x")), 1008, "Unauthorized");
  closesWith(maskedFrame(0x88, closeFrame(1001, "bye")), 1000, "", true);
  for (const auto* text : {"{", "[]", R"({"type":1})", R"({"x":1})"}) {
    closesWith(textFrame(text), 1007, "Invalid control message", true);
    closesWith(textFrame(text), 1007, "Invalid control message");
  }
  closesWith(textFrame(std::string(16'385, ' ')), 1007, "Invalid control message");
  tokens->fails = true;
  closesWith(textFrame(authMessage(kToken)), 1011, "Server unavailable");
}

TEST_F(ServerViewerTest, WantsTheTokenWithinFiveSeconds) {
  const auto silent = openWebSocket();
  const auto viewer = connectViewer();
  time->advance(4999ms);
  EXPECT_FALSE(silent->cancelled);
  time->advance(1ms);
  EXPECT_THAT(received(silent), ElementsAre(closeFrame(1008, "Authentication timeout")));
  time->advance(10s);
  EXPECT_FALSE(viewer->cancelled);
}

TEST_F(ServerViewerTest, ANewerViewerTakesOverUnlessItAsksFirst) {
  auto active = connectViewer();
  const auto polite = authenticate(R"(,"takeover":false)");
  EXPECT_THAT(received(polite), ElementsAre(closeFrame(4001, "Another viewer is active")));
  EXPECT_THAT(seen(), IsEmpty());
  EXPECT_FALSE(active->cancelled);
  for (const auto* takeover : {R"(,"takeover":true)", "", R"(,"takeover":0)"}) {
    const auto next = authenticate(takeover);
    EXPECT_THAT(received(active), ElementsAre(closeFrame(4001, "Replaced by newer viewer")));
    EXPECT_THAT(seen(), ElementsAre("disconnected playing", "connected", "keyframe"));
    active = next;
    active->sent.clear();
  }
  end(active);
  authenticate(R"(,"takeover":false)");
  EXPECT_THAT(seen(), ElementsAre("disconnected playing", "connected", "keyframe"));
}

TEST_F(ServerViewerTest, APageThatComesBackReplacesItsOwnConnectionAlone) {
  const auto isAdmitted = [this](const std::string& viewer) {
    return !authenticate(R"(,"takeover":false,"viewer":)" + viewer)->cancelled;
  };
  const std::string mine = R"("ABCDEFGHIJKLMNOPQRST-_")";
  const auto lost = authenticate(R"(,"viewer":)" + mine);
  for (const auto* other :
       {R"("ABCDEFGHIJKLMNOPQRST-A")", R"("ABCDEFGHIJKLMNOPQRST-_A")", R"("")", "7", "null"}) {
    EXPECT_FALSE(isAdmitted(other)) << other;
  }
  EXPECT_FALSE(lost->cancelled);
  EXPECT_TRUE(isAdmitted(mine));
  EXPECT_TRUE(lost->cancelled);
  connectViewer();  // a person takes over, on a page that does not say which it is
  for (const auto& viewer : {mine, std::string("null"), std::string(R"("")")})
    EXPECT_FALSE(isAdmitted(viewer));
  authenticate(R"(,"viewer":"short")");  // nor do two names of a wrong form match
  EXPECT_FALSE(isAdmitted(R"("short")"));
}

TEST_F(ServerViewerTest, AnExceptionEndsTheConnectionItConcerns) {
  const auto viewer = connectViewer();
  enterControlMode(viewer);
  textFailure = std::make_exception_ptr(std::bad_alloc());
  sendText(viewer, R"({"type":"text","text":"x"})");
  EXPECT_TRUE(viewer->cancelled);
  EXPECT_THAT(seen(), ElementsAre("controlEnded", "disconnected"));
  EXPECT_FALSE(connectViewer()->cancelled);
}

TEST_F(ServerViewerTest, AReplacedViewerControlsNothingMore) {
  const auto first = connectStuckViewer();
  const auto tap = textFrame(R"({"type":"tap","x":0,"y":0})");
  server->updateRemoteCursorState({});
  connectViewer();
  deliver(first, tap);
  EXPECT_THAT(seen(), IsEmpty());
  // Its close frame waits for the send in flight, and the connection for its end, but not for ever.
  first->closesInReturn = false;
  completeSend(first);
  EXPECT_EQ(takeServerFrames(first->inFlight).at(0).payload, closeFrame(4001, "Replaced by newer viewer"));
  EXPECT_FALSE(first->finished);
  completeSend(first);
  deliver(first, tap + "and more");
  EXPECT_TRUE(first->finished);
  EXPECT_FALSE(first->cancelled);
  time->advance(10s);
  EXPECT_TRUE(first->cancelled);
  EXPECT_THAT(seen(), IsEmpty());
}

TEST_F(ServerViewerTest, ASlowViewerLosesTheOldestVideoAndRecoversAtAKeyframe) {
  const auto viewer = connectStuckViewer();
  broadcast(100, false);  // in flight
  for (int index = 0; index < 4; ++index) broadcast(101, false);
  EXPECT_EQ(snapshot().outboundVideoFrames, 4);
  EXPECT_THAT(seen(), IsEmpty());
  broadcast(101, false);
  EXPECT_THAT(seen(), ElementsAre("keyframe"));
  EXPECT_EQ(snapshot().droppedOutboundFrames, 1u);
  for (int index = 0; index < 100; ++index) broadcast(101, false);
  EXPECT_EQ(snapshot().droppedOutboundFrames, 101u);
  EXPECT_THAT(seen(), IsEmpty());

  server->updateRemoteCursorState({});
  broadcast(50, true);
  EXPECT_EQ(snapshot().droppedOutboundFrames, 105u);
  EXPECT_THAT(release(viewer),
              ElementsAre("video delta 109", R"({"type":"cursorState","visible":false,"x":0.5,"y":0.5})",
                          "video key 59"));
}

TEST_F(ServerViewerTest, PacketsForAStandingQueueAreBoundedAndItsViewerGoesOnAtAKeyframe) {
  const auto viewer = connectViewer();
  for (std::size_t index = 0; index < 100; ++index) {
    server->broadcastVideo({std::make_shared<const Bytes>(1), index == 0, 0});
  }
  time->runReady();
  EXPECT_EQ(received(viewer).size(), 90u);
  EXPECT_THAT(seen(), IsEmpty());
  broadcast(1, false);
  EXPECT_THAT(seen(), ElementsAre("keyframe"));
  EXPECT_EQ(snapshot().droppedOutboundFrames, 11u);
  broadcast(2, true);
  broadcast(3, false);
  EXPECT_THAT(received(viewer), ElementsAre("video key 11", "video delta 12"));
}

TEST_F(ServerViewerTest, AFrameOverTheBudgetIsDroppedAloneAndAskedForAgain) {
  const auto viewer = connectViewer();
  enterControlMode(viewer);
  broadcast(1'048'576 - 10 - 9, true);
  EXPECT_EQ(received(viewer).size(), 1u);
  broadcast(1'048'576, true);
  broadcast(1'048'576, true);  // the recovery keyframe itself
  EXPECT_THAT(seen(), ElementsAre("keyframe", "keyframe"));
  EXPECT_THAT(received(viewer), IsEmpty());
  EXPECT_EQ(snapshot().droppedOutboundFrames, 2u);

  broadcast(1, true);
  viewer->takesSends = false;
  for (int index = 0; index < 3; ++index) broadcast(600'000, false);  // one in flight, two are over the bytes
  EXPECT_EQ(snapshot().outboundVideoFrames, 1);
  EXPECT_EQ(snapshot().droppedOutboundFrames, 3u);
}

TEST_F(ServerViewerTest, StaleStateDoesNotCostAStandingLinkItsViewer) {
  const auto viewer = connectStuckViewer();
  broadcast(1, false);
  HostDiagnostics diagnostics;
  for (; diagnostics.capturedFrames < 100; ++diagnostics.capturedFrames) {
    sendText(viewer, R"({"type":"ping"})");
    server->updateRemoteCursorState({true, 1.0 / static_cast<double>(diagnostics.capturedFrames + 1), 0.5});
    server->updateHostDiagnostics(diagnostics);
  }
  sendText(viewer, R"({"type":"resetBrowser"})");
  EXPECT_THAT(seen(), ElementsAre("resetBrowser"));
  EXPECT_THAT(release(viewer),
              ElementsAre("video delta 10", R"({"type":"pong"})",
                          R"({"type":"cursorState","visible":true,"x":0.01,"y":0.5})",
                          HasSubstr(R"("capturedFrames":99)"), HasSubstr("resetBrowserResult")));
}

TEST_F(ServerViewerTest, AViewerThatTakesNoControlMessagesIsClosed) {
  const auto viewer = connectStuckViewer();
  for (int index = 0; index < 5; ++index) deliver(viewer, maskedFrame(0x89, "p"));
  EXPECT_THAT(seen(), IsEmpty());
  // One answer too many: the session, which is at work, outlives the state of its connection.
  sendText(viewer, R"({"type":"mode","mode":"control"})");
  EXPECT_THAT(seen(), ElementsAre("keyframe", "controlEnded", "disconnected"));
  EXPECT_THAT(release(viewer), ElementsAre("p", closeFrame(1011, "Send queue overflow")));
}

TEST_F(ServerViewerTest, CountsWhatItWrote) {
  const auto viewer = connectViewer();
  const auto before = snapshot().bytesSent;
  broadcast(100, true);
  deliver(viewer, maskedFrame(0x89, std::string(200, 'p')));
  EXPECT_EQ(snapshot().bytesSent - before, viewer->sent.size());
  EXPECT_EQ(viewer->sent.size(), (2u + 9 + 100) + (4 + 200));
  viewer->takesSends = false;
  broadcast(100, true);
  completeSend(viewer, false);
  EXPECT_TRUE(viewer->cancelled);
  EXPECT_THAT(seen(), ElementsAre("disconnected playing"));
}

}  // namespace
}  // namespace kestrune
