#pragma once

#include <memory>
#include <mutex>
#include <string>

#include "platform/PrivacyPermissions.h"
#include "platform/linux/x11/X11Connection.h"

namespace kestrune::linux_platform {

/// What an X server lets this process do. X has no question for the user: who may connect may capture and
/// post input, unless the server withholds its screen (SECURITY, XACE) or was built without XTEST. Each call
/// is one short exchange over a connection that is kept. Any thread may call.
class X11PrivacyPermissions final : public PrivacyPermissions {
 public:
  /// An empty name means the DISPLAY of the environment.
  explicit X11PrivacyPermissions(std::string displayName = {});
  ~X11PrivacyPermissions() override;

  /// Reads one pixel of the root window.
  bool isScreenCaptureAllowed() const override;
  /// Asks for XTEST.
  bool isTrustedForInput() const override;
  /// There is nothing to ask; says in the log what is missing.
  void promptForInputTrust() override;

 private:
  /// Runs `question` on the kept connection, once more on a new one if that turned out to be dead.
  template <class Question>
  bool ask(Question question) const;

  const std::string displayName_;
  mutable std::mutex lock_;  // guards connection_
  mutable std::unique_ptr<X11Connection> connection_;
};

}  // namespace kestrune::linux_platform
