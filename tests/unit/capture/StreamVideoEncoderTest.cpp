#include <gtest/gtest.h>

#include <limits>

#include "capture/AnnexB.h"
#include "capture/StreamVideoEncoder.h"
#include "support/CapturedLog.h"
#include "support/FakeCompression.h"
#include "support/FakeScreenCapture.h"
#include "support/ManualTime.h"

namespace kestrune {
namespace {

using Texts = std::vector<std::string>;
using Depths = std::vector<std::int64_t>;

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
  StreamVideoEncoderTest() { make({}); }

  void make(StreamVideoEncoder::Settings settings) {
    StreamVideoEncoder::Callbacks callbacks;
    callbacks.onPacket = [this](EncodedVideoPacket packet) { packets.push_back(std::move(packet)); };
    callbacks.onDroppedFrame = [this] { ++dropped; };
    callbacks.onError = [this](std::exception_ptr failure) {
      errors.push_back(localizedDescription(failure));
    };
    callbacks.onPendingDepthChanged = [this](std::int64_t depth) { depths.push_back(depth); };
    encoder = std::make_shared<StreamVideoEncoder>(
        settings, callbacks, time->makeQueue(StreamVideoEncoder::kQueueLabel), sessions, transfers, time);
    encoder->setEnabled(true);
  }
  void submit(VideoSample frame = makeVideoSample()) {
    encoder->submit(std::move(frame));
    time->runReady();
  }
  FakeSessionRecord& session() { return *sessions->sessions.back(); }
  /// Which of the newest session's frames were to be keyframes.
  std::vector<bool> forced() {
    std::vector<bool> result;
    for (const auto& frame : session().frames) result.push_back(frame.forceKeyframe);
    return result;
  }
  /// The way out of the session for one frame.
  CompressionSession::OutputHandler output() {
    submit();
    return session().frames.back().handler;
  }

  CapturedLog log;
  std::shared_ptr<ManualTime> time = ManualTime::make();
  std::shared_ptr<FakeCompressionSessionFactory> sessions = std::make_shared<FakeCompressionSessionFactory>();
  std::shared_ptr<FakePixelTransferFactory> transfers = std::make_shared<FakePixelTransferFactory>();
  std::vector<EncodedVideoPacket> packets;
  Texts errors;
  Depths depths;
  int dropped = 0;
  std::shared_ptr<StreamVideoEncoder> encoder;  // enabled
};

TEST_F(StreamVideoEncoderTest, AdmitsTwoWaitingFramesAndDropsTheArrivalThatFindsThem) {
  encoder->submit(makeVideoSample());
  encoder->submit(makeVideoSample());
  encoder->submit(makeVideoSample());
  EXPECT_EQ(dropped, 1);
  EXPECT_EQ(depths, (Depths{1, 2}));
  time->runReady();
  EXPECT_EQ(depths, (Depths{1, 2, 1, 0}));
  EXPECT_EQ(session().frames.size(), 2u);
  EXPECT_EQ(session().frames[0].presentationMicroseconds, 5'000'000);
}

TEST_F(StreamVideoEncoderTest, MakesASessionOfTheFramesSizeWithEveryProperty) {
  const StreamVideoEncoder::Settings settings{StreamProfile::high, StreamFrameRate::fps24,
                                              StreamVideoCodec::hevc, StreamBitRate::low,
                                              StreamVideoEncoderKind::software};
  make(settings);
  submit(makeVideoSample(1600, 900));
  EXPECT_EQ(std::pair(session().width, session().height), std::pair(1600, 900));
  EXPECT_EQ(session().codec, VideoCodecType::hvc1);
  EXPECT_EQ(session().properties, compressionProperties(settings));
}

TEST_F(StreamVideoEncoderTest, OnlyAutomaticTriesAgainAndThenWithoutASpecification) {
  using Kind = StreamVideoEncoderKind;
  using Attempts = std::vector<std::optional<EncoderSpecification>>;
  for (const auto& [kind, attempts] :
       {std::pair{Kind::hardware, Attempts{EncoderSpecification{std::nullopt, true, true}}},
        {Kind::software, {EncoderSpecification{false, std::nullopt, true}}},
        {Kind::automatic, {EncoderSpecification{true, std::nullopt, true}, std::nullopt}}}) {
    make({.encoderKind = kind});
    sessions->attempts.clear();
    sessions->createStatuses = {-1, -2};
    submit();
    EXPECT_EQ(sessions->attempts, attempts);
    const std::string status = kind == Kind::automatic ? "-2" : "-1";
    EXPECT_EQ(errors.back(), "Unable to create the H.264 encoder (OSStatus " + status + ").");
  }
  sessions->createStatuses = {-1};
  sessions->prepareStatus = -3;
  submit();
  EXPECT_EQ(session().invalidateCalls, 1);
  EXPECT_EQ(errors.back(), "Unable to prepare the H.264 encoder (OSStatus -3).");
  sessions->prepareStatus = 0;
  submit();
  EXPECT_EQ(forced(), std::vector{true});
  EXPECT_EQ(depths.back(), 0);
}

TEST_F(StreamVideoEncoderTest, ANewSizeReplacesTheSessionWithoutAskingForAKeyframe) {
  submit();
  submit();
  submit(makeVideoSample(1280, 800));
  ASSERT_EQ(sessions->sessions.size(), 2u);
  EXPECT_EQ(sessions->sessions[0]->completeCalls, 1);
  EXPECT_EQ(sessions->sessions[0]->invalidateCalls, 1);
  EXPECT_EQ(forced(), std::vector{false});
  EXPECT_EQ(transfers->pools, (std::vector<std::pair<int, int>>{{1280, 720}, {1280, 800}}));
}

TEST_F(StreamVideoEncoderTest, AKeyframeRequestIsUsedOnceAndRestoredWhenTheFrameIsRefused) {
  submit();
  submit();
  encoder->requestKeyframe();
  session().encodeStatuses = {-12902};
  submit();
  EXPECT_EQ(errors, Texts{"VideoToolbox rejected a frame (OSStatus -12902)."});
  submit();
  session().encodeStatuses = {-12902};  // a frame without the request brings none back
  submit();
  submit();
  EXPECT_EQ(forced(), (std::vector{true, false, true, true, false, false}));
}

TEST_F(StreamVideoEncoderTest, EnablingAgainAbandonsOldFramesAndBeginsWithAKeyframe) {
  const auto oldOutput = output();
  session().emitsOnComplete = true;
  encoder->setEnabled(true);  // no change: no new generation, no new request
  submit();
  encoder->submit(makeVideoSample());
  encoder->setEnabled(false);
  encoder->setEnabled(true);
  encoder->submit(makeVideoSample());
  time->runReady();
  ASSERT_EQ(sessions->sessions.size(), 2u);
  EXPECT_EQ(sessions->sessions[0]->frames.size(), 2u);
  EXPECT_FALSE(sessions->sessions[0]->frames[1].forceKeyframe);
  EXPECT_EQ(forced(), std::vector{true});
  EXPECT_EQ(depths.back(), 0);

  // What the old session still gives, during its end or later, is dropped without a word; so is what comes
  // when the encoder is gone.
  oldOutput(0, makeFakeSample({0, 0, 0, 1, 9}, true));
  oldOutput(-1, nullptr);
  const auto lastOutput = output();
  encoder.reset();
  lastOutput(0, makeFakeSample({0, 0, 0, 1, 9}, true));
  EXPECT_TRUE(packets.empty() && errors.empty());
}

TEST_F(StreamVideoEncoderTest, DisablingEndsTheSessionAndInvalidationEverything) {
  submit();
  encoder->setEnabled(false);
  time->runReady();
  EXPECT_EQ(session().invalidateCalls, 1);
  encoder->setEnabled(true);
  encoder->submit(makeVideoSample());
  encoder->invalidate();
  time->runReady();
  EXPECT_EQ(sessions->sessions.size(), 1u);
  EXPECT_EQ(depths.back(), 0);
  submit();
  EXPECT_EQ(dropped, 1);
}

TEST_F(StreamVideoEncoderTest, ScalesOnlyWhatDoesNotFitAndWarmsThatUp) {
  const VideoSample fitting = makeVideoSample();
  submit(fitting);
  EXPECT_EQ(session().frames[0].image, fitting.image);  // no copy

  const auto image = makePixelBuffer(2560, 1440);
  image->changes = PictureChanges{7, {{10, 10, 4, 4}}};
  VideoSample large;
  large.image = image;
  submit(large);
  submit(makeVideoSample(1280, 720, PixelFormat::bgrx));
  using Transfer = FakePixelTransferFactory::Transfer;
  EXPECT_EQ(transfers->transfers,
            (std::vector<Transfer>{{64, 64, 32, 32}, {2560, 1440, 1280, 720}, {1280, 720, 1280, 720}}));
  EXPECT_EQ(session().frames[1].image->width(), 1280);
  EXPECT_EQ(session().frames[1].presentationMicroseconds, std::nullopt);
  // The pool's buffer says nothing about pictures that were in it before.
  EXPECT_EQ(session().frames[2].image->changes, std::nullopt);
}

TEST_F(StreamVideoEncoderTest, AFailureToScaleIsReportedAndTheSessionStays) {
  const VideoSample large = makeVideoSample(2560, 1440);
  transfers->poolStatus = -6662;
  submit(large);
  transfers->poolStatus = 0;
  submit({});  // without a picture: abandoned without a report
  submit(large);
  EXPECT_EQ(errors, Texts{"Unable to allocate a scaled video frame (CVReturn -6662)."});
  EXPECT_EQ(sessions->sessions.size(), 1u);
  EXPECT_EQ(forced(), std::vector{true});  // no failed frame has used the request up
  EXPECT_EQ(depths.back(), 0);
}

TEST_F(StreamVideoEncoderTest, DeliversPacketsWithTheirTime) {
  const auto handler = output();
  handler(0, makeFakeSample({0, 0, 0, 1, 0x65}, true, 9'007'199'254'740'993));
  EXPECT_EQ(*packets.at(0).payload, (Bytes{0, 0, 0, 1, 0x65}));
  EXPECT_TRUE(packets[0].isKeyframe);
  EXPECT_EQ(packets[0].presentationTimeMicroseconds, 9'007'199'254'740'993u);  // no double on the way
  for (const auto when : {std::optional<std::int64_t>(-3), std::optional<std::int64_t>()}) {
    handler(0, makeFakeSample({0, 0, 0, 1, 0x41}, false, when));
    EXPECT_FALSE(packets.back().isKeyframe);
    EXPECT_EQ(packets.back().presentationTimeMicroseconds, 0u);
  }
}

TEST_F(StreamVideoEncoderTest, ReportsOutputsThatGiveNoPacket) {
  const auto handler = output();
  const auto good = makeFakeSample({0, 0, 0, 1, 9}, true);
  auto notReady = std::make_shared<EncodedSample>(*good);
  notReady->isDataReady = false;
  handler(-12911, good);
  handler(0, nullptr);
  handler(0, notReady);
  handler(0, makeFakeSample({0, 0, 0, 0}, false));
  const std::string generic = H264AnnexBError(H264AnnexBError::Case::emptyNALUnit).localizedDescription();
  EXPECT_TRUE(packets.empty());
  EXPECT_EQ(errors, (Texts{"VideoToolbox failed to produce a frame (OSStatus -12911).",
                           "VideoToolbox failed to produce a frame (OSStatus 0).",
                           "VideoToolbox failed to produce a frame (OSStatus 0).", generic}));
}

}  // namespace
}  // namespace kestrune
