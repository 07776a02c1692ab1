#include <gtest/gtest.h>

#include "capture/AnnexB.h"
#include "support/FakeCompression.h"

namespace kestrune {
namespace {

TEST(AnnexB, ParameterSetsComeInOrder) {
  const auto format = FakeFormatDescription::withSets({{0x67, 1}, {}, {0x68}}, 2);
  const auto sets = std::get<annexb::ParameterSets>(annexb::parameterSets(*format, StreamVideoCodec::h264));
  EXPECT_EQ(sets.bytes, (Bytes{0, 0, 0, 1, 0x67, 1, 0, 0, 0, 1, 0, 0, 0, 1, 0x68}));
  EXPECT_EQ(sets.nalHeaderLength, 2);
}

TEST(AnnexB, AKeyframeCarriesItsParameterSetsAndADeltaFrameIgnoresItsDescription) {
  const auto assembled = [](const EncodedSample& sample) {
    return std::get<annexb::AccessUnit>(annexb::assemble(sample, StreamVideoCodec::h264));
  };
  EncodedSample key;
  for (const int width : {4, 2}) {
    key =
        width == 4 ? *makeFakeSample({0, 0, 0, 1, 0x65}, true) : *makeFakeSample({0, 1, 0x65}, std::nullopt);
    key.format = FakeFormatDescription::withSets({{0x67}, {0x68}}, width);
    const auto unit = assembled(key);
    EXPECT_TRUE(unit.isKeyframe);
    EXPECT_EQ(unit.payload, (Bytes{0, 0, 0, 1, 0x67, 0, 0, 0, 1, 0x68, 0, 0, 0, 1, 0x65}));
  }

  // Its description says 2, but a delta frame is read with 4; a description that can't be read is no matter.
  auto delta = *makeFakeSample({0, 0, 0, 1, 0x41}, false);
  auto broken = FakeFormatDescription::withSets({}, 2);
  broken->summary.status = -1;
  delta.format = broken;
  EXPECT_FALSE(assembled(delta).isKeyframe);
  EXPECT_EQ(assembled(delta).payload, (Bytes{0, 0, 0, 1, 0x41}));

  auto emptyKey = *makeFakeSample({}, std::nullopt);
  emptyKey.format = key.format;
  EXPECT_EQ(assembled(emptyKey).payload, (Bytes{0, 0, 0, 1, 0x67, 0, 0, 0, 1, 0x68}));
  EXPECT_EQ(assembled(*makeFakeSample({}, false)).payload, Bytes{});
  EXPECT_EQ(assembled(*makeFakeSample({0, 0, 0, 1, 0x65}, true)).payload, (Bytes{0, 0, 0, 1, 0x65}));
}

}  // namespace
}  // namespace kestrune
