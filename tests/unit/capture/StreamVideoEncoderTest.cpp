#include <gtest/gtest.h>

#include <limits>

#include "capture/AnnexB.h"
#include "capture/StreamVideoEncoder.h"
#include "runtime/ManualTime.h"
#include "support/CapturedLog.h"
#include "support/FakeCompression.h"
#include "support/FakePixelTransfer.h"

namespace kestrune {
namespace {

using Key = CompressionPropertyKey;

TEST(CaptureDimensions, FitsEverySourceIntoTheLongEdge) {
  struct Row {
    std::int64_t width, height, limit;
    CaptureDimensions expected;
  };
  constexpr auto kHuge = std::numeric_limits<std::int64_t>::max();
  for (const Row& row :
       {Row{3840, 2160, 1600, {1600, 900}}, Row{3840, 2160, 960, {960, 540}},
        Row{1080, 1920, 1600, {900, 1600}}, Row{1001, 601, 1600, {1000, 600}}, Row{0, 600, 960, {960, 540}},
        Row{600, -1, 1600, {1280, 720}}, Row{1, 1, 1600, {2, 2}}, Row{100000, 3, 1600, {1600, 2}},
        Row{640, 480, 0, {1280, 720}}, Row{640, 480, 1, {2, 2}}, Row{kHuge, kHuge, 1600, {1600, 1600}}}) {
    EXPECT_EQ(CaptureDimensions::fitting(row.width, row.height, row.limit), row.expected) << row.width;
  }
}

class StreamVideoEncoderTest : public testing::Test {
 protected:
  std::shared_ptr<StreamVideoEncoder> makeEncoder(StreamVideoEncoder::Settings settings = {}) {
    StreamVideoEncoder::Callbacks callbacks;
    callbacks.onPacket = [this](EncodedVideoPacket packet) { packets.push_back(std::move(packet)); };
    callbacks.onDroppedFrame = [this] { ++dropped; };
    callbacks.onError = [this](std::exception_ptr failure) {
      errors.push_back(localizedDescription(failure));
    };
    callbacks.onPendingDepthChanged = [this](std::int64_t depth) { depths.push_back(depth); };
    return std::make_shared<StreamVideoEncoder>(
        settings, callbacks, time->makeQueue(StreamVideoEncoder::kQueueLabel), sessions, transfers);
  }
  std::shared_ptr<StreamVideoEncoder> makeEnabled(StreamVideoEncoder::Settings settings = {}) {
    auto encoder = makeEncoder(settings);
    encoder->setEnabled(true);
    time->runReady();
    return encoder;
  }
  static VideoSample sample(int width = 1280, int height = 720,
                            PixelFormat format = PixelFormat::biPlanar420VideoRange) {
    VideoSample made;
    made.image = makePixelBuffer(width, height, format);
    made.presentationMicroseconds = 5'000'000;
    made.durationMicroseconds = 16'666;
    return made;
  }
  void submit(StreamVideoEncoder& encoder, VideoSample frame = sample()) {
    encoder.submit(std::move(frame));
    time->runReady();
  }
  FakeSessionRecord& session() { return *sessions->sessions.back(); }

  std::shared_ptr<ManualTime> time = ManualTime::make();
  std::shared_ptr<FakeCompressionSessionFactory> sessions = std::make_shared<FakeCompressionSessionFactory>();
  std::shared_ptr<FakePixelTransferFactory> transfers = std::make_shared<FakePixelTransferFactory>();
  std::vector<EncodedVideoPacket> packets;
  std::vector<std::string> errors;
  std::vector<std::int64_t> depths;
  int dropped = 0;
  CapturedLog log;
};

TEST_F(StreamVideoEncoderTest, AdmitsTwoWaitingFramesAndDropsTheArrivalThatFindsThem) {
  const auto encoder = makeEncoder();
  encoder->submit(sample());  // disabled
  EXPECT_EQ(dropped, 1);
  EXPECT_TRUE(depths.empty());

  encoder->setEnabled(true);
  encoder->submit(sample());
  encoder->submit(sample());
  EXPECT_EQ(depths, (std::vector<std::int64_t>{1, 2}));
  encoder->submit(sample());
  EXPECT_EQ(dropped, 2);
  EXPECT_EQ(depths.size(), 2u);

  time->runReady();
  EXPECT_EQ(depths, (std::vector<std::int64_t>{1, 2, 1, 0}));
  EXPECT_EQ(session().frames.size(), 2u);
  EXPECT_EQ(session().frames[0].presentationMicroseconds, 5'000'000);
}

TEST_F(StreamVideoEncoderTest, MakesASessionWithTheWholePropertyTableInOrder) {
  const auto encoder = makeEnabled({StreamProfile::high, StreamFrameRate::fps24, StreamVideoCodec::hevc,
                                    StreamBitRate::low, StreamVideoEncoderKind::software});
  sessions->propertyStatus = -12900;  // ignored
  submit(*encoder, sample(1600, 900));
  ASSERT_EQ(sessions->sessions.size(), 1u);
  EXPECT_EQ(std::pair(session().width, session().height), std::pair(1600, 900));
  EXPECT_EQ(session().codec, VideoCodecType::hvc1);
  const std::vector<CompressionProperty> expected{{Key::realTime, true},
                                                  {Key::allowFrameReordering, false},
                                                  {Key::maxFrameDelayCount, std::int64_t{1}},
                                                  {Key::profileLevel, ProfileLevel::hevcMainAuto},
                                                  {Key::averageBitRate, std::int64_t{2'000'000}},
                                                  {Key::expectedFrameRate, std::int64_t{24}},
                                                  {Key::maxKeyFrameInterval, std::int64_t{48}},
                                                  {Key::maxKeyFrameIntervalDuration, std::int64_t{2}},
                                                  {Key::dataRateLimits, DataRateLimit{375'000, 1}},
                                                  {Key::colorPrimaries, ColorStandard::itu709},
                                                  {Key::transferFunction, ColorStandard::itu709},
                                                  {Key::yCbCrMatrix, ColorStandard::itu709}};
  EXPECT_EQ(session().properties, expected);
  EXPECT_TRUE(log.contains(
      "info [Encoder] H.265 (Experimental) CPU — Apple software encoder ready at 1600x900, 2 Mbps"));
  EXPECT_EQ(std::get<ProfileLevel>(compressionProperties({})[3].value), ProfileLevel::h264BaselineAuto);
}

TEST_F(StreamVideoEncoderTest, OnlyAutomaticTriesAgainAndThenWithoutASpecification) {
  using Kind = StreamVideoEncoderKind;
  StreamVideoEncoder::Settings settings;
  sessions->createStatuses = {-12908};
  submit(*makeEnabled(settings));
  EXPECT_EQ(sessions->attempts, (std::vector<std::optional<EncoderSpecification>>{
                                    EncoderSpecification{true, std::nullopt, true}, std::nullopt}));
  EXPECT_TRUE(errors.empty());

  for (const auto& [kind, attempts, status] : {std::tuple{Kind::automatic, 2U, "-12915"},
                                               {Kind::hardware, 1U, "-12908"},
                                               {Kind::software, 1U, "-12908"}}) {
    sessions->attempts.clear();
    errors.clear();
    sessions->createStatuses = {-12908, -12915};
    settings.encoderKind = kind;
    const auto encoder = makeEnabled(settings);
    submit(*encoder);
    EXPECT_EQ(sessions->attempts.size(), attempts);
    EXPECT_EQ(errors, std::vector<std::string>{"Unable to create the H.264 encoder (OSStatus " +
                                               std::string(status) + ")."});
    sessions->createStatuses.clear();
    submit(*encoder);  // the next frame tries again
    EXPECT_EQ(session().frames.size(), 1u);
  }
  EXPECT_EQ(sessions->attempts[0], (EncoderSpecification{false, std::nullopt, true}));
  EXPECT_EQ(depths.back(), 0);

  sessions->prepareStatus = -12912;
  submit(*makeEnabled());
  EXPECT_EQ(session().invalidateCalls, 1);
  EXPECT_EQ(errors.back(), "Unable to prepare the H.264 encoder (OSStatus -12912).");
}

TEST_F(StreamVideoEncoderTest, ANewSizeReplacesTheSessionWithoutAskingForAKeyframe) {
  const auto encoder = makeEnabled();
  submit(*encoder);
  submit(*encoder, sample(1280, 720));
  EXPECT_EQ(sessions->sessions.size(), 1u);
  submit(*encoder, sample(1280, 800));
  ASSERT_EQ(sessions->sessions.size(), 2u);
  EXPECT_EQ(sessions->sessions[0]->completeCalls, 1);
  EXPECT_EQ(sessions->sessions[0]->invalidateCalls, 1);
  EXPECT_EQ(session().height, 800);
  EXPECT_FALSE(session().frames[0].forceKeyframe);
  EXPECT_EQ(transfers->pools, (std::vector<std::pair<int, int>>{{1280, 720}, {1280, 800}}));
}

TEST_F(StreamVideoEncoderTest, AKeyframeRequestIsUsedOnceAndRestoredWhenTheFrameIsRefused) {
  const auto encoder = makeEnabled();
  submit(*encoder);
  submit(*encoder);
  EXPECT_TRUE(session().frames[0].forceKeyframe);
  EXPECT_FALSE(session().frames[1].forceKeyframe);

  encoder->requestKeyframe();
  session().encodeStatuses = {-12902};
  submit(*encoder);
  EXPECT_EQ(errors, std::vector<std::string>{"VideoToolbox rejected a frame (OSStatus -12902)."});
  submit(*encoder);
  EXPECT_TRUE(session().frames[2].forceKeyframe);
  EXPECT_TRUE(session().frames[3].forceKeyframe);

  session().encodeStatuses = {-12902};  // a frame without the request brings none back
  submit(*encoder);
  submit(*encoder);
  EXPECT_FALSE(session().frames[5].forceKeyframe);
}

TEST_F(StreamVideoEncoderTest, EnablingAgainAbandonsOldFramesAndBeginsWithAKeyframe) {
  const auto encoder = makeEnabled();
  submit(*encoder);
  const auto oldHandler = session().frames[0].handler;
  session().emitsOnComplete = true;

  encoder->setEnabled(true);  // no change: no new generation, no new request
  submit(*encoder);
  EXPECT_FALSE(session().frames[1].forceKeyframe);

  encoder->submit(sample());
  encoder->setEnabled(false);
  encoder->setEnabled(true);
  encoder->submit(sample());
  time->runReady();
  ASSERT_EQ(sessions->sessions.size(), 2u);
  EXPECT_EQ(sessions->sessions[0]->frames.size(), 2u);
  ASSERT_EQ(session().frames.size(), 1u);
  EXPECT_TRUE(session().frames[0].forceKeyframe);
  EXPECT_EQ(depths.back(), 0);

  // What the old session still gives, during its end or later, is dropped without a word.
  oldHandler(0, makeFakeSample({0, 0, 0, 1, 9}, true));
  oldHandler(-1, nullptr);
  EXPECT_TRUE(packets.empty());
  EXPECT_TRUE(errors.empty());
}

TEST_F(StreamVideoEncoderTest, DisablingEndsTheSessionAndInvalidationEverything) {
  const auto encoder = makeEnabled();
  submit(*encoder);
  encoder->setEnabled(false);
  time->runReady();
  EXPECT_EQ(session().invalidateCalls, 1);
  encoder->setEnabled(true);
  encoder->submit(sample());
  encoder->invalidate();
  time->runReady();
  EXPECT_EQ(sessions->sessions.size(), 1u);
  EXPECT_EQ(depths.back(), 0);
  submit(*encoder);
  EXPECT_EQ(dropped, 1);
  EXPECT_EQ(transfers->sessionsMade, 1);  // kept until the invalidation, which dropped it
  encoder->prewarm();
  time->runReady();
  EXPECT_EQ(transfers->sessionsMade, 2);
}

TEST_F(StreamVideoEncoderTest, ScalesOnlyWhatDoesNotFitAndWarmsThatUp) {
  const auto encoder = makeEnabled();
  using Transfer = FakePixelTransferFactory::Transfer;
  ASSERT_EQ(transfers->transfers, (std::vector<Transfer>{{64, 64, 32, 32}}));

  auto fitting = sample();
  const auto image = fitting.image;
  submit(*encoder, fitting);
  EXPECT_EQ(session().frames[0].image, image);  // no copy

  VideoSample large;
  const auto largeImage = makePixelBuffer(2560, 1440);
  largeImage->changes = PictureChanges{7, {{10, 10, 4, 4}}};
  large.image = largeImage;
  submit(*encoder, large);
  submit(*encoder, sample(1280, 720, PixelFormat::bgrx));
  EXPECT_EQ(transfers->transfers[1], (Transfer{2560, 1440, 1280, 720}));
  EXPECT_EQ(transfers->transfers[2], (Transfer{1280, 720, 1280, 720}));
  EXPECT_EQ(session().frames[1].image->width(), 1280);
  // The pool's buffer says nothing about pictures that were in it before.
  EXPECT_EQ(session().frames[2].image->changes, std::nullopt);
  EXPECT_EQ(session().frames[1].presentationMicroseconds, std::nullopt);
}

TEST_F(StreamVideoEncoderTest, ScalingFailuresAreReportedAndTheSessionStays) {
  transfers->makesSessions = false;
  const auto encoder = makeEnabled();
  const auto submitLarge = [&] { submit(*encoder, sample(2560, 1440)); };
  submitLarge();
  transfers->makesSessions = true;
  transfers->poolStatus = -6662;
  submitLarge();
  transfers->poolStatus = 0;
  transfers->transferStatus = -12905;
  submitLarge();
  EXPECT_EQ(errors, (std::vector<std::string>{
                        "The video scaling pipeline is unavailable.",
                        "Unable to allocate a scaled video frame (CVReturn -6662).",
                        "Unable to scale a video frame (OSStatus -12905).",
                    }));
  transfers->transferStatus = 0;
  submitLarge();
  ASSERT_EQ(sessions->sessions.size(), 1u);
  ASSERT_EQ(session().frames.size(), 1u);
  EXPECT_TRUE(session().frames[0].forceKeyframe);  // no failed frame has used the request up

  VideoSample empty;
  submit(*encoder, empty);  // without a picture: abandoned without a report
  EXPECT_EQ(errors.size(), 3u);
  EXPECT_EQ(depths.back(), 0);
}

TEST_F(StreamVideoEncoderTest, DeliversPacketsWithTheirTime) {
  const auto encoder = makeEnabled();
  submit(*encoder);
  const auto& handler = session().frames[0].handler;
  auto key = std::make_shared<EncodedSample>(*makeFakeSample({0, 0, 0, 1, 0x65}, true, 1.25));
  key->format = FakeFormatDescription::withSets({{0x67}, {0x68}});
  handler(0, key);
  EXPECT_EQ(*packets.at(0).payload, (Bytes{0, 0, 0, 1, 0x67, 0, 0, 0, 1, 0x68, 0, 0, 0, 1, 0x65}));
  EXPECT_TRUE(packets[0].isKeyframe);
  EXPECT_EQ(packets[0].presentationTimeMicroseconds, 1'250'000u);
  using Seconds = std::optional<double>;
  for (const auto& [seconds, expected] :
       {std::pair<Seconds, std::uint64_t>{-3.0, 0},
        {std::nullopt, 0},
        {std::numeric_limits<double>::infinity(), std::numeric_limits<std::uint64_t>::max()}}) {
    handler(0, makeFakeSample({0, 0, 0, 1, 0x41}, false, seconds));
    EXPECT_FALSE(packets.back().isKeyframe);
    EXPECT_EQ(packets.back().presentationTimeMicroseconds, expected);
  }
}

TEST_F(StreamVideoEncoderTest, ReportsOutputsThatGiveNoPacket) {
  const auto encoder = makeEnabled();
  submit(*encoder);
  const auto& handler = session().frames[0].handler;
  const auto changed = [](const auto& change) {
    auto sample = std::make_shared<EncodedSample>(*makeFakeSample({0, 0, 0, 1, 9}, true));
    change(*sample);
    return sample;
  };
  handler(-12911, makeFakeSample({0, 0, 0, 1, 9}, true));
  handler(0, nullptr);
  handler(0, changed([](EncodedSample& output) { output.isDataReady = false; }));
  handler(0, changed([](EncodedSample& output) {
            auto format = FakeFormatDescription::withSets({});
            format->summary.status = -12712;
            output.format = format;
          }));
  handler(0, makeFakeSample({0, 0, 0, 0}, false));
  const std::string generic = H264AnnexBError(H264AnnexBError::Case::emptyNALUnit).localizedDescription();
  EXPECT_TRUE(packets.empty());
  EXPECT_EQ(errors,
            (std::vector<std::string>{"VideoToolbox failed to produce a frame (OSStatus -12911).",
                                      "VideoToolbox failed to produce a frame (OSStatus 0).",
                                      "VideoToolbox failed to produce a frame (OSStatus 0).",
                                      "Unable to read H.264 parameter sets (OSStatus -12712).", generic}));
  EXPECT_TRUE(log.contains("error [Encoder] H.264 packet conversion failed: " + generic));
}

TEST_F(StreamVideoEncoderTest, OutputOfAnEncoderThatIsGoneIsDropped) {
  auto encoder = makeEnabled();
  submit(*encoder);
  const auto handler = session().frames[0].handler;
  encoder.reset();
  handler(0, makeFakeSample({0, 0, 0, 1, 9}, true));
  EXPECT_TRUE(packets.empty());
}

}  // namespace
}  // namespace kestrune
