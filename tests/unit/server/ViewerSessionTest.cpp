// In what the hosted route treats a viewer differently; what the routes share is tested on the local one.

#include "ServerFixture.h"

namespace kestrune {
namespace {

class HostedSessionTest : public testing::Test, public NotedHost, private ViewerChannel {
 protected:
  /// What a message sets off `later` than the one before it.
  std::vector<std::string> handle(const std::string& text, Duration later = 1s) {
    events.clear();
    const ByteView bytes(reinterpret_cast<const std::uint8_t*>(text.data()), text.size());
    session.handle(*parseViewerMessage(bytes), now += later, *this);
    return events;
  }

 private:
  void sendMessage(const JsonValue& message, OutboundKind) override { note(serializeJson(message)); }
  void requestKeyframe() override { note("keyframe"); }
  void applyMode(bool control) override { note(control ? "to control" : "to video"); }
  ActiveSettings activeSettings() const override { return {}; }
  std::optional<std::uint64_t> audioSequence() const override { return std::nullopt; }
  IssueReportCompletion issueReportCompletion() override {
    return [](const auto&) {};
  }

  Duration now{};
  ViewerSession session{kHostedSessionRules, unowned(), unowned()};
};

TEST_F(HostedSessionTest, DiffersFromTheLocalOne) {
  takesReports = true;
  EXPECT_THAT(handle(R"({"type":"startStream"})"), IsEmpty());
  EXPECT_THAT(handle(R"({"type":"issueReport","reportId":"1000","category":"a","symptom":"b"})"), IsEmpty());
  EXPECT_THAT(handle(R"({"type":"ping","sentAt":1790000000123})"),
              ElementsAre(R"({"type":"pong","sentAt":1790000000123})"));
  EXPECT_THAT(handle(R"({"type":"playPause"})"),
              ElementsAre("playPause", R"({"type":"playPauseResult","result":"clicked"})"));
  EXPECT_THAT(
      handle(R"({"type":"mode","mode":"control"})"),
      ElementsAre(
          "to control", R"({"type":"mode","mode":"control"})",
          R"({"type":"streamSettings","quality":"balanced","fps":60,"codec":"h264","reconfigured":false})"));

  EXPECT_THAT(handle(R"({"type":"tap","x":1.01,"y":0})"), IsEmpty());
  EXPECT_THAT(handle(R"({"type":"move","dx":1,"dy":1,"sensitivity":0.05})"), IsEmpty());
  EXPECT_THAT(handle(R"({"type":"text","text":")" + std::string(2049, 'x') + "\"}"), IsEmpty());
  EXPECT_THAT(handle(R"({"type":"text","text":")" + std::string(2048, 'x') + "\"}"), testing::SizeIs(1));
  EXPECT_THAT(handle(R"({"type":"key","key":")" + std::string(33, 'x') + "\"}"), IsEmpty());

  const std::string up = R"({"type":"pointer","phase":"up","x":0,"y":0})";
  EXPECT_THAT(handle(up), ElementsAre("pointer up 0 0"));
  EXPECT_THAT(handle(up, 8ms), IsEmpty());
  EXPECT_THAT(handle(R"({"type":"click"})"), IsEmpty());  // bad, but starts the wait
  EXPECT_THAT(handle(R"({"type":"click","button":"left"})", 49ms), IsEmpty());
  EXPECT_THAT(handle(R"({"type":"click","button":"left"})", 1ms), ElementsAre("click left"));
}

TEST(RemoteInputTest, AHostThatTakesNoInputSaysSo) {
  RemoteInput none;
  EXPECT_EQ(none.onRemoteTap(0, 0), RemoteTapResult::displayRequired);
  EXPECT_EQ(none.onRemoteKey("f"), RemoteTapResult::displayRequired);
  EXPECT_EQ(none.onRemotePlayPause(), RemoteTapResult::eventFailed);
}

}  // namespace
}  // namespace kestrune
