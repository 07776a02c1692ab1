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
  EXPECT_EQ(activities->begun[0]->reason, "Kestrune is ready for remote streaming");
  EXPECT_TRUE(log.contains("info [App] Preventing idle system and display sleep while streaming or armed"));

  run(coordinator->stop());  // back to standby
  EXPECT_TRUE(activities->isHeld());
  run(coordinator->teardown());
  EXPECT_FALSE(activities->isHeld());
  EXPECT_TRUE(log.contains("info [App] Released streaming sleep assertion"));

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

TEST_F(CoordinatorPowerTest, TheLoginItemIsShownAsTheSystemHasIt) {
  loginItem->current = LoginItem::Status::enabled;
  make();
  EXPECT_TRUE(coordinator->launchAtLoginEnabled);
  coordinator->setLaunchAtLogin(false);
  EXPECT_FALSE(coordinator->launchAtLoginEnabled);
  EXPECT_TRUE(log.contains("notice [App] Launch at Login updated: false"));

  loginItem->failure = "The disk is full.";
  coordinator->setLaunchAtLogin(true);
  EXPECT_EQ(coordinator->lastError.get(), "The disk is full.");
  EXPECT_FALSE(coordinator->launchAtLoginEnabled);
  EXPECT_EQ(coordinator->phase.get(), StreamPhase(Case::idle));

  loginItem->failure.clear();
  loginItem->registered = LoginItem::Status::requiresApproval;
  coordinator->setLaunchAtLogin(true);
  EXPECT_FALSE(coordinator->launchAtLoginEnabled);
  EXPECT_TRUE(coordinator->launchAtLoginNeedsApproval);
  EXPECT_EQ(coordinator->lastError.get(), std::nullopt);

  loginItem->current = LoginItem::Status::enabled;  // the user allowed it
  coordinator->refreshLaunchAtLoginStatus();
  EXPECT_TRUE(coordinator->launchAtLoginEnabled);
  EXPECT_FALSE(coordinator->launchAtLoginNeedsApproval);
}

}  // namespace
}  // namespace kestrune
