#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "hosted/OpusAudioEncoder.h"
#include "support/FakeOpus.h"

namespace kestrune {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

AudioPCMChunk chunk(std::uint64_t time, std::int64_t frames, std::int64_t channels) {
  return {time, 48'000, channels, frames, Bytes(static_cast<std::size_t>(frames * channels * 2), 7)};
}

class OpusAudioEncoderTest : public testing::Test {
 protected:
  /// The capture times of the packets that the chunk completes.
  std::vector<std::uint64_t> times(const AudioPCMChunk& pcm) {
    std::vector<std::uint64_t> result;
    for (const auto& packet : encoder.encode(pcm)) result.push_back(packet.captureTimeMicroseconds);
    return result;
  }
  /// What a person is told of a chunk that fails.
  std::string failure(const AudioPCMChunk& pcm) {
    try {
      encoder.encode(pcm);
    } catch (const OpusAudioEncoderError& error) {
      return error.localizedDescription();
    }
    return {};
  }

  const std::shared_ptr<FakeOpus> opus = FakeOpus::make();
  OpusAudioEncoder encoder{opus};
};

TEST_F(OpusAudioEncoderTest, CutsChunksOfAnyLengthIntoPacketsWithTheirTimes) {
  EXPECT_THAT(times(chunk(1000, 480, 2)), IsEmpty());
  EXPECT_THAT(times(chunk(11'000, 480, 2)), ElementsAre(1000));
  EXPECT_THAT(times(chunk(900'000, 2000, 1)), ElementsAre(900'000, 920'000));
  EXPECT_THAT(times(chunk(981'666, 880, 1)), ElementsAre(940'000));  // 40 ms late: still the same sound
  EXPECT_THAT(times(chunk(5'000'000, 480, 1)), IsEmpty());
  EXPECT_THAT(times(chunk(5'050'001, 960, 1)), ElementsAre(5'050'001));  // 40.001 ms late
  EXPECT_THAT(times(chunk(1, 80, 1)), IsEmpty());
  EXPECT_THAT(times(chunk(1667, 960, 2)), ElementsAre(1667));
  EXPECT_THAT(opus->configuredChannels, ElementsAre(2, 1, 2));
}

TEST_F(OpusAudioEncoderTest, RefusesABadChunkAndKeepsWhatWaits) {
  times(chunk(0, 480, 2));
  auto slow = chunk(10'000, 480, 2);
  slow.sampleRate = 44'100;
  auto shortOne = chunk(10'000, 480, 2);
  shortOne.pcm.pop_back();
  auto endless = chunk(10'000, 480, 2);
  endless.frameCount = std::int64_t{1} << 62;
  for (const auto& bad : {slow, shortOne, endless, chunk(10'000, 480, 3), chunk(10'000, 0, 2)}) {
    EXPECT_EQ(failure(bad), "Captured audio could not be prepared for Opus encoding.");
  }
  EXPECT_THAT(times(chunk(10'000, 480, 2)), ElementsAre(0));
}

TEST_F(OpusAudioEncoderTest, TellsWhyThereIsNoPacketAndStartsAfreshAfterAReset) {
  opus->isAvailable = false;
  EXPECT_EQ(failure(chunk(0, 960, 1)), "The native Opus encoder is unavailable.");
  opus->isAvailable = true;
  opus->packetsBeforeFailure = 1;
  EXPECT_EQ(failure(chunk(0, 1920, 1)), "Opus encoding failed: no bits left");
  opus->packetsBeforeFailure = -1;
  EXPECT_THAT(times(chunk(40'000, 10, 1)), ElementsAre(20'000));
  encoder.reset();
  EXPECT_THAT(times(chunk(70'000, 960, 1)), ElementsAre(70'000));
  EXPECT_THAT(opus->configuredChannels, ElementsAre(1, 1));
}

}  // namespace
}  // namespace kestrune
