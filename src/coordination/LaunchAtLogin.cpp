#include "coordination/LaunchAtLogin.h"

#include <exception>
#include <string>

#include "runtime/Log.h"

namespace kestrune {
namespace {
constexpr Logger kLog("App");
}

LaunchAtLogin::LaunchAtLogin(std::shared_ptr<LoginItem> item, ErrorReport& errors)
    : item_(std::move(item)), errors_(errors) {
  refresh();
}

void LaunchAtLogin::set(bool enabled) {
  std::exception_ptr failure;
  try {
    if (enabled) {
      item_->registerItem();
    } else {
      item_->unregisterItem();
    }
  } catch (...) {
    failure = std::current_exception();
  }
  refresh();
  if (failure) {
    errors_.report(failure);
    return;
  }
  errors_.clear();
  kLog.notice(std::string("Launch at Login updated: ") + (isEnabled_ ? "true" : "false"));
}

void LaunchAtLogin::refresh() {
  const LoginItem::Status status = item_->status();
  isEnabled_ = status == LoginItem::Status::enabled;
  needsApproval_ = status == LoginItem::Status::requiresApproval;
}

}  // namespace kestrune
