#pragma once

namespace kestrune {

/// The start of this program when its user logs in (SMAppService.mainAppService). Any thread may call; the
/// calls touch small files only.
class LoginItem {
 public:
  enum class Status {
    notRegistered = 0,
    enabled = 1,
    requiresApproval = 2,  // registered, but the user or the system does not let it start
  };

  virtual ~LoginItem() = default;

  /// Asks anew.
  virtual Status status() const = 0;
  /// Idempotent. Throws an Error with a text for the user; then nothing has changed.
  virtual void registerItem() = 0;
  /// Idempotent, and throws likewise.
  virtual void unregisterItem() = 0;
};

}  // namespace kestrune
