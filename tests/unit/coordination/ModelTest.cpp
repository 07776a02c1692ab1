#include <gtest/gtest.h>

#include "model/KestruneError.h"
#include "model/RemoteControl.h"
#include "model/StreamPhase.h"
#include "model/StreamSettings.h"

namespace kestrune {
namespace {

using Phase = StreamPhase::Case;

TEST(StreamPhaseTest, ASessionBeginsWithASourceAndAFailureIsLeftByAStartOrAStop) {
  using P = Phase;
  for (const auto& [from, to] : {std::pair{P::idle, P::starting},
                                 {P::sourceSelected, P::streaming},
                                 {P::starting, P::recovering},
                                 {P::streaming, P::starting},
                                 {P::recovering, P::starting},
                                 {P::failed, P::remoteReady}}) {
    EXPECT_FALSE(isTransitionAllowed(from, to)) << static_cast<int>(from);
  }
  for (const auto& [from, to] : {std::pair{P::remoteReady, P::starting},
                                 {P::failed, P::failed},
                                 {P::failed, P::starting},
                                 {P::recovering, P::streaming}}) {
    EXPECT_TRUE(isTransitionAllowed(from, to)) << static_cast<int>(from);
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
