#include <gtest/gtest.h>

#include "coordination/model/KestruneError.h"
#include "coordination/model/RemoteControl.h"
#include "coordination/model/StreamPhase.h"
#include "coordination/model/StreamSettings.h"

namespace kestrune {
namespace {

using Phase = StreamPhase::Case;

TEST(StreamPhaseTest, OnlyTheseTransitionsAreRefused) {
  const auto all = {Phase::idle,      Phase::sourceSelected, Phase::starting, Phase::remoteReady,
                    Phase::streaming, Phase::recovering,     Phase::failed};
  std::vector<std::pair<Phase, Phase>> refused;
  for (const auto from : all) {
    for (const auto to : all) {
      if (!isTransitionAllowed(from, to)) refused.emplace_back(from, to);
    }
  }
  const std::vector<std::pair<Phase, Phase>> expected{
      {Phase::idle, Phase::starting},
      {Phase::idle, Phase::remoteReady},
      {Phase::idle, Phase::streaming},
      {Phase::idle, Phase::recovering},
      {Phase::sourceSelected, Phase::remoteReady},
      {Phase::sourceSelected, Phase::streaming},
      {Phase::sourceSelected, Phase::recovering},
      {Phase::starting, Phase::recovering},
      {Phase::streaming, Phase::starting},
      {Phase::recovering, Phase::starting},
      {Phase::failed, Phase::remoteReady},
      {Phase::failed, Phase::streaming},
      {Phase::failed, Phase::recovering},
  };
  EXPECT_EQ(refused, expected);
}

TEST(StreamPhaseTest, TheMessageOfAFailureTellsPhasesApartButIsNotInTheTitle) {
  EXPECT_NE(StreamPhase::failed("one"), StreamPhase::failed("two"));
  EXPECT_EQ(StreamPhase::failed("one").title(), "Failed");
  EXPECT_EQ(StreamPhase(Phase::sourceSelected).title(), "Source Selected");
  EXPECT_EQ(StreamPhase(Phase::remoteReady).title(), "Remote Ready");
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

  EXPECT_EQ(longEdgeLimit(StreamProfile::high), 1600);
  EXPECT_EQ(longEdgeLimit(StreamProfile::safe), 960);
  EXPECT_EQ(targetBitsPerSecond(StreamBitRate::low), 2'000'000);
  EXPECT_EQ(targetBitsPerSecond(StreamBitRate::high), 6'000'000);
  EXPECT_EQ(title(StreamProfile::balanced), "720p — Recommended");
  EXPECT_EQ(title(StreamVideoCodec::hevc), "H.265 (Experimental)");
}

TEST(KestruneErrorTest, ShowsItsPayloadOnlyWhereThatIsTheMessage) {
  EXPECT_EQ(KestruneError::operationFailed("It broke.").localizedDescription(), "It broke.");
  EXPECT_EQ(KestruneError::funnelConflict("port 443, pid 12").localizedDescription(),
            "The developer relay's network port is already in use.");
  EXPECT_EQ(KestruneError(KestruneError::Case::noSource).localizedDescription(),
            "Choose a screen, window, or app first.");
}

TEST(RemoteControlTest, WireNamesReadBack) {
  for (const auto phase : {RemotePointerPhase::down, RemotePointerPhase::move, RemotePointerPhase::up,
                           RemotePointerPhase::cancel}) {
    EXPECT_EQ(remotePointerPhase(rawValue(phase)), phase);
  }
  EXPECT_EQ(remoteMouseButton("right"), RemoteMouseButton::right);
  EXPECT_EQ(remoteMouseButton("middle"), std::nullopt);
  EXPECT_EQ(rawValue(RemoteTapResult::applicationUnavailable), "applicationUnavailable");
  EXPECT_EQ(rawValue(RemoteStreamState::armed), "armed");
}

}  // namespace
}  // namespace kestrune
