#include "platform/linux/x11/X11PrivacyPermissions.h"

#include <utility>

#include "runtime/Log.h"

namespace kestrune::linux_platform {

namespace {
constexpr Logger kLog("App");
}  // namespace

X11PrivacyPermissions::X11PrivacyPermissions(std::shared_ptr<const X11Server> server)
    : server_(std::move(server)) {}

bool X11PrivacyPermissions::isScreenCaptureAllowed() const {
  return server_->state()->canReadScreen;
}

bool X11PrivacyPermissions::isTrustedForInput() const {
  return server_->state()->hasTestInput;
}

void X11PrivacyPermissions::promptForInputTrust() {
  if (isTrustedForInput()) return;
  kLog.notice("Input cannot be posted: the X display cannot be reached or has no XTEST extension.");
}

}  // namespace kestrune::linux_platform
