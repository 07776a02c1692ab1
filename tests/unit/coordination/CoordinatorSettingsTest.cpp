#include "CoordinatorFixture.h"
#include "model/PreferenceKeys.h"

namespace kestrune {
namespace {

namespace keys = preference_keys;

class CoordinatorSettingsTest : public CoordinatorTest {
 protected:
  PreferenceValue stored(std::string_view key) {
    return preferences->value(key).value_or(std::string("absent"));
  }
};

TEST_F(CoordinatorSettingsTest, ALaunchResolvesWhatIsStoredAndWritesItBack) {
  struct Row {
    std::string_view key;
    PreferenceValue byDefault, found, resolved;
  };
  const std::int64_t fast = 60;
  const std::vector<Row> rows{{keys::kProfile, "balanced", "safe", "safe"},
                              {keys::kFrameRate, fast, "24", std::int64_t{24}},
                              {keys::kFrameRate, fast, std::int64_t{25}, fast},
                              {keys::kFrameRate, fast, 30.9e30, fast},
                              {keys::kFrameRate, fast, 30.9, std::int64_t{30}},  // cut, not rounded
                              {keys::kVideoCodec, "hevc", "h264", "hevc"},
                              {keys::kBitRate, "medium", "enormous", "medium"},
                              {keys::kVideoEncoderKind, "automatic", "software", "software"},
                              {keys::kAudioChannelMode, "stereo", "mono", "stereo"},
                              {keys::kDisplayMode, "absent", "virtualDisplay", "virtualDisplay"}};
  for (const Row& row : rows) {
    preferences->values.clear();
    make();
    EXPECT_EQ(stored(row.key), row.byDefault) << row.key;
    preferences->set(row.key, row.found);
    make();
    EXPECT_EQ(stored(row.key), row.resolved) << row.key;
  }
  preferences->set(keys::kProfile, "safe");
  make();
  EXPECT_EQ(coordinator->profile, StreamProfile::safe);
  EXPECT_EQ(coordinator->frameRate, StreamFrameRate::fps60);
}

TEST_F(CoordinatorSettingsTest, AStartPageThatIsRetiredOrNoAddressIsReplaced) {
  const std::string standard = "https://duckduckgo.com";
  for (const auto& [written, resolved] : {std::pair<const char*, std::string>{"ftp://x", standard},
                                          {"https://www.youtube.com", standard},
                                          {" example.com ", " example.com "}}) {
    preferences->set(keys::kBrowserStartURL, written);
    make();
    EXPECT_EQ(coordinator->browserStartURL.get(), resolved);
    EXPECT_EQ(stored(keys::kBrowserStartURL), PreferenceValue(resolved));
  }
  preferences->edit({{std::string(keys::kBrowserStartURL), "x.org"}});
  time->runReady();
  EXPECT_EQ(coordinator->browserStartURL.get(), "x.org");
}

TEST_F(CoordinatorSettingsTest, ATokenFailureIsShownInPlaceOfTheAddress) {
  credentials->readStatus = kCredentialNotAvailable;
  make();
  EXPECT_EQ(coordinator->localViewerURL.get(), "Unavailable");
  EXPECT_EQ(coordinator->lastError.get(), "Could not access the viewer token in Keychain (OSStatus -25291).");
  EXPECT_EQ(coordinator->phase.get(), StreamPhase(Case::idle));

  credentials->readStatus.reset();
  make();
  EXPECT_EQ(coordinator->localViewerURL.get(), std::string("http://127.0.0.1:8080#") + kToken);
}

TEST_F(CoordinatorSettingsTest, WithoutCaptureAChangeIsStoredAndToldAtOnce) {
  const auto viewer = waitingViewer();
  run(coordinator->applyStreamSettings(StreamProfile::high, StreamFrameRate::fps30));
  EXPECT_EQ(stored(keys::kProfile), PreferenceValue("high"));
  EXPECT_EQ(stored(keys::kFrameRate), PreferenceValue(std::int64_t{30}));
  EXPECT_THAT(received(viewer), Contains(HasSubstr(R"("quality":"high","fps":30,"codec":"hevc")")));
  EXPECT_EQ(screen->streamCount(), 0u);
}

TEST_F(CoordinatorSettingsTest, AViewerThatCannotDecodeH265GetsH264) {
  const auto viewer = streamToViewer();
  // A frame that comes while the change is written finds no encoder yet whose picture could overtake the
  // news.
  const auto watch = coordinator->videoCodec.observe([this](auto) { screen->latest()->video(frame()); });
  send(viewer, R"({"type":"codecFallback"})");
  EXPECT_EQ(compression->frameCount(), 0u);
  EXPECT_EQ(coordinator->videoCodec, StreamVideoCodec::h264);
  EXPECT_EQ(stored(keys::kVideoCodec), PreferenceValue("h264"));
  EXPECT_THAT(received(viewer), Contains(HasSubstr(R"("codec":"h264","reconfigured":true)")));
  showFrame();
  EXPECT_EQ(compression->sessions.back()->codec, VideoCodecType::avc1);

  // A viewer's wish for another quality is answered with the present one and changes nothing.
  send(viewer, R"({"type":"streamSettings","quality":"safe","fps":24})");
  EXPECT_EQ(coordinator->profile, StreamProfile::balanced);
  EXPECT_EQ(coordinator->frameRate, StreamFrameRate::fps60);
}

TEST_F(CoordinatorSettingsTest, AViewersMessageDoesNotUndoARunningChange) {
  const auto viewer = streamToViewer();
  const auto stream = screen->latest();
  stream->holds = true;
  edit({{"stream.profile", "high"}, {"stream.frameRate", 24.0}});
  send(viewer, R"({"type":"streamSettings","quality":"safe","fps":30})");
  send(viewer, R"({"type":"codecFallback"})");
  answerAll();
  EXPECT_FALSE(coordinator->isUpdatingStreamSettings);
  EXPECT_EQ(coordinator->profile, StreamProfile::high);
  EXPECT_EQ(coordinator->frameRate, StreamFrameRate::fps24);
  EXPECT_EQ(coordinator->videoCodec, StreamVideoCodec::h264);

  // Nor one that is about to begin.
  preferences->edit({{"stream.profile", "safe"}, {"stream.videoCodec", "hevc"}});
  send(viewer, R"({"type":"streamSettings","quality":"high","fps":30})");
  send(viewer, R"({"type":"codecFallback"})");
  EXPECT_EQ(coordinator->profile, StreamProfile::safe);
  EXPECT_EQ(coordinator->videoCodec, StreamVideoCodec::h264);
}

TEST_F(CoordinatorSettingsTest, AFloodOfViewersWishesIsBounded) {
  const auto viewer = streamToViewer();
  std::string flood;
  for (int index = 0; index < 1000; ++index) flood += textFrame(R"({"type":"startStream"})");
  viewer->deliver(flood);
  time->runReady();
  const auto answers = received(viewer);
  EXPECT_GE(answers.size(), 1u);
  EXPECT_LE(answers.size(), 8u);
}

TEST_F(CoordinatorSettingsTest, AChangeDuringTheStartReachesTheStream) {
  const auto viewer = waitingViewer();
  screen->holdsStart = true;
  requestStart(viewer);
  const auto stream = screen->latest();
  run(coordinator->applyStreamSettings(StreamProfile::safe, StreamFrameRate::fps24));
  EXPECT_EQ(coordinator->profile, StreamProfile::safe);
  answer();  // the start
  ASSERT_EQ(stream->configurations.size(), 1u);
  EXPECT_EQ(stream->configurations.back().minimumFrameIntervalFPS, 24);
  // One more, and then the stream refuses: what it has is what is told.
  run(coordinator->applyStreamSettings(StreamProfile::high, StreamFrameRate::fps24));
  answer();
  answer(failure("no"));
  EXPECT_TRUE(coordinator->isCapturing);
  EXPECT_EQ(coordinator->profile, StreamProfile::safe);
  EXPECT_EQ(coordinator->lastError.get(), "Unable to change video quality: no");
}

TEST_F(CoordinatorSettingsTest, EditedPreferencesAreAppliedAsIfChangedHere) {
  const auto viewer = streamToViewer();
  const auto stream = screen->latest();
  edit({{"stream.profile", "safe"}, {"stream.bitRate", "enormous"}, {"other", true}});
  EXPECT_EQ(coordinator->profile, StreamProfile::safe);
  EXPECT_EQ(coordinator->bitRate, StreamBitRate::medium);
  EXPECT_TRUE(log.mentions("stream.bitRate"));
  EXPECT_EQ(stored(keys::kBitRate), PreferenceValue("enormous"));  // whoever wrote it may mend it
  EXPECT_THAT(received(viewer), Contains(HasSubstr(R"("quality":"safe","fps":60)")));
  EXPECT_EQ(stream->configurations.size(), 1u);

  // Edits that come while one is applied build on it.
  stream->holds = true;
  edit({{"stream.frameRate", 24.0}});
  preferences->edit({{"stream.bitRate", "high"}});
  preferences->edit({{"stream.profile", std::nullopt},
                     {"stream.videoCodec", "h264"},
                     {"stream.audioChannelMode", "mono"},
                     {"app.preventMacSleep", false}});
  time->runReady();
  answerAll();
  EXPECT_EQ(coordinator->frameRate, StreamFrameRate::fps24);
  EXPECT_EQ(coordinator->bitRate, StreamBitRate::high);
  EXPECT_EQ(coordinator->videoCodec, StreamVideoCodec::h264);
  EXPECT_EQ(coordinator->profile, StreamProfile::safe);  // what is removed goes on until the next launch
  EXPECT_EQ(coordinator->audioChannelMode, AudioChannelMode::mono);
  EXPECT_FALSE(coordinator->preventMacSleep);
  time->advance(1s);
  showFrame();
  EXPECT_THAT(received(viewer), Contains(HasSubstr(R"("audioChannels":2)")));  // as it is sent

  // The display mode is for the next launch while something runs.
  edit({{"stream.displayMode", "virtualDisplay"}});
  EXPECT_EQ(coordinator->streamDisplayMode, StreamDisplayMode::mainDisplay);
  EXPECT_EQ(stored(keys::kDisplayMode), PreferenceValue("virtualDisplay"));
}

TEST_F(CoordinatorSettingsTest, ARefusedEditIsTakenBackAndSoIsSaid) {
  const auto viewer = streamToViewer();
  screen->latest()->outcomes = {failure("no")};
  edit({{"stream.profile", "high"}});
  EXPECT_EQ(coordinator->lastError.get(), "Unable to change video quality: no");
  EXPECT_EQ(coordinator->profile, StreamProfile::balanced);
  EXPECT_EQ(stored(keys::kProfile), PreferenceValue("balanced"));
  EXPECT_EQ(coordinator->phase.get(), StreamPhase(Case::streaming));
  EXPECT_THAT(received(viewer), Contains(HasSubstr(R"("quality":"balanced","fps":60)")));
}

TEST_F(CoordinatorSettingsTest, ATeardownMakesARunningChangeMeaningless) {
  streamToViewer();
  const auto stream = screen->latest();
  stream->holds = true;
  const auto change = start(coordinator->applyStreamSettings(StreamProfile::high, StreamFrameRate::fps60));
  time->runReady();
  const auto end = start(coordinator->teardown());
  time->runReady();
  run(coordinator->applyStreamSettings(StreamProfile::safe, StreamFrameRate::fps60));  // dropped
  while (!stream->waiting.empty()) {
    answer();
  }
  EXPECT_TRUE(change.isFinished() && end.isFinished());
  EXPECT_EQ(coordinator->profile, StreamProfile::balanced);
  EXPECT_EQ(coordinator->lastError.get(), std::nullopt);
  EXPECT_FALSE(coordinator->isUpdatingStreamSettings);
}

}  // namespace
}  // namespace kestrune
