#include "coordination/PermissionState.h"

#include "model/KestruneError.h"
#include "platform/Bundle.h"

namespace kestrune {

PermissionState::PermissionState(std::shared_ptr<const PrivacyPermissions> system, ErrorReport& errors)
    : system_(std::move(system)), errors_(errors) {
  refresh();
}

bool PermissionState::refresh() {
  screenCaptureGranted_ = system_->isScreenCaptureAllowed();
  remoteControlGranted_ = system_->isTrustedForInput();
  return screenCaptureGranted_ && remoteControlGranted_;
}

bool PermissionState::require() {
  if (refresh()) return true;
  errors_.report(std::make_exception_ptr(KestruneError::operationFailed(
      localized("Screen Recording and Accessibility are required before Tesla Access can start."))));
  return false;
}

}  // namespace kestrune
