#include "system/SleepAssertion.h"

#include "runtime/Log.h"

namespace kestrune {
namespace {
constexpr Logger kLog("App");
}

SleepAssertion::SleepAssertion(std::shared_ptr<Activities> activities) : activities_(std::move(activities)) {}

void SleepAssertion::acquire() {
  if (activity_) return;
  activity_ = activities_->beginActivity(kActivityUserInitiated | kActivityIdleDisplaySleepDisabled,
                                         "Kestrune is ready for remote streaming");
  kLog.info("Preventing idle system and display sleep while streaming or armed");
}

void SleepAssertion::release() {
  if (!activity_) return;
  activity_.reset();
  kLog.info("Released streaming sleep assertion");
}

}  // namespace kestrune
