#include "coordination/StreamCoordinator.h"
#include "runtime/Log.h"
#include "system/SleepAssertion.h"

namespace kestrune {
namespace {
constexpr Logger kLog("App");
}

void StreamCoordinator::updateSleepAssertion() {
  if (preventMacSleep && (ownsActiveResources_ || isCapturing || isRemoteStartArmed)) {
    sleepAssertion_->acquire();
  } else {
    sleepAssertion_->release();
  }
}

void StreamCoordinator::setLaunchAtLogin(bool enabled) {
  LoginItem& item = *dependencies_.loginItem;
  std::exception_ptr failure;
  try {
    if (enabled) {
      item.registerItem();
    } else {
      item.unregisterItem();
    }
  } catch (...) {
    failure = std::current_exception();
  }
  refreshLaunchAtLoginStatus();
  if (failure) {
    reportError(failure, false);
    return;
  }
  clearErrors();
  kLog.notice(std::string("Launch at Login updated: ") + (launchAtLoginEnabled ? "true" : "false"));
}

void StreamCoordinator::refreshLaunchAtLoginStatus() {
  const LoginItem& item = *dependencies_.loginItem;
  launchAtLoginEnabled = item.status() == LoginItem::Status::enabled;
  launchAtLoginNeedsApproval = item.status() == LoginItem::Status::requiresApproval;
}

}  // namespace kestrune
