#include "CoordinatorFixture.h"
#include "model/PreferenceKeys.h"

namespace kestrune {
namespace {

using CoordinatorPowerTest = CoordinatorTest;
constexpr auto kKey = preference_keys::kPreventMacSleep;

TEST_F(CoordinatorPowerTest, TheMachineIsKeptAwakeFromTheServersStartToTheTeardown) {
  make();
  run(coordinator->teardown());
  EXPECT_THAT(activities->begun, IsEmpty());

  const auto viewer = streamToViewer();
  ASSERT_EQ(activities->begun.size(), 1u);  // capture found it held
  EXPECT_EQ(activities->begun[0]->options, 0x100'00FF'FFFFu);

  run(coordinator->stop());  // back to standby
  EXPECT_TRUE(activities->isHeld());
  run(coordinator->teardown());
  EXPECT_FALSE(activities->isHeld());

  run(coordinator->startServing());
  EXPECT_TRUE(activities->isHeld());
  coordinator.reset();
  time->runReady();
  EXPECT_FALSE(activities->isHeld());
}

TEST_F(CoordinatorPowerTest, TheSettingTakesEffectAtOnceAndIsStored) {
  const auto stored = [&] { return *preferences->value(kKey); };
  preferences->set(kKey, "no");  // not a boolean
  make();
  EXPECT_TRUE(coordinator->preventMacSleep);
  EXPECT_EQ(stored(), PreferenceValue(true));

  preferences->set(kKey, false);
  launch();
  EXPECT_THAT(activities->begun, IsEmpty());
  coordinator->setPreventMacSleep(true);
  EXPECT_TRUE(activities->isHeld());
  EXPECT_EQ(stored(), PreferenceValue(true));
  coordinator->setPreventMacSleep(false);
  EXPECT_FALSE(activities->isHeld());
  EXPECT_EQ(stored(), PreferenceValue(false));

  run(coordinator->teardown());
  coordinator->setPreventMacSleep(true);  // nothing is up
  EXPECT_FALSE(activities->isHeld());
}

}  // namespace
}  // namespace kestrune
