#pragma once

#include <memory>

#include "coordination/ErrorReport.h"
#include "platform/LoginItem.h"
#include "runtime/Published.h"

namespace kestrune {

/// The start of the program at login, as it is registered with the system. Main queue only.
class LaunchAtLogin {
 public:
  LaunchAtLogin(std::shared_ptr<LoginItem> item, ErrorReport& errors);

  /// The program starts when the user logs in.
  const Observable<bool>& isEnabled() const { return isEnabled_; }
  /// It would, if the user allowed it.
  const Observable<bool>& needsApproval() const { return needsApproval_; }

  /// Registers or removes it; a failure is reported to the user.
  void set(bool enabled);
  /// Reads the registration anew: it may have been changed from outside.
  void refresh();

 private:
  const std::shared_ptr<LoginItem> item_;
  ErrorReport& errors_;
  Published<bool> isEnabled_;
  Published<bool> needsApproval_;
};

}  // namespace kestrune
