#pragma once

#include <memory>

#include "platform/PrivacyPermissions.h"
#include "platform/linux/x11/X11Server.h"

namespace kestrune::linux_platform {

/// What an X server lets this process do. X has no question for the user: who may connect may capture and
/// post input, unless the server withholds its screen (SECURITY, XACE) or was built without XTEST. Asked when
/// the connection is made, and true until it breaks (X11Server).
class X11PrivacyPermissions final : public PrivacyPermissions {
 public:
  explicit X11PrivacyPermissions(std::shared_ptr<const X11Server> server);

  /// Whether a pixel of the root window could be read.
  bool isScreenCaptureAllowed() const override;
  /// Whether there is XTEST.
  bool isTrustedForInput() const override;
  /// There is nothing to ask; says in the log what is missing.
  void promptForInputTrust() override;

 private:
  const std::shared_ptr<const X11Server> server_;
};

}  // namespace kestrune::linux_platform
