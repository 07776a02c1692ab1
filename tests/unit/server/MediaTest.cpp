#include <gmock/gmock.h>

#include "viewer/AudioChunkStore.h"
#include "viewer/BoundedFrameQueue.h"
#include "viewer/MediaFrames.h"
#include "viewer/VideoPacketStore.h"

namespace kestrune {
namespace {

using testing::ElementsAre;

TEST(MediaFramesTest, HaveTheirExactBytes) {
  const auto video = encodeVideoFrame(std::make_shared<const Bytes>(Bytes{7}), true, 0x0102030405060708);
  EXPECT_EQ(video.head, (Bytes{1, 1, 2, 3, 4, 5, 6, 7, 8}));
  EXPECT_EQ(*video.body, Bytes{7});
  EXPECT_EQ(encodeVideoFrame(std::make_shared<const Bytes>(), false, 1).head,
            (Bytes{0, 0, 0, 0, 0, 0, 0, 0, 1}));

  EXPECT_EQ(encodeAudioFrame({5, 48'000, 2, 960, {9, 8}}),
            (Bytes{0, 0, 0, 0, 0, 0, 0, 5, 0, 0, 0xBB, 0x80, 0x82, 0, 0, 0x03, 0xC0, 9, 8}));
  EXPECT_EQ(encodeAudioFrame({0, -1, 300, 5'000'000'000, {}}),
            (Bytes{0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF}));
}

AudioPCMChunk pcm(std::size_t size, std::int64_t sampleRate = 48'000, std::int64_t channels = 2) {
  return {0, sampleRate, channels, 1, Bytes(size)};
}

std::vector<std::uint64_t> sequences(const std::vector<StoredAudioChunk>& batch) {
  std::vector<std::uint64_t> result;
  for (const auto& chunk : batch) result.push_back(chunk.sequence);
  return result;
}

TEST(AudioChunkStoreTest, NumbersChunksAndKeepsTheNewest) {
  AudioChunkStore store(3, 100);
  EXPECT_EQ(store.append(pcm(101)).sequence, 1u);  // refused, its number is gone
  EXPECT_EQ(store.count(), 0u);
  for (int index = 0; index < 4; ++index) store.append(pcm(20));
  EXPECT_THAT(sequences(store.chunks(0, 10, 1000)), ElementsAre(3, 4, 5));
  store.append(pcm(81));  // pushes out all but itself
  EXPECT_THAT(sequences(store.chunks(0, 10, 1000)), ElementsAre(6));
  EXPECT_EQ(store.droppedItems(), 5u);
  store.clear();
  EXPECT_EQ(store.append(pcm(1)).sequence, 7u);
}

TEST(AudioChunkStoreTest, GivesBatchesOfOneFormatWithinTheLimits) {
  AudioChunkStore store;
  for (int index = 0; index < 3; ++index) store.append(pcm(10));
  store.append(pcm(10, 44'100));
  store.append(pcm(10, 44'100, 1));
  EXPECT_THAT(sequences(store.chunks(0, 10, 1000)), ElementsAre(1, 2, 3));
  EXPECT_THAT(sequences(store.chunks(1, 1, 1000)), ElementsAre(2));
  EXPECT_THAT(sequences(store.chunks(0, 10, 20)), ElementsAre(1, 2));
  EXPECT_THAT(sequences(store.chunks(0, 10, 5)), ElementsAre(1));
  EXPECT_THAT(sequences(store.chunks(3, 10, 1000)), ElementsAre(4));
  EXPECT_THAT(store.chunks(5, 10, 1000), testing::IsEmpty());
  EXPECT_THAT(store.chunks(~std::uint64_t{0}, 10, 1000), testing::IsEmpty());
}

TEST(VideoPacketStoreTest, IsBoundedInPacketsAndBytes) {
  VideoPacketStore store;
  const auto append = [&store](std::size_t size) {
    return store.append({std::make_shared<const Bytes>(size), false, 0});
  };
  EXPECT_FALSE(append(VideoPacketStore::kMaxBytes + 1));
  for (int index = 0; index < 91; ++index) EXPECT_TRUE(append(10));
  EXPECT_EQ(store.count(), 90u);
  EXPECT_EQ(store.droppedItems(), 2u);
  EXPECT_TRUE(append(VideoPacketStore::kMaxBytes));
  EXPECT_EQ(store.count(), 1u);
}

TEST(BoundedFrameQueueTest, EvictsTheOldestAndRefusesTheTooLarge) {
  BoundedFrameQueue queue(3, 100);
  using Result = BoundedFrameQueue::AppendResult;
  for (std::uint8_t index = 0; index < 4; ++index) {
    EXPECT_EQ(queue.append({Bytes{index}, nullptr}, index == 0), (Result{true, index == 3 ? 1u : 0u}));
  }
  EXPECT_EQ(queue.frames().front().data.head, Bytes{1});
  EXPECT_EQ(queue.append({Bytes(101), nullptr}, true), (Result{false, 1}));
  EXPECT_EQ(queue.append({Bytes(100), nullptr}, true), (Result{true, 3}));
  EXPECT_EQ(queue.removeFirst()->data.size(), 100u);
  EXPECT_EQ(queue.byteCount(), 0u);
}

}  // namespace
}  // namespace kestrune
