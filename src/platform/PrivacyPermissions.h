#pragma once

namespace kestrune {

/// What the system lets this process do, as far as it is known: no call waits for the system. Any thread may
/// call.
class PrivacyPermissions {
 public:
  virtual ~PrivacyPermissions() = default;

  /// Whether the screen may be captured (CGPreflightScreenCaptureAccess).
  virtual bool isScreenCaptureAllowed() const = 0;
  /// Whether input events may be posted (AXIsProcessTrusted).
  virtual bool isTrustedForInput() const = 0;
  /// Makes the system ask the user for that trust (AXIsProcessTrustedWithOptions with the prompt option) and
  /// returns at once; called on the main queue only. Where the system has no such question, nothing happens.
  virtual void promptForInputTrust() = 0;
};

}  // namespace kestrune
