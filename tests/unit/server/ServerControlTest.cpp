#include "ServerFixture.h"

namespace kestrune {
namespace {

class ServerControlTest : public ServerTest {
 protected:
  void SetUp() override {
    ServerTest::SetUp();
    viewer = connectViewer();
  }
  /// What a message sets off, then what is sent back.
  std::vector<std::string> send(const std::string& text) {
    sendText(viewer, text);
    auto all = seen();
    for (auto& reply : received(viewer)) all.push_back(std::move(reply));
    return all;
  }
  void enterControl() { enterControlMode(viewer); }

  Connection viewer;
};

constexpr const char* kTap = R"({"type":"tap","x":0.25,"y":1})";
constexpr const char* kPlayPause = R"({"type":"playPause"})";
constexpr const char* kTapClicked = R"({"type":"tapResult","result":"clicked"})";

const std::vector<std::pair<std::string, std::string>> kQuietControl{
    {R"({"type":"move","dx":1,"dy":-2.5,"sensitivity":2})", "move 1 -2.5 2"},
    {R"({"type":"click","button":"right"})", "click right"},
    {R"({"type":"button","down":true})", "button down"},
    {R"({"type":"scroll","dx":0,"dy":-40})", "scroll 0 -40"},
    {R"({"type":"text","text":"Grüße 👋"})", "text Grüße 👋"},
    {R"({"type":"key","key":"enter"})", "key enter"},
    {R"({"type":"pointer","phase":"down","x":0.5,"y":0.5})", "pointer down 0.5 0.5"},
    {R"({"type":"pointer","phase":"cancel","x":0,"y":0})", "pointer cancel 0 0"},
};

TEST_F(ServerControlTest, ControlWorksInControlModeAndItsFailuresAreTold) {
  constexpr auto kRefused = R"({"type":"tapResult","result":"permissionRequired"})";
  for (const auto& [text, event] : kQuietControl) EXPECT_THAT(send(text), IsEmpty()) << text;
  EXPECT_THAT(send(kTap), IsEmpty());
  enterControl();
  for (const auto& [text, event] : kQuietControl) {
    time->advance(1s);
    result = RemoteTapResult::clicked;
    EXPECT_THAT(send(text), ElementsAre(event)) << text;
    time->advance(1s);
    result = RemoteTapResult::permissionRequired;
    EXPECT_THAT(send(text), ElementsAre(event, kRefused)) << text;
  }
  result = RemoteTapResult::clicked;
  EXPECT_THAT(send(kTap), ElementsAre("tap 0.25 1", kTapClicked));
  EXPECT_THAT(send(R"({"type":"pointer","phase":"up","x":0,"y":0})"),
              ElementsAre("pointer up 0 0", kTapClicked));
}

TEST_F(ServerControlTest, BadFieldsAreIgnored) {
  enterControl();
  for (const auto* text : {
           R"({"type":"tap","x":true,"y":0})",
           R"({"type":"pointer","phase":"over","x":0,"y":0})",
           R"({"type":"pointer","phase":"down","x":0})",
           R"({"type":"move","dx":1,"dy":1})",
           R"({"type":"click","button":"middle"})",
           R"({"type":"button","down":1})",
           R"({"type":"key","key":null})",
           R"({"type":"mode","mode":"both"})",
           R"({"type":"streamSettings","quality":"best","fps":30})",
           R"({"type":"streamSettings","quality":"high","fps":25})",
           R"({"type":"streamSettings","quality":"high","fps":1e300})",
           R"({"type":"auth","token":"x"})",
           R"({"type":"unknown"})",
       }) {
    time->advance(1s);
    EXPECT_THAT(send(text), IsEmpty()) << text;
  }
  EXPECT_FALSE(viewer->cancelled);
}

TEST_F(ServerControlTest, ClicksAreSpacedAndMovesToo) {
  enterControl();
  const auto accepts = [this](const std::string& text) { return !send(text).empty(); };
  const std::string click = R"({"type":"click","button":"left"})";
  EXPECT_TRUE(accepts(kTap));
  time->advance(40ms);
  EXPECT_FALSE(accepts(kTap));
  EXPECT_FALSE(accepts(click));
  time->advance(10ms);
  EXPECT_TRUE(accepts(click));
  time->advance(50ms);
  EXPECT_FALSE(accepts(R"({"type":"tap"})"));  // says nothing, but starts the wait
  time->advance(40ms);
  EXPECT_FALSE(accepts(kTap));
  time->advance(10ms);
  EXPECT_FALSE(accepts(R"({"type":"click"})"));  // says nothing and starts no wait
  EXPECT_TRUE(accepts(kTap));

  const std::string move = R"({"type":"move","dx":1,"dy":1,"sensitivity":1})";
  const std::string pointerMove = R"({"type":"pointer","phase":"move","x":0,"y":0})";
  EXPECT_TRUE(accepts(move));
  time->advance(8ms);
  EXPECT_FALSE(accepts(move));
  time->advance(1ms);
  EXPECT_TRUE(accepts(move));
  time->advance(22ms);
  EXPECT_FALSE(accepts(pointerMove));
  EXPECT_TRUE(accepts(R"({"type":"pointer","phase":"down","x":0,"y":0})"));
  time->advance(1ms);
  EXPECT_TRUE(accepts(pointerMove));
}

TEST_F(ServerControlTest, ButtonsOfThePageAnswerAlways) {
  constexpr auto kPaused = R"({"type":"playPauseResult","result":"clicked","audioSequence":0})";
  constexpr auto kRefused = R"({"type":"playPauseResult","result":"eventFailed","audioSequence":0})";
  constexpr auto kFullscreen = R"({"type":"fullscreenResult","result":"clicked"})";
  EXPECT_THAT(send(kPlayPause), ElementsAre("playPause", kPaused));
  EXPECT_THAT(send(R"({"type":"fullscreen"})"),
              ElementsAre(R"({"type":"fullscreenResult","result":"eventFailed"})"));
  time->advance(250ms);
  EXPECT_THAT(send(R"({"type":"fullscreen"})"), ElementsAre("fullscreen", kFullscreen));
  EXPECT_THAT(send(R"({"type":"openChrome"})"),
              ElementsAre(R"({"type":"openChromeResult","result":"eventFailed"})"));
  EXPECT_THAT(send(R"({"type":"resetBrowser"})"),
              ElementsAre("resetBrowser", R"({"type":"resetBrowserResult","result":"clicked"})"));
  enterControl();
  time->advance(250ms);
  EXPECT_THAT(send(kPlayPause), ElementsAre(kRefused));  // of video mode only, and no touch of the clock
  EXPECT_THAT(send(R"({"type":"openChrome"})"),
              ElementsAre("openChrome", R"({"type":"openChromeResult","result":"clicked"})"));
  time->advance(100ms);
  EXPECT_THAT(send(kTap), ElementsAre("tap 0.25 1", kTapClicked));
  sendText(viewer, R"({"type":"mode","mode":"video"})");
  send(R"({"type":"ping"})");
  time->advance(100ms);
  EXPECT_THAT(send(kPlayPause), ElementsAre(kRefused));  // a tap counts for its clock too
  time->advance(1s);
  result = RemoteTapResult::eventFailed;
  EXPECT_THAT(send(kPlayPause), ElementsAre("playPause", kRefused));  // fails, and so changes nothing
  viewer->deliverEnd();
  time->runReady();
  EXPECT_THAT(seen(), ElementsAre("disconnected"));  // paused since the first message
}

TEST_F(ServerControlTest, AChangeOfModeStartsOverAtAKeyframe) {
  constexpr auto kToControl = R"({"type":"mode","mode":"control"})";
  constexpr auto kControl = R"({"type":"mode","mode":"control","audioSequence":0})";
  EXPECT_THAT(send(kToControl), ElementsAre("keyframe", kControl));
  broadcast(1, true);
  received(viewer);
  EXPECT_THAT(send(kToControl), ElementsAre("keyframe", kControl));
  EXPECT_THAT(send(R"({"type":"mode","mode":"video"})"),
              ElementsAre("controlEnded", R"({"type":"mode","mode":"video","audioSequence":0})"));
  EXPECT_THAT(send(R"({"type":"mode","mode":"video"})"), ElementsAre(HasSubstr("video")));

  broadcast(1, true);
  received(viewer);
  viewer->takesSends = false;
  const auto before = snapshot().droppedOutboundFrames;
  for (int index = 0; index < 3; ++index) broadcast(10, false);
  EXPECT_THAT(send(R"({"type":"keyframe"})"), ElementsAre("keyframe"));
  EXPECT_THAT(send(R"({"type":"keyframe"})"), IsEmpty());
  EXPECT_EQ(snapshot().outboundVideoFrames, 0);
  EXPECT_EQ(snapshot().droppedOutboundFrames - before, 2u);
}

TEST_F(ServerControlTest, StreamMessagesReachTheOwner) {
  EXPECT_THAT(send(R"({"type":"startStream"})"), ElementsAre("start"));
  EXPECT_THAT(send(R"({"type":"ping"})"), ElementsAre(R"({"type":"pong"})"));
  EXPECT_THAT(send(R"({"type":"codecFallback"})"), IsEmpty());
  server->updateStreamSettings(StreamProfile::safe, StreamFrameRate::fps24, StreamVideoCodec::hevc);
  time->runReady();
  received(viewer);
  EXPECT_THAT(send(R"({"type":"codecFallback"})"), ElementsAre("codecFallback"));
  EXPECT_THAT(
      send(R"({"type":"streamSettings","quality":"high","fps":60.9})"),
      ElementsAre(
          "settings safe 24",
          R"({"type":"streamSettings","quality":"safe","fps":24,"codec":"hevc","reconfigured":false,"audioSequence":0})"));
}

TEST_F(ServerControlTest, TelemetryIsTakenWholeOrNotAtAll) {
  const auto telemetry = [](const std::string& fps, const std::string& target) {
    return R"({"type":"telemetry","viewerFPS":)" + fps +
           R"(,"decodeMilliseconds":1.5,"videoBufferMilliseconds":1,"audioBufferMilliseconds":2,)"
           R"("audioDriftMilliseconds":-3,"reconnects":4.9)" +
           target + "}";
  };
  const std::string target = R"(,"videoBufferRebuildTargetMilliseconds":20000)";
  EXPECT_THAT(send(telemetry("30", target)), ElementsAre("telemetry 30 4"));
  EXPECT_THAT(send(telemetry("31", "")), IsEmpty());
  EXPECT_THAT(send(telemetry("31", R"(,"videoBufferRebuildTargetMilliseconds":7000)")), IsEmpty());
  EXPECT_THAT(send(telemetry("\"31\"", target)), IsEmpty());
  EXPECT_EQ(snapshot().viewer->viewerFPS, 30);
  viewer->deliverEnd();
  time->runReady();
  EXPECT_FALSE(snapshot().viewer);
}

TEST_F(ServerControlTest, IssueReportsAreAnsweredWhenTheyAreDone) {
  const auto report = [](const std::string& id, const std::string& category) {
    return R"({"type":"issueReport","reportId":")" + id + R"(","category":")" + category +
           R"(","symptom":"no_sound"})";
  };
  EXPECT_THAT(send(report("1000", "audio")),
              ElementsAre(R"({"type":"issueReportResult","reportId":"1000"})"));
  takesReports = true;
  const std::string longWord(65, 'a');
  for (const auto* id : {"0999", "10000", "12a4"}) EXPECT_THAT(send(report(id, "audio")), IsEmpty()) << id;
  for (const auto& category : {std::string(), std::string("Audio"), longWord}) {
    EXPECT_THAT(send(report("1234", category)), IsEmpty()) << category;
  }
  EXPECT_THAT(send(report("9999", std::string(64, 'a'))),
              ElementsAre("9999 " + std::string(64, 'a') + " no_sound"));
  finishReport({"9999", 42});
  time->runReady();
  EXPECT_THAT(received(viewer),
              ElementsAre(R"({"type":"issueReportResult","reportId":"9999","issueNumber":42})"));
  connectViewer();
  received(viewer);
  finishReport({"9999", 43});
  server.reset();
  finishReport({"9999", 44});
  time->runReady();
  EXPECT_THAT(received(viewer), IsEmpty());
}

}  // namespace
}  // namespace kestrune
