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
  Connection viewer;
};

constexpr const char* kTap = R"({"type":"tap","x":0.25,"y":1})";
constexpr const char* kTapClicked = R"({"type":"tapResult","result":"clicked"})";

const std::vector<std::pair<std::string, std::string>> kQuietControl{
    {R"({"type":"move","dx":1,"dy":-2.5,"sensitivity":2})", "move 1 -2.5 2"},
    {R"({"type":"click","button":"right"})", "click right"},
    {R"({"type":"button","down":true})", "button down"},
    {R"({"type":"scroll","dx":0,"dy":-40})", "scroll 0 -40"},
    {R"({"type":"text","text":"Grüße 👋"})", "text Grüße 👋"},
    {R"({"type":"key","key":"enter"})", "key enter"},
    {R"({"type":"pointer","phase":"down","x":0.5,"y":0.5})", "pointer down 0.5 0.5"},
};

TEST_F(ServerControlTest, ControlWorksInControlModeAndItsFailuresAreTold) {
  constexpr auto kRefused = R"({"type":"tapResult","result":"permissionRequired"})";
  for (const auto& [text, event] : kQuietControl) EXPECT_THAT(send(text), IsEmpty()) << text;
  EXPECT_THAT(send(kTap), IsEmpty());
  enterControlMode(viewer);
  for (const auto& [text, event] : kQuietControl) EXPECT_THAT(send(text), ElementsAre(event)) << text;
  time->advance(1s);
  EXPECT_THAT(send(kTap), ElementsAre("tap 0.25 1", kTapClicked));
  EXPECT_THAT(send(R"({"type":"pointer","phase":"up","x":0,"y":0})"),
              ElementsAre("pointer up 0 0", kTapClicked));
  time->advance(1s);
  result = RemoteTapResult::permissionRequired;
  for (const auto& [text, event] : kQuietControl) {
    EXPECT_THAT(send(text), ElementsAre(event, kRefused)) << text;
    time->advance(1s);
  }
}

TEST_F(ServerControlTest, BadFieldsAreIgnored) {
  enterControlMode(viewer);
  for (const auto* text :
       {R"({"type":"tap","x":true,"y":0})", R"({"type":"pointer","phase":"over","x":0,"y":0})",
        R"({"type":"pointer","phase":"down","x":0})", R"({"type":"move","dx":1,"dy":1})",
        R"({"type":"click","button":"middle"})", R"({"type":"button","down":1})",
        R"({"type":"key","key":null})", R"({"type":"mode","mode":"both"})",
        R"({"type":"streamSettings","quality":"best","fps":30})", R"({"type":"auth","token":"x"})",
        R"({"type":"streamSettings","quality":"high","fps":1e300})", R"({"type":"unknown"})"}) {
    time->advance(1s);
    EXPECT_THAT(send(text), IsEmpty()) << text;
  }
  EXPECT_FALSE(viewer->cancelled);
}

TEST_F(ServerControlTest, ClicksAreSpacedAndMovesToo) {
  constexpr auto kClick = R"({"type":"click","button":"left"})";
  constexpr auto kMove = R"({"type":"move","dx":1,"dy":1,"sensitivity":1})";
  constexpr auto kPointerDown = R"({"type":"pointer","phase":"down","x":0,"y":0})";
  constexpr auto kPointerMove = R"({"type":"pointer","phase":"move","x":0,"y":0})";
  using Step = std::tuple<Duration, const char*, bool>;
  enterControlMode(viewer);
  // A bad tap starts the wait, a bad click does not.
  for (const auto& [later, text, isAccepted] :
       {Step(0ms, kTap, true), Step(40ms, kTap, false), Step(0ms, kClick, false), Step(10ms, kClick, true),
        Step(50ms, R"({"type":"tap"})", false), Step(40ms, kTap, false),
        Step(10ms, R"({"type":"click"})", false), Step(0ms, kTap, true), Step(0ms, kMove, true),
        Step(8ms, kMove, false), Step(1ms, kMove, true), Step(22ms, kPointerMove, false),
        Step(0ms, kPointerDown, true), Step(1ms, kPointerMove, true)}) {
    time->advance(later);
    EXPECT_EQ(!send(text).empty(), isAccepted) << text;
  }
}

TEST_F(ServerControlTest, ButtonsOfThePageAnswerAlways) {
  /// Whether the button is passed on, and answered as it should be.
  const auto press = [this](Duration later, const std::string& button) {
    time->advance(later);
    const auto all = send(R"({"type":")" + button + "\"}");
    const bool isPassedOn = all.size() == 2 && all[0] == button;
    EXPECT_THAT(all.at(all.size() - 1),
                StartsWith(R"({"type":")" + button + R"(Result","result":")" +
                           (isPassedOn ? std::string(rawValue(result)) : "eventFailed") + "\""));
    return isPassedOn;
  };
  EXPECT_TRUE(press(0s, "playPause"));
  EXPECT_FALSE(press(249ms, "fullscreen"));
  EXPECT_TRUE(press(1ms, "fullscreen"));
  EXPECT_FALSE(press(0s, "openChrome"));
  EXPECT_TRUE(press(0s, "resetBrowser"));
  enterControlMode(viewer);
  EXPECT_FALSE(press(250ms, "playPause"));  // of video mode only, and no touch of the clock
  EXPECT_TRUE(press(0s, "openChrome"));
  time->advance(100ms);
  EXPECT_THAT(send(kTap), ElementsAre("tap 0.25 1", kTapClicked));
  sendText(viewer, R"({"type":"mode","mode":"video"})");
  send(R"({"type":"ping"})");
  EXPECT_FALSE(press(100ms, "playPause"));  // a tap counts for its clock too
  result = RemoteTapResult::eventFailed;
  EXPECT_TRUE(press(1s, "playPause"));  // fails, and so changes nothing
  end(viewer);
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
  const std::string start =
      R"({"type":"telemetry","decodeMilliseconds":1.5,"videoBufferMilliseconds":1,"reconnects":4.9,)"
      R"("audioBufferMilliseconds":2,"audioDriftMilliseconds":-3,"viewerFPS":)";
  EXPECT_THAT(send(start + R"(30,"videoBufferRebuildTargetMilliseconds":20000})"),
              ElementsAre("telemetry 30 4"));
  for (const auto* bad : {"31}", R"(31,"videoBufferRebuildTargetMilliseconds":7000})",
                          R"("31","videoBufferRebuildTargetMilliseconds":20000})"}) {
    EXPECT_THAT(send(start + bad), IsEmpty()) << bad;
  }
  EXPECT_EQ(snapshot().viewer->viewerFPS, 30);
  end(viewer);
  EXPECT_FALSE(snapshot().viewer);
}

TEST_F(ServerControlTest, IssueReportsAreAnsweredWhenTheyAreDone) {
  const auto report = [](const std::string& id, const std::string& category) {
    return R"({"type":"issueReport","reportId":")" + id + R"(","category":")" + category +
           R"(","symptom":"no_sound"})";
  };
  const auto answer = [](const std::string& rest) { return R"({"type":"issueReportResult",)" + rest; };
  EXPECT_THAT(send(report("1000", "audio")), ElementsAre(answer(R"("reportId":"1000"})")));
  takesReports = true;
  const std::string longest(64, 'a');
  for (const auto& bad : {report("0999", "audio"), report("10000", "audio"), report("12a4", "audio"),
                          report("1234", ""), report("1234", "Audio"), report("1234", longest + 'a')}) {
    EXPECT_THAT(send(bad), IsEmpty()) << bad;
  }
  EXPECT_THAT(send(report("9999", longest)), ElementsAre("9999 " + longest + " no_sound"));
  finishReport({"9999", 42});
  time->runReady();
  EXPECT_THAT(received(viewer), ElementsAre(answer(R"("reportId":"9999","issueNumber":42})")));
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
