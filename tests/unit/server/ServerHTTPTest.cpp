#include "ServerFixture.h"

namespace kestrune {
namespace {

using ServerHTTPTest = ServerTest;

TEST_F(ServerHTTPTest, AnswersEveryKindOfRequest) {
  bundle->files["Viewer/index.html"] = "<page>";
  // The page's code is an asset, but not in the bundle.
  const std::vector<std::pair<std::string, std::string>> table{
      {"HEAD /health HTTP/1.1\r\n\r\n", "405 Method Not Allowed\r\nAllow: GET\r\n"},
      {"nonsense\r\n\r\n", "400 Bad Request\r\n"},
      {get("/nothing"), "404 Not Found\r\n"},
      {get("/app.js"), "404 Not Found\r\n"},
      {get("/stream"), "400 Bad Request\r\n"},
      {get("/favicon.ico"), "204 No Content\r\n"},
      {get("/?x=1"), "200 OK\r\n"},
      {get("/%69ndex.html"), "200 OK\r\n"},
      {get("/health"), "200 OK\r\nCache-Control: no-store\r\n"}};
  for (const auto& [request, answer] : table) {
    EXPECT_THAT(exchange(request), StartsWith("HTTP/1.1 " + answer)) << request;
  }
  const auto page = exchange(get("/"));
  EXPECT_THAT(page, testing::EndsWith("\r\n\r\n<page>"));
  EXPECT_THAT(
      page, HasSubstr("\r\nContent-Security-Policy: default-src 'self'; script-src 'self' 'unsafe-eval' "
                      "'wasm-unsafe-eval'; style-src 'self'; connect-src 'self' ws: wss:; worker-src 'self'; "
                      "img-src 'self' data:; media-src blob:; object-src 'none'; base-uri 'none'; "
                      "frame-ancestors 'none'\r\n"));
}

TEST_F(ServerHTTPTest, LimitsAHeadWithoutAnEnd) {
  const std::string start = "GET / HTTP/1.1\r\nX: ";
  const auto connection = connect(start + std::string(16'384 - start.size(), 'x'));
  EXPECT_EQ(connection->sent, "");
  deliver(connection, "x");
  EXPECT_THAT(connection->sent, StartsWith("HTTP/1.1 431 Request Header Fields Too Large\r\n"));
  EXPECT_TRUE(connection->cancelled);
  // With its end in the same read a larger head is served.
  EXPECT_THAT(exchange("GET /health HTTP/1.1\r\nX: " + std::string(20'000, 'x') + "\r\n\r\n"),
              StartsWith("HTTP/1.1 200"));
}

TEST_F(ServerHTTPTest, AnswersOncePerConnectionHoweverTheRequestIsDivided) {
  const auto connection = network->connect();
  connection->deliver("GET /health HTTP/1.1\r\nX: \r\rx\r\n\r\n" + get("/health"), 1);
  time->runReady();
  EXPECT_EQ(connection->sent.find("HTTP/1.1", 1), std::string::npos);
  EXPECT_TRUE(connection->cancelled);
  EXPECT_EQ(snapshot().bytesSent, connection->sent.size());

  const auto halfClosed = network->connect();
  halfClosed->takesSends = false;
  halfClosed->deliverWithEnd(get("/health"));
  time->runReady();
  EXPECT_FALSE(halfClosed->cancelled);
  completeSend(halfClosed);
  EXPECT_THAT(halfClosed->sent, StartsWith("HTTP/1.1 200"));
  EXPECT_TRUE(halfClosed->cancelled);
}

TEST_F(ServerHTTPTest, PeersThatNeverFinishHoldNothingForEver) {
  const auto trickling = connect("GET /");
  const auto stuck = connect(get("/health"), false);
  time->advance(119s);
  EXPECT_FALSE(stuck->cancelled);
  time->advance(10s);
  EXPECT_TRUE(stuck->cancelled);
  EXPECT_FALSE(trickling->cancelled);
  EXPECT_EQ(time->pendingDelayedWork(), 0u);
  end(trickling);
  const auto reset = network->connect();
  reset->failReceive("reset by peer");
  const auto failed = network->connect();
  failed->changeState(TcpConnection::State::failed, "broken");
  time->runReady();
  for (const auto& connection : {trickling, reset, failed}) EXPECT_TRUE(connection->cancelled);
}

TEST_F(ServerHTTPTest, DataRoutesWantTheTokenAndLimitGuessing) {
  EXPECT_THAT(exchange(get("/status", kToken)), StartsWith("HTTP/1.1 200"));
  for (int index = 0; index < 4; ++index) {
    EXPECT_THAT(exchange(get("/status", "guess")), HasSubstr("401 Unauthorized\r\n"));
  }
  time->advance(60s + 1ns);                  // they count for a minute
  for (int index = 0; index < 5; ++index) {  // no token counts like a wrong one
    EXPECT_THAT(exchange(get("/audio")),
                AllOf(StartsWith("HTTP/1.1 401"), HasSubstr("\r\nWWW-Authenticate: Bearer\r\n")));
  }
  EXPECT_THAT(exchange(get("/status", "guess")),
              AllOf(StartsWith("HTTP/1.1 429 Too Many Requests\r\nCache-Control: no-store\r\n"),
                    HasSubstr("\r\nRetry-After: 60\r\n")));
  EXPECT_THAT(exchange(get("/status", kToken)), StartsWith("HTTP/1.1 200"));
  // The WebSocket shares the limit.
  const auto guessing = openWebSocket();
  sendText(guessing, authMessage("guess"));
  EXPECT_THAT(received(guessing), ElementsAre(closeFrame(1013, "Try again later")));
  time->advance(59'999ms);
  EXPECT_THAT(exchange(get("/status", "guess")), StartsWith("HTTP/1.1 429"));
  time->advance(1ms);  // refused attempts have not extended the block
  EXPECT_THAT(exchange(get("/status", "guess")), StartsWith("HTTP/1.1 401"));

  tokens->fails = true;
  EXPECT_THAT(exchange(get("/status", kToken)), testing::EndsWith("Server unavailable"));
  EXPECT_TRUE(log.contains("error [Server] Viewer token lookup failed: no keyring"));
}

TEST_F(ServerHTTPTest, StatusIsTheSnapshotAsJson) {
  time->advance(2900ms);
  audio->append({0, 48'000, 2, 1, Bytes(4)});
  broadcast(10, true);
  EXPECT_THAT(exchange(get("/status", kToken)),
              testing::EndsWith(R"({"viewerConnected":false,"audioSequence":1,"storedAudioChunks":1,)"
                                R"("storedVideoPackets":1,"outboundVideoFrames":0,)"
                                R"("droppedOutboundFrames":0,"bytesSent":0,"uptimeSeconds":2})"));
  sendText(connectViewer(),
           R"({"type":"telemetry","viewerFPS":59.5,"decodeMilliseconds":2,"videoBufferMilliseconds":3,)"
           R"("audioBufferMilliseconds":4,"audioDriftMilliseconds":-5,"reconnects":6,)"
           R"("videoBufferRebuildTargetMilliseconds":10000})");
  EXPECT_THAT(exchange(get("/status", kToken)),
              HasSubstr(R"("viewer":{"viewerFPS":59.5,"decodeMilliseconds":2.0,"videoBufferMilliseconds":3,)"
                        R"("audioBufferMilliseconds":4,"audioDriftMilliseconds":-5,"reconnects":6,)"
                        R"("videoBufferRebuildTargetMilliseconds":10000})"));
}

class AudioPollTest : public ServerTest {
 protected:
  Connection poll(const std::string& after) { return connect(get("/audio" + after, kToken)); }
  void store(int count) {
    for (int index = 0; index < count; ++index) {
      const auto stamp = audio->latestSequence() * 1000 + 1000;
      audio->append({stamp, 48'000, 2, 480, Bytes(2, static_cast<std::uint8_t>('a' + index))});
    }
  }
};

TEST_F(AudioPollTest, GivesAFullBatchAtOnceAndASmallOneAfterAWhile) {
  store(3);
  const auto waiting = poll("?after=1");
  time->advance(240ms);
  EXPECT_EQ(waiting->sent, "");
  time->advance(20ms);
  EXPECT_EQ(waiting->sent,
            "HTTP/1.1 200 OK\r\nCache-Control: no-store\r\nConnection: close\r\nContent-Length: 4\r\n"
            "Content-Type: application/octet-stream\r\nCross-Origin-Resource-Policy: same-origin\r\n"
            "Referrer-Policy: no-referrer\r\nX-Audio-Channels: 2\r\nX-Audio-Format: s16le\r\n"
            "X-Audio-Frames: 960\r\nX-Audio-PTS: 2000\r\nX-Audio-Sample-Rate: 48000\r\n"
            "X-Audio-Sequence: 3\r\nX-Content-Type-Options: nosniff\r\n\r\nbbcc");
  const auto filling = poll("");
  store(7);
  time->advance(20ms);
  EXPECT_THAT(filling->sent, HasSubstr("X-Audio-Sequence: 10\r\n"));
  EXPECT_THAT(poll("?after=0")->sent, HasSubstr("X-Audio-Sequence: 10\r\n"));
}

TEST_F(AudioPollTest, AnswersNoContentAfterTenSeconds) {
  store(2);
  const auto connection = poll("?after=2");
  const auto ended = poll("?after=2");
  deliver(connection, std::string(100'000, 'x'));  // ignored, and not kept
  end(ended);
  EXPECT_TRUE(ended->cancelled);
  EXPECT_EQ(time->pendingDelayedWork(), 1u);
  time->advance(9990ms);
  EXPECT_EQ(connection->sent, "");
  time->advance(20ms);
  EXPECT_THAT(connection->sent, AllOf(StartsWith("HTTP/1.1 204 No Content\r\nCache-Control: no-store\r\n"),
                                      HasSubstr("X-Audio-Sequence: 2\r\n")));
}

TEST_F(AudioPollTest, ReadsTheNumberToContinueFrom) {
  store(10);
  const auto answers = [this](const std::string& after) { return !poll("?after=" + after)->sent.empty(); };
  for (const auto* oldest : {"", "0", "-5", "x", "1x", "+", "18446744073709551616", "1.0", "%201"}) {
    EXPECT_TRUE(answers(oldest)) << oldest;
  }
  for (const auto* later : {"1", "+1", "18446744073709551615", "01"}) EXPECT_FALSE(answers(later)) << later;
}

}  // namespace
}  // namespace kestrune
