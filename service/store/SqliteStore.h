#pragma once

#include <filesystem>
#include <mutex>

#include "store/SqliteDatabase.h"
#include "store/Store.h"

namespace kestrune::service {

/// The store of a single instance: one SQLite file with a write-ahead log beside it. A copy for a backup is
/// made with SQLite's own means while the service runs.
class SqliteStore final : public Store {
 public:
  /// Opens or creates `file`, readable by its owner alone. Throws StoreError.
  explicit SqliteStore(const std::filesystem::path& file);

  AddAccountOutcome addAccount(const Account& account, const std::optional<Identity>& identity,
                               std::size_t maximumAccounts) override;
  std::optional<Account> account(std::string_view id) override;
  std::optional<Account> accountWithSignInName(std::string_view name) override;
  std::optional<Account> accountWithIdentity(const Identity& identity) override;
  std::size_t countAccounts() override;

  void addSession(const Session& session) override;
  std::optional<Session> session(const TokenHash& tokenHash, WallTime now) override;
  void removeSession(const TokenHash& tokenHash) override;

  bool addAuthorization(const DeviceAuthorization& authorization) override;
  std::optional<DeviceAuthorization> authorization(std::string_view id, WallTime now) override;
  bool approveAuthorization(std::string_view id, std::string_view accountID, std::string_view deviceName,
                            WallTime now) override;
  RedeemOutcome redeemAuthorization(std::string_view id, const TokenHash& pollTokenHash,
                                    const Device& device) override;

  std::optional<Device> device(std::string_view id) override;
  std::vector<Device> devices(std::string_view accountID) override;
  bool removeDevice(std::string_view accountID, std::string_view deviceID) override;

  void setPresence(std::string_view deviceID, const Presence& presence) override;
  std::optional<Presence> presence(std::string_view deviceID) override;
  void clearPresence() override;

  std::int64_t addReport(const Report& report) override;
  std::optional<Report> report(std::int64_t number) override;
  std::vector<Report> reports(std::string_view accountID, std::size_t limit) override;

 private:
  std::optional<DeviceAuthorization> findAuthorization(std::string_view id, WallTime now);
  std::size_t count(const char* statement, std::string_view argument);

  std::mutex lock_;  // guards the connection
  SqliteDatabase database_;
};

}  // namespace kestrune::service
