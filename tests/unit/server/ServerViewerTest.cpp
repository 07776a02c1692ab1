#include "ServerFixture.h"

namespace kestrune {
namespace {

using ServerViewerTest = ServerTest;

TEST_F(ServerViewerTest, GreetsAViewerInOrder) {
  server->updateStreamSettings(StreamProfile::high, StreamFrameRate::fps30, StreamVideoCodec::hevc);
  server->updateRemoteStreamState(RemoteStreamState::error, "No \"display\"");
  server->updateRemoteCursorState({true, 0.25, 1.0});
  HostDiagnostics diagnostics;
  diagnostics.captureMode = "physicalDisplay";
  diagnostics.audioChannels = 2;
  server->updateHostDiagnostics(diagnostics);
  audio->append({0, 48'000, 2, 1, Bytes(4)});

  const auto connection = openWebSocket();
  sendText(connection, authMessage(kToken));
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
          R"("networkDroppedFrames":0,"audioChannels":2})"));
  EXPECT_THAT(seen(), ElementsAre("connected", "keyframe"));
  EXPECT_TRUE(log.contains("notice [Server] Authenticated viewer connected"));

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

TEST_F(ServerViewerTest, ReadsAMessageThatCameWithTheHandshake) {
  const auto connection = network->connect();
  connection->takesSends = false;
  connection->deliver(kUpgradeRequest + textFrame(authMessage(kToken)));
  time->runReady();
  EXPECT_THAT(connection->inFlight, StartsWith("HTTP/1.1 101"));
  connection->takesSends = true;
  connection->completeSend();
  time->runReady();
  EXPECT_EQ(takeServerFrames(connection->sent.erase(0, connection->sent.find("\r\n\r\n") + 4)).size(), 4u);
}

TEST_F(ServerViewerTest, ClosesWhoeverBreaksTheRules) {
  const auto closesWith = [this](const std::string& bytes, std::uint16_t code, const std::string& reason,
                                 bool authenticated = false) {
    const auto connection = authenticated ? connectViewer() : openWebSocket();
    connection->deliver(bytes);
    time->runReady();
    EXPECT_THAT(received(connection), ElementsAre(closeFrame(code, reason))) << reason;
    EXPECT_TRUE(connection->cancelled) << reason;
  };
  closesWith(maskedFrame(0xC1, "x"), 1002, "Bad WebSocket frame");
  closesWith(std::string("\x81\x01x", 3), 1002, "Bad WebSocket frame");
  closesWith(maskedFrame(0x81, std::string(65'537, 'x')), 1002, "Bad WebSocket frame", true);
  closesWith(maskedFrame(0x01, "x"), 1003, "Fragmentation unsupported", true);
  closesWith(maskedFrame(0x82, "x"), 1003, "Text control messages required", true);
  closesWith(maskedFrame(0x89, ""), 1008, "Authenticate first");
  closesWith(textFrame(R"({"type":"startStream"})"), 1008, "Authenticate first");
  closesWith(textFrame(R"({"type":"auth","token":7})"), 1008, "Unauthorized");
  closesWith(textFrame(authMessage(std::string(kToken) + "x")), 1008, "Unauthorized");
  closesWith(maskedFrame(0x88, closeFrame(1001, "bye")), 1000, "", true);
  for (const auto& text :
       {std::string("{"), std::string("[]"), std::string(R"({"type":1})"), std::string(R"({"x":1})"),
        std::string(16'385, ' '), R"({"type":"ping","x":)" + std::string(5000, '[') + "}"}) {
    closesWith(textFrame(text), 1007, "Invalid control message", true);
    closesWith(textFrame(text), 1007, "Invalid control message");
  }
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
  const auto first = connectViewer();
  const auto polite = openWebSocket();
  sendText(polite, authMessage(kToken, R"(,"takeover":false)"));
  EXPECT_THAT(received(polite), ElementsAre(closeFrame(4001, "Another viewer is active")));
  EXPECT_THAT(seen(), IsEmpty());
  EXPECT_FALSE(first->cancelled);

  auto active = first;
  for (const auto* takeover : {R"(,"takeover":true)", "", R"(,"takeover":0)"}) {
    const auto next = openWebSocket();
    sendText(next, authMessage(kToken, takeover));
    EXPECT_THAT(received(active), ElementsAre(closeFrame(4001, "Replaced by newer viewer")));
    EXPECT_THAT(seen(), ElementsAre("disconnected playing", "connected", "keyframe"));
    active = next;
    active->sent.clear();
  }
  active->deliverEnd();
  time->runReady();
  const auto late = openWebSocket();
  sendText(late, authMessage(kToken, R"(,"takeover":false)"));
  EXPECT_THAT(seen(), ElementsAre("disconnected playing", "connected", "keyframe"));
}

TEST_F(ServerViewerTest, APageThatComesBackReplacesItsOwnConnectionAlone) {
  const auto viewerField = [](const std::string& json) { return R"(,"takeover":false,"viewer":)" + json; };
  const std::string mine = R"("ABCDEFGHIJKLMNOPQRST-_")";
  const auto isAdmitted = [&](const std::string& viewer) {
    const auto next = openWebSocket();
    sendText(next, authMessage(kToken, viewerField(viewer)));
    return !next->cancelled;
  };
  const auto lost = openWebSocket();
  sendText(lost, authMessage(kToken, viewerField(mine)));
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

  // Nor do two names of a wrong form match.
  const auto unnamed = openWebSocket();
  sendText(unnamed, authMessage(kToken, R"(,"viewer":"short")"));
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
  const auto first = connectViewer();
  enterControlMode(first);
  first->takesSends = false;
  server->updateRemoteCursorState({});
  connectViewer();
  first->deliver(textFrame(R"({"type":"tap","x":0,"y":0})"));
  time->runReady();
  EXPECT_THAT(seen(), IsEmpty());
  // Its close frame waits for the send in flight, and the connection for its end, but not for ever.
  first->closesInReturn = false;
  first->completeSend();
  time->runReady();
  EXPECT_EQ(takeServerFrames(first->inFlight).at(0).payload, closeFrame(4001, "Replaced by newer viewer"));
  EXPECT_FALSE(first->finished);
  first->completeSend();
  first->deliver(textFrame(R"({"type":"tap","x":0,"y":0})") + "and more");
  time->runReady();
  EXPECT_TRUE(first->finished);
  EXPECT_FALSE(first->cancelled);
  time->advance(10s);
  EXPECT_TRUE(first->cancelled);
  EXPECT_THAT(seen(), IsEmpty());
}

TEST_F(ServerViewerTest, ThePayloadOfAVideoFrameIsNotCopied) {
  const auto viewer = connectViewer();
  const auto payload = std::make_shared<const Bytes>(70'000);
  viewer->takesSends = false;
  server->broadcastVideo({payload, true, 0x0102});
  time->runReady();
  EXPECT_EQ(viewer->inFlight.substr(0, 19),
            std::string("\x82\x7F\0\0\0\0\0\x01\x11\x79\x01\0\0\0\0\0\0\x01\x02", 19));
  EXPECT_EQ(snapshot().storedVideoPackets, 1);
}

TEST_F(ServerViewerTest, ASlowViewerLosesTheOldestVideoAndRecoversAtAKeyframe) {
  const auto viewer = connectViewer();
  enterControlMode(viewer);
  viewer->takesSends = false;
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
  viewer->takesSends = true;
  viewer->completeSend();
  time->runReady();
  EXPECT_THAT(received(viewer),
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
  const auto viewer = connectViewer();
  enterControlMode(viewer);
  viewer->takesSends = false;
  broadcast(1, false);
  HostDiagnostics diagnostics;
  for (int index = 0; index < 100; ++index) {
    sendText(viewer, R"({"type":"ping"})");
    server->updateRemoteCursorState({true, 1.0 / (index + 1), 0.5});
    diagnostics.capturedFrames = static_cast<std::uint64_t>(index);
    server->updateHostDiagnostics(diagnostics);
  }
  sendText(viewer, R"({"type":"resetBrowser"})");
  EXPECT_THAT(seen(), ElementsAre("resetBrowser"));
  viewer->takesSends = true;
  viewer->completeSend();
  time->runReady();
  EXPECT_THAT(received(viewer),
              ElementsAre("video delta 10", R"({"type":"pong"})",
                          R"({"type":"cursorState","visible":true,"x":0.01,"y":0.5})",
                          HasSubstr(R"("capturedFrames":99)"), HasSubstr("resetBrowserResult")));
}

TEST_F(ServerViewerTest, AViewerThatTakesNoControlMessagesIsClosed) {
  const auto viewer = connectViewer();
  enterControlMode(viewer);
  viewer->takesSends = false;
  const auto ping = [&] {
    viewer->deliver(maskedFrame(0x89, "p"));
    time->runReady();
  };
  for (int index = 0; index < 5; ++index) ping();
  EXPECT_THAT(seen(), IsEmpty());
  ping();
  EXPECT_THAT(seen(), ElementsAre("controlEnded", "disconnected"));
  EXPECT_TRUE(log.contains("notice [Server] Viewer disconnected"));
  viewer->takesSends = true;
  viewer->completeSend();
  time->runReady();
  EXPECT_THAT(received(viewer), ElementsAre("p", closeFrame(1011, "Send queue overflow")));
}

TEST_F(ServerViewerTest, CountsWhatItWrote) {
  const auto viewer = connectViewer();
  const auto before = snapshot().bytesSent;
  broadcast(100, true);
  viewer->deliver(maskedFrame(0x89, std::string(200, 'p')));
  time->runReady();
  EXPECT_EQ(snapshot().bytesSent - before, viewer->sent.size());
  EXPECT_EQ(viewer->sent.size(), (2u + 9 + 100) + (4 + 200));
  viewer->takesSends = false;
  broadcast(100, true);
  viewer->completeSend(false);
  time->runReady();
  EXPECT_TRUE(viewer->cancelled);
  EXPECT_THAT(seen(), ElementsAre("disconnected playing"));
}

}  // namespace
}  // namespace kestrune
