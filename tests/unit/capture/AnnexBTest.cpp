#include <gtest/gtest.h>

#include "capture/AnnexB.h"
#include "support/FakeCompression.h"

namespace kestrune {
namespace {

using Case = H264AnnexBError::Case;

using Result = annexb::BytesResult;

EncodedSample sampleOf(Bytes data, std::optional<bool> isKeyframe) {
  EncodedSample sample;
  sample.data = std::make_shared<FakeBlockBuffer>(std::move(data));
  sample.isKeyframe = isKeyframe;
  return sample;
}

TEST(AnnexB, ReplacesLengthPrefixesOfEveryWidthAndRefusesWhatIsNoSequenceOfUnits) {
  struct Row {
    int width;
    Bytes data;
    Result expected;
  };
  const auto refused = [](Case value) { return Result(H264AnnexBError(value)); };
  const std::vector<Row> rows{{4, {0, 0, 0, 5, 1, 2, 3, 4, 5}, Bytes{0, 0, 0, 1, 1, 2, 3, 4, 5}},
                              {2, {0, 2, 10, 11, 0, 1, 12}, Bytes{0, 0, 0, 1, 10, 11, 0, 0, 0, 1, 12}},
                              {1, {1, 7, 2, 8, 9}, Bytes{0, 0, 0, 1, 7, 0, 0, 0, 1, 8, 9}},
                              {3, {0, 0, 1, 7}, Bytes{0, 0, 0, 1, 7}},
                              {4, {}, Bytes{}},
                              {4,
                               {0, 0, 0, 4, 0, 0, 0, 1},
                               Bytes{0, 0, 0, 1, 0, 0, 0, 1}},  // what looks like a start code is content
                              {0, {}, refused(Case::invalidNALUnitHeaderLength)},
                              {5, {1, 2}, refused(Case::invalidNALUnitHeaderLength)},
                              {4, {0, 0, 0}, refused(Case::truncatedNALUnit)},
                              {4, {0, 0, 0, 2, 9}, refused(Case::truncatedNALUnit)},
                              {4, {0xff, 0xff, 0xff, 0xff, 9}, refused(Case::truncatedNALUnit)},
                              {4, {0, 0, 0, 0, 0, 0, 0, 1, 9}, refused(Case::emptyNALUnit)},
                              {4, {0, 0, 0, 1, 9, 0}, refused(Case::truncatedNALUnit)}};
  for (const Row& row : rows) {
    EXPECT_EQ(annexb::annexBUnits(row.data, row.width), row.expected) << row.width << " " << row.data.size();
  }
}

TEST(AnnexB, ParameterSetsComeInOrderAndFailWithTheCodecsMessages) {
  const auto format = FakeFormatDescription::withSets({{0x67, 1}, {}, {0x68}}, 2);
  const auto sets = std::get<annexb::ParameterSets>(annexb::parameterSets(*format, StreamVideoCodec::h264));
  EXPECT_EQ(sets.bytes, (Bytes{0, 0, 0, 1, 0x67, 1, 0, 0, 0, 1, 0, 0, 0, 1, 0x68}));
  EXPECT_EQ(sets.nalHeaderLength, 2);

  const auto message = [&](StreamVideoCodec codec) {
    return std::get<KestruneError>(annexb::parameterSets(*format, codec)).localizedDescription();
  };
  format->sets[1] = {0, nullptr, 0};
  EXPECT_EQ(message(StreamVideoCodec::h264), "Unable to read an H.264 parameter set (OSStatus 0).");
  format->sets[1] = {-5, format->memory[0].data(), 1};
  EXPECT_EQ(message(StreamVideoCodec::hevc), "Unable to read an H.265 parameter set (OSStatus -5).");
  format->summary.status = -12710;
  EXPECT_EQ(message(StreamVideoCodec::h264), "Unable to read H.264 parameter sets (OSStatus -12710).");
  EXPECT_EQ(message(StreamVideoCodec::hevc), "Unable to read H.265 parameter sets (OSStatus -12710).");
}

TEST(AnnexB, AKeyframeCarriesItsParameterSetsAndADeltaFrameIgnoresItsDescription) {
  const auto assembled = [](const EncodedSample& sample) {
    return std::get<annexb::AccessUnit>(annexb::assemble(sample, StreamVideoCodec::h264));
  };
  EncodedSample key;
  for (const int width : {4, 2, 2}) {
    key = width == 4 ? sampleOf({0, 0, 0, 1, 0x65}, true) : sampleOf({0, 1, 0x65}, std::nullopt);
    key.format = FakeFormatDescription::withSets({{0x67}, {0x68}}, width);
    const auto unit = assembled(key);
    EXPECT_TRUE(unit.isKeyframe);
    EXPECT_EQ(unit.payload, (Bytes{0, 0, 0, 1, 0x67, 0, 0, 0, 1, 0x68, 0, 0, 0, 1, 0x65}));
  }

  // Its description says 2, but a delta frame is read with 4; a description that can't be read is no matter.
  auto delta = sampleOf({0, 0, 0, 1, 0x41}, false);
  auto broken = FakeFormatDescription::withSets({}, 2);
  broken->summary.status = -1;
  delta.format = broken;
  EXPECT_FALSE(assembled(delta).isKeyframe);
  EXPECT_EQ(assembled(delta).payload, (Bytes{0, 0, 0, 1, 0x41}));

  auto emptyKey = sampleOf({}, std::nullopt);
  emptyKey.format = key.format;
  EXPECT_EQ(assembled(emptyKey).payload, (Bytes{0, 0, 0, 1, 0x67, 0, 0, 0, 1, 0x68}));
  EXPECT_EQ(assembled(sampleOf({}, false)).payload, Bytes{});
  EXPECT_EQ(assembled(sampleOf({0, 0, 0, 1, 0x65}, true)).payload, (Bytes{0, 0, 0, 1, 0x65}));
}

TEST(AnnexB, AnyFailureEndsTheAssembly) {
  const auto failure = [](const EncodedSample& sample) {
    return std::get<H264AnnexBError>(annexb::assemble(sample, StreamVideoCodec::h264));
  };
  EncodedSample sample;
  EXPECT_EQ(failure(sample), H264AnnexBError(Case::missingDataBuffer));
  sample.data = std::make_shared<FakeBlockBuffer>(Bytes{0, 0, 0, 1, 9}, -12706);
  EXPECT_EQ(failure(sample), H264AnnexBError::blockBufferReadFailed(-12706));
  EXPECT_NE(failure(sample), H264AnnexBError::blockBufferReadFailed(-1));
  EXPECT_EQ(failure(sampleOf({0, 0, 0, 1, 9, 0, 0, 0, 0}, false)).value(), Case::emptyNALUnit);
}

}  // namespace
}  // namespace kestrune
