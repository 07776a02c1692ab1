#include "CoordinatorFixture.h"
#include "model/PreferenceKeys.h"

namespace kestrune {
namespace {

namespace keys = preference_keys;

class CoordinatorSettingsTest : public CoordinatorTest {
 protected:
  void store(std::string_view key, PreferenceValue value) { preferences->set(key, std::move(value)); }
  PreferenceValue stored(std::string_view key) {
    return preferences->value(key).value_or(std::string("absent"));
  }
};

TEST_F(CoordinatorSettingsTest, ALaunchResolvesWhatIsStoredAndWritesItBack) {
  make();
  EXPECT_EQ(coordinator->profile, StreamProfile::balanced);
  EXPECT_EQ(coordinator->frameRate, StreamFrameRate::fps60);
  EXPECT_EQ(stored(keys::kProfile), PreferenceValue("balanced"));
  EXPECT_EQ(stored(keys::kFrameRate), PreferenceValue(std::int64_t{60}));
  EXPECT_EQ(stored(keys::kVideoCodec), PreferenceValue("hevc"));
  EXPECT_EQ(stored(keys::kBitRate), PreferenceValue("medium"));
  EXPECT_EQ(stored(keys::kVideoEncoderKind), PreferenceValue("automatic"));
  EXPECT_EQ(stored(keys::kAudioChannelMode), PreferenceValue("stereo"));
  EXPECT_EQ(preferences->values.count(std::string(keys::kDisplayMode)), 0u);

  store(keys::kProfile, "safe");
  store(keys::kFrameRate, "24");
  store(keys::kVideoCodec, "h264");
  store(keys::kBitRate, "enormous");
  store(keys::kVideoEncoderKind, "software");
  store(keys::kAudioChannelMode, "mono");
  store(keys::kDisplayMode, "virtualDisplay");
  make();
  EXPECT_EQ(coordinator->profile, StreamProfile::safe);
  EXPECT_EQ(coordinator->frameRate, StreamFrameRate::fps24);
  EXPECT_EQ(coordinator->videoCodec, StreamVideoCodec::hevc);
  EXPECT_EQ(coordinator->bitRate, StreamBitRate::medium);
  EXPECT_EQ(coordinator->videoEncoderKind, StreamVideoEncoderKind::software);
  EXPECT_EQ(coordinator->audioChannelMode, AudioChannelMode::stereo);
  EXPECT_EQ(coordinator->streamDisplayMode, StreamDisplayMode::virtualDisplay);
  EXPECT_EQ(stored(keys::kFrameRate), PreferenceValue(std::int64_t{24}));
  EXPECT_EQ(stored(keys::kVideoCodec), PreferenceValue("hevc"));
  EXPECT_EQ(stored(keys::kBitRate), PreferenceValue("medium"));
}

TEST_F(CoordinatorSettingsTest, OddFrameRatesAreSixty) {
  for (const PreferenceValue& odd : {PreferenceValue(std::int64_t{25}), PreferenceValue(30.9e30),
                                     PreferenceValue("x30"), PreferenceValue(true)}) {
    store(keys::kFrameRate, odd);
    make();
    EXPECT_EQ(coordinator->frameRate, StreamFrameRate::fps60);
  }
  store(keys::kFrameRate, 30.9);  // cut, not rounded
  make();
  EXPECT_EQ(coordinator->frameRate, StreamFrameRate::fps30);
}

TEST_F(CoordinatorSettingsTest, ATokenFailureIsShownInPlaceOfTheAddress) {
  credentials->readStatus = kCredentialNotAvailable;
  make();
  EXPECT_EQ(coordinator->localViewerURL.get(), "Unavailable");
  EXPECT_EQ(coordinator->lastError.get(), "Could not access the viewer token in Keychain (OSStatus -25291).");
  EXPECT_EQ(coordinator->phase.get(), StreamPhase(Case::idle));

  credentials->readStatus = 0;
  make();
  EXPECT_EQ(coordinator->localViewerURL.get(), std::string("http://127.0.0.1:8080#") + kToken);
}

TEST_F(CoordinatorSettingsTest, WithoutCaptureAChangeIsStoredAndToldAtOnce) {
  launch();
  const auto viewer = connectViewer();
  viewer->sent.clear();
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
  EXPECT_EQ(framesAtEncoder(), 0u);
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

TEST_F(CoordinatorSettingsTest, OfSeveralQuickChangesTheLastIsApplied) {
  streamToViewer();
  const auto stream = screen->latest();
  stream->holds = true;
  const auto first = start(coordinator->applyStreamSettings(StreamProfile::high, StreamFrameRate::fps60));
  time->runReady();
  EXPECT_TRUE(coordinator->isUpdatingStreamSettings);
  EXPECT_FALSE(coordinator->canEditStreamSettings());
  for (const auto rate : {StreamFrameRate::fps24, StreamFrameRate::fps60, StreamFrameRate::fps30}) {
    run(coordinator->applyStreamSettings(StreamProfile::safe, rate));
  }
  EXPECT_EQ(coordinator->profile, StreamProfile::balanced);  // nothing is published before it is true
  stream->holds = false;
  stream->complete();
  time->runReady();
  EXPECT_TRUE(first.isFinished());
  EXPECT_FALSE(coordinator->isUpdatingStreamSettings);
  EXPECT_EQ(coordinator->profile, StreamProfile::safe);
  EXPECT_EQ(coordinator->frameRate, StreamFrameRate::fps30);
  EXPECT_EQ(stream->configurations.size(), 2u);
}

TEST_F(CoordinatorSettingsTest, AViewersMessageDoesNotUndoARunningChange) {
  const auto viewer = streamToViewer();
  const auto stream = screen->latest();
  stream->holds = true;
  preferences->edit({{"stream.profile", "high"}, {"stream.frameRate", 24.0}});
  time->runReady();
  send(viewer, R"({"type":"streamSettings","quality":"safe","fps":30})");
  send(viewer, R"({"type":"codecFallback"})");
  stream->holds = false;
  stream->complete();
  time->runReady();
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
  viewer->sent.clear();
  std::string flood;
  for (int index = 0; index < 1000; ++index) flood += textFrame(R"({"type":"startStream"})");
  viewer->deliver(flood);
  time->runReady();
  const auto answers = received(viewer);
  EXPECT_GE(answers.size(), 1u);
  EXPECT_LE(answers.size(), 8u);
}

TEST_F(CoordinatorSettingsTest, AChangeDuringTheStartReachesTheStream) {
  launch();
  const auto viewer = connectViewer();
  screen->holdsStart = true;
  requestStart(viewer);
  const auto stream = screen->latest();
  run(coordinator->applyStreamSettings(StreamProfile::safe, StreamFrameRate::fps24));
  EXPECT_EQ(coordinator->profile, StreamProfile::safe);
  stream->complete();  // the start
  time->runReady();
  ASSERT_EQ(stream->configurations.size(), 1u);
  EXPECT_EQ(stream->configurations.back().minimumFrameIntervalFPS, 24);
  // One more, and then the stream refuses: what it has is what is told.
  run(coordinator->applyStreamSettings(StreamProfile::high, StreamFrameRate::fps24));
  stream->complete();
  time->runReady();
  stream->complete(std::make_exception_ptr(KestruneError::operationFailed("no")));
  time->runReady();
  EXPECT_TRUE(coordinator->isCapturing);
  EXPECT_EQ(coordinator->profile, StreamProfile::safe);
  EXPECT_EQ(coordinator->lastError.get(), "Unable to change video quality: no");
}

TEST_F(CoordinatorSettingsTest, ARefusedChangeKeepsTheOldValuesAndSaysSo) {
  const auto viewer = streamToViewer();
  screen->latest()->outcomes = {std::make_exception_ptr(KestruneError::operationFailed("no"))};
  run(coordinator->applyStreamSettings(StreamProfile::high, StreamFrameRate::fps24));
  EXPECT_EQ(coordinator->profile, StreamProfile::balanced);
  EXPECT_EQ(coordinator->lastError.get(), "Unable to change video quality: no");
  EXPECT_EQ(coordinator->phase.get(), StreamPhase(Case::streaming));
  EXPECT_THAT(received(viewer), Contains(HasSubstr(R"("quality":"balanced","fps":60)")));
}

TEST_F(CoordinatorSettingsTest, EditedPreferencesAreAppliedAsIfChangedHere) {
  const auto viewer = streamToViewer();
  const auto stream = screen->latest();
  preferences->edit({{"stream.profile", "safe"}, {"stream.bitRate", "enormous"}, {"other", true}});
  time->runReady();
  EXPECT_EQ(coordinator->profile, StreamProfile::safe);
  EXPECT_EQ(coordinator->bitRate, StreamBitRate::medium);
  EXPECT_TRUE(log.mentions("stream.bitRate"));
  EXPECT_EQ(stored(keys::kBitRate), PreferenceValue("enormous"));  // whoever wrote it may mend it
  EXPECT_THAT(received(viewer), Contains(HasSubstr(R"("quality":"safe","fps":60)")));
  EXPECT_EQ(stream->configurations.size(), 1u);

  // Edits that come while one is applied build on it.
  stream->holds = true;
  preferences->edit({{"stream.frameRate", 24.0}});
  time->runReady();
  preferences->edit({{"stream.bitRate", "high"}});
  preferences->edit({{"stream.profile", std::nullopt},
                     {"stream.audioChannelMode", "mono"},
                     {"app.preventMacSleep", false}});
  time->runReady();
  stream->holds = false;
  stream->complete();
  time->runReady();
  EXPECT_EQ(coordinator->frameRate, StreamFrameRate::fps24);
  EXPECT_EQ(coordinator->bitRate, StreamBitRate::high);
  EXPECT_EQ(coordinator->profile, StreamProfile::safe);  // what is removed goes on until the next launch
  EXPECT_EQ(coordinator->audioChannelMode, AudioChannelMode::mono);
  EXPECT_FALSE(coordinator->preventMacSleep);
  time->advance(1s);
  showFrame();
  EXPECT_THAT(received(viewer), Contains(HasSubstr(R"("audioChannels":2)")));  // as it is sent

  // The display mode is for the next launch while something runs.
  preferences->edit({{"stream.displayMode", "virtualDisplay"}});
  time->runReady();
  EXPECT_EQ(coordinator->streamDisplayMode, StreamDisplayMode::mainDisplay);
  EXPECT_EQ(stored(keys::kDisplayMode), PreferenceValue("virtualDisplay"));
}

TEST_F(CoordinatorSettingsTest, ARefusedEditIsTakenBack) {
  streamToViewer();
  screen->latest()->outcomes = {std::make_exception_ptr(KestruneError::operationFailed("no"))};
  preferences->edit({{"stream.profile", "high"}});
  time->runReady();
  EXPECT_EQ(coordinator->lastError.get(), "Unable to change video quality: no");
  EXPECT_EQ(coordinator->profile, StreamProfile::balanced);
  EXPECT_EQ(stored(keys::kProfile), PreferenceValue("balanced"));
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
    stream->complete();
    time->runReady();
  }
  EXPECT_TRUE(change.isFinished() && end.isFinished());
  EXPECT_EQ(coordinator->profile, StreamProfile::balanced);
  EXPECT_EQ(coordinator->lastError.get(), std::nullopt);
  EXPECT_FALSE(coordinator->isUpdatingStreamSettings);
}

}  // namespace
}  // namespace kestrune
