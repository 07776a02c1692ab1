#include <gtest/gtest.h>

#include <vector>

#include "hosted/HostedRelayDeliveryBuffer.h"
#include "viewer/RelayEnvelope.h"

namespace kestrune {
namespace {

GatheredBytes packet(std::size_t size) {
  return {Bytes(12), std::make_shared<const Bytes>(size - 12)};
}

TEST(HostedRelayDeliveryBuffer, ReplaysWhatHasGoneOutInFrontOfWhatHasNot) {
  HostedRelayDeliveryBuffer buffer;
  for (std::size_t size = 101; size <= 105; ++size) ASSERT_TRUE(buffer.append(packet(size), true, 10));
  for (int sent = 0; sent < 3; ++sent) buffer.takeFirst();
  buffer.prepareRetention(5000, 12);
  ASSERT_TRUE(buffer.append(packet(106), false, 13));
  buffer.prepareRetention(20'000, 14);  // the deadline stands
  EXPECT_EQ(buffer.retentionDeadline(), 17.0);
  EXPECT_EQ(buffer.overlapBytes(), 0u);
  std::vector<std::size_t> sizes;
  while (const auto next = buffer.takeFirst()) sizes.push_back(next->size());
  EXPECT_EQ(sizes, (std::vector<std::size_t>{101, 102, 103, 104, 105, 106}));
  EXPECT_EQ(buffer.pendingBytes(), 0u);
}

TEST(HostedRelayDeliveryBuffer, OverlapLastsFiveSecondsAndBytesAreCountedInBothLists) {
  constexpr std::size_t kHalf = HostedRelayDeliveryBuffer::kMaxBytes / 2;
  HostedRelayDeliveryBuffer buffer;
  EXPECT_FALSE(buffer.append(packet(kHalf + 1), true, 0));
  ASSERT_TRUE(buffer.append(packet(kHalf), true, 0));
  EXPECT_FALSE(buffer.append(packet(12), false, 5.0));
  EXPECT_TRUE(buffer.append(packet(12), false, 5.1));
  EXPECT_EQ(buffer.overlapCount(), 0u);
  EXPECT_EQ(buffer.pendingBytes(), kHalf + 12);
}

TEST(HostedRelayDeliveryBuffer, KeepsOrderAndCountsOverManyPackets) {
  HostedRelayDeliveryBuffer buffer;
  std::size_t expected = 12;
  for (std::size_t index = 0; index < 1000; ++index) {
    ASSERT_TRUE(buffer.append(packet(12 + index), true, static_cast<double>(index) / 50));
    if (index % 3 == 0) continue;
    EXPECT_EQ(buffer.takeFirst()->size(), expected++);
  }
  EXPECT_EQ(buffer.pendingCount(), 334u);
  EXPECT_EQ(buffer.overlapCount(), 251u);
  while (buffer.append(packet(12), false, 20)) {
  }
  EXPECT_EQ(buffer.pendingCount() + buffer.overlapCount(), HostedRelayDeliveryBuffer::kMaxPackets);
}

TEST(RelayEnvelope, StandsInFrontOfTheFrameAndIsReadBack) {
  const auto message = wrapRelayFrame({HostedRelayMediaKind::audio, 0x01020304}, {{9}, nullptr});
  EXPECT_EQ(message.head, (Bytes{'K', 'S', 'T', 'A', 1, 2, 3, 4, 0, 0, 0, 1, 9}));
  EXPECT_EQ(parseRelayEnvelope(message.head), (RelayEnvelope{HostedRelayMediaKind::audio, 0x01020304}));
  for (const std::size_t broken : {0, 9, 11}) {
    Bytes bytes = message.head;
    ++bytes[broken];
    EXPECT_FALSE(parseRelayEnvelope(bytes)) << broken;
  }
  EXPECT_FALSE(parseRelayEnvelope(ByteView(message.head).first(11)));
  EXPECT_EQ(nextRelayFrameID(0xFFFFFFFF), 1u);
}

}  // namespace
}  // namespace kestrune
