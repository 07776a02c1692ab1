#include <gtest/gtest.h>

#include "coordination/model/KestruneError.h"
#include "coordination/model/RemoteControl.h"
#include "coordination/model/StreamPhase.h"
#include "coordination/model/StreamSettings.h"

namespace kestrune {
namespace {

using Phase = StreamPhase::Case;

TEST(StreamPhaseTest, OnlyTheseTransitionsAreRefused) {
  const std::vector<std::pair<Phase, std::vector<Phase>>> refused{
      {Phase::idle, {Phase::starting, Phase::remoteReady, Phase::streaming, Phase::recovering}},
      {Phase::sourceSelected, {Phase::remoteReady, Phase::streaming, Phase::recovering}},
      {Phase::starting, {Phase::recovering}},
      {Phase::remoteReady, {}},
      {Phase::streaming, {Phase::starting}},
      {Phase::recovering, {Phase::starting}},
      {Phase::failed, {Phase::remoteReady, Phase::streaming, Phase::recovering}}};
  for (const auto& [from, expected] : refused) {
    std::vector<Phase> found;
    for (int to = 0; to <= static_cast<int>(Phase::failed); ++to) {
      if (!isTransitionAllowed(from, static_cast<Phase>(to))) found.push_back(static_cast<Phase>(to));
    }
    EXPECT_EQ(found, expected) << static_cast<int>(from);
  }
  EXPECT_NE(StreamPhase::failed("one"), StreamPhase::failed("two"));
  EXPECT_EQ(StreamPhase::failed("one").title(), "Failed");
}

template <class Enumeration>
void expectRoundTrip() {
  for (const auto value : AllCases<Enumeration>::values) {
    EXPECT_EQ(fromRawValue<Enumeration>(rawValue(value)), value);
  }
  EXPECT_EQ(fromRawValue<Enumeration>(""), std::nullopt);
  EXPECT_EQ(fromRawValue<Enumeration>("High"), std::nullopt);
}

TEST(StreamSettingsTest, RawValuesReadBackAndNumbersFollowTheIndex) {
  expectRoundTrip<StreamDisplayMode>();
  expectRoundTrip<StreamProfile>();
  expectRoundTrip<StreamVideoCodec>();
  expectRoundTrip<StreamBitRate>();
  expectRoundTrip<StreamVideoEncoderKind>();
  expectRoundTrip<AudioChannelMode>();
  EXPECT_EQ(frameRateFromRawValue(30), StreamFrameRate::fps30);
  for (const std::int64_t raw : {0, 25, 120, -24}) EXPECT_EQ(frameRateFromRawValue(raw), std::nullopt) << raw;

  EXPECT_EQ(longEdgeLimit(StreamProfile::safe), 960);
  EXPECT_EQ(targetBitsPerSecond(StreamBitRate::high), 6'000'000);
}

TEST(KestruneErrorTest, ShowsItsPayloadOnlyWhereThatIsTheMessage) {
  EXPECT_EQ(KestruneError::operationFailed("It broke.").localizedDescription(), "It broke.");
  EXPECT_EQ(KestruneError::funnelConflict("port 443, pid 12").localizedDescription(),
            "The developer relay's network port is already in use.");
}

TEST(RemoteControlTest, WireNamesReadBack) {
  for (const auto* name : {"down", "move", "up", "cancel"}) {
    EXPECT_EQ(rawValue(remotePointerPhase(name).value()), name);
  }
  EXPECT_EQ(remoteMouseButton("right"), RemoteMouseButton::right);
  EXPECT_EQ(remoteMouseButton("middle"), std::nullopt);
}

}  // namespace
}  // namespace kestrune
