#pragma once

#include <memory>

#include "coordination/ErrorReport.h"
#include "platform/PrivacyPermissions.h"
#include "runtime/Published.h"

namespace kestrune {

/// Owns what the system was last seen to permit: capturing the screen, and posting input. Main queue only.
class PermissionState {
 public:
  PermissionState(std::shared_ptr<const PrivacyPermissions> system, ErrorReport& errors);

  const Observable<bool>& screenCaptureGranted() const { return screenCaptureGranted_; }
  const Observable<bool>& remoteControlGranted() const { return remoteControlGranted_; }

  /// Asks the system anew; a missing permission is reported to the user. Returns whether both are granted.
  bool require();

 private:
  bool refresh();

  const std::shared_ptr<const PrivacyPermissions> system_;
  ErrorReport& errors_;
  Published<bool> screenCaptureGranted_;
  Published<bool> remoteControlGranted_;
};

}  // namespace kestrune
