#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "runtime/Error.h"
#include "store/Records.h"

namespace kestrune::service {

/// The store cannot be opened, read or written. The text names the reason, and no content.
class StoreError final : public Error {
 public:
  explicit StoreError(std::string text) : text_(std::move(text)) {}
  std::string localizedDescription() const override { return text_; }
  const char* what() const noexcept override { return text_.c_str(); }

 private:
  std::string text_;
};

/// The state that several instances of the service would share. Each operation is atomic, is durable once it
/// has returned, may block, and throws StoreError when the store fails. Any thread may call.
class Store {
 public:
  static constexpr std::size_t kMaximumSessionsPerAccount = 16;
  static constexpr std::size_t kMaximumAuthorizations = 10'000;
  static constexpr std::size_t kMaximumDevicesPerAccount = 32;
  static constexpr std::size_t kMaximumReportsPerAccount = 200;

  enum class AddAccountOutcome { added, taken, full };
  enum class RedeemOutcome {
    unknown,  // no such authorization, expired, or another poll token
    pending,
    tooManyDevices,  // the account has as many as it may; the authorization stays approved
    redeemed
  };

  virtual ~Store() = default;

  /// Adds an account, with `identity` if it signs in with a provider. `taken`: the identifier, the sign-in
  /// name or the identity is in use. `full`: there are `maximumAccounts` already, the local one not counted.
  virtual AddAccountOutcome addAccount(const Account& account, const std::optional<Identity>& identity,
                                       std::size_t maximumAccounts) = 0;
  virtual std::optional<Account> account(std::string_view id) = 0;
  virtual std::optional<Account> accountWithSignInName(std::string_view name) = 0;
  virtual std::optional<Account> accountWithIdentity(const Identity& identity) = 0;
  /// Without the local one.
  virtual std::size_t countAccounts() = 0;

  /// Ends the account's oldest session if it would have more than kMaximumSessionsPerAccount.
  virtual void addSession(const Session& session) = 0;
  virtual std::optional<Session> session(const TokenHash& tokenHash, WallTime now) = 0;
  virtual void removeSession(const TokenHash& tokenHash) = 0;

  /// False if kMaximumAuthorizations wait; what has expired by `requestedAt` is removed first.
  virtual bool addAuthorization(const DeviceAuthorization& authorization) = 0;
  virtual std::optional<DeviceAuthorization> authorization(std::string_view id, WallTime now) = 0;
  /// False if there is none that waits.
  virtual bool approveAuthorization(std::string_view id, std::string_view accountID,
                                    std::string_view deviceName, WallTime now) = 0;
  /// Turns an approved authorization into a device, once. `device` brings the identifier, the hashes and the
  /// time; account and name are the approval's.
  virtual RedeemOutcome redeemAuthorization(std::string_view id, const TokenHash& pollTokenHash,
                                            const Device& device) = 0;

  virtual std::optional<Device> device(std::string_view id) = 0;
  /// Oldest first.
  virtual std::vector<Device> devices(std::string_view accountID) = 0;
  /// False if the account has no such device. Its reports stay.
  virtual bool removeDevice(std::string_view accountID, std::string_view deviceID) = 0;

  /// Nothing happens if the device is gone.
  virtual void setPresence(std::string_view deviceID, const Presence& presence) = 0;
  /// Nothing if it never connected.
  virtual std::optional<Presence> presence(std::string_view deviceID) = 0;
  /// Takes every device as away: for the start of the only instance.
  virtual void clearPresence() = 0;

  /// Numbers and stores `report`; one with a `reportID` that its device has used gets the first one's number
  /// and changes nothing. The account's oldest goes if it would have more than kMaximumReportsPerAccount.
  virtual std::int64_t addReport(const Report& report) = 0;
  virtual std::optional<Report> report(std::int64_t number) = 0;
  /// Newest first.
  virtual std::vector<Report> reports(std::string_view accountID, std::size_t limit) = 0;
};

}  // namespace kestrune::service
