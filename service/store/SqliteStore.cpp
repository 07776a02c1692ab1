#include "store/SqliteStore.h"

#include "platform/support/ConstantTime.h"
#include "store/SqliteSchema.h"

namespace kestrune::service {
namespace {

constexpr const char* kAccountByID =
    "SELECT id, displayName, signInName, passwordHash, createdAt FROM accounts WHERE id = ?";
constexpr const char* kAccountByName =
    "SELECT id, displayName, signInName, passwordHash, createdAt FROM accounts WHERE signInName = ?";
constexpr const char* kAccountByIdentity =
    "SELECT id, displayName, signInName, passwordHash, createdAt FROM accounts "
    "WHERE id = (SELECT accountID FROM identities WHERE issuer = ? AND subject = ?)";
constexpr const char* kDeviceByID =
    "SELECT id, accountID, name, hostTokenHash, viewerTokenHash, createdAt FROM devices WHERE id = ?";
constexpr const char* kDevicesOfAccount =
    "SELECT id, accountID, name, hostTokenHash, viewerTokenHash, createdAt FROM devices WHERE accountID = ? "
    "ORDER BY createdAt, id";
constexpr const char* kReportByNumber =
    "SELECT number, deviceID, accountID, deviceName, reportID, receivedAt, body FROM reports WHERE number = "
    "?";
constexpr const char* kReportsOfAccount =
    "SELECT number, deviceID, accountID, deviceName, reportID, receivedAt, body FROM reports "
    "WHERE accountID = ? ORDER BY number DESC LIMIT ?";

Account readAccount(const SqliteQuery& row) {
  return {row.text(0), row.text(1), row.text(2), row.text(3), row.number(4)};
}

Device readDevice(const SqliteQuery& row) {
  return {row.text(0), row.text(1), row.text(2), row.hash(3), row.hash(4), row.number(5)};
}

Report readReport(const SqliteQuery& row) {
  return {row.number(0), row.text(1), row.text(2), row.text(3), row.text(4), row.number(5), row.text(6)};
}

template <typename Record>
std::optional<Record> readOne(SqliteQuery& query, Record (*read)(const SqliteQuery&)) {
  if (!query.step()) return std::nullopt;
  return read(query);
}

template <typename Record>
std::vector<Record> readAll(SqliteQuery& query, Record (*read)(const SqliteQuery&)) {
  std::vector<Record> records;
  while (query.step()) records.push_back(read(query));
  return records;
}

bool isSameHash(const TokenHash& a, const TokenHash& b) {
  const auto view = [](const TokenHash& hash) {
    return std::string_view(reinterpret_cast<const char*>(hash.data()), hash.size());
  };
  return constantTimeEquals(view(a), view(b));
}

}  // namespace

SqliteStore::SqliteStore(const std::filesystem::path& file) : database_(file) {
  // Full: what a host was told it has must be there after a power failure, too.
  database_.execute("PRAGMA journal_mode = WAL; PRAGMA synchronous = FULL; PRAGMA foreign_keys = ON;");
  migrateSchema(database_);
}

std::size_t SqliteStore::count(const char* statement, std::string_view argument) {
  auto query = database_.query(statement);
  query.bind(argument);
  query.step();
  return static_cast<std::size_t>(query.number(0));
}

Store::AddAccountOutcome SqliteStore::addAccount(const Account& account,
                                                 const std::optional<Identity>& identity,
                                                 std::size_t maximumAccounts) {
  const std::lock_guard guard(lock_);
  SqliteTransaction transaction(database_);
  const bool isLocal = account.id == Account::kLocalID;
  if (!isLocal &&
      count("SELECT count(*) FROM accounts WHERE id <> ?", Account::kLocalID) >= maximumAccounts) {
    return AddAccountOutcome::full;
  }
  database_.query("INSERT OR IGNORE INTO accounts VALUES (?, ?, ?, ?, ?)")
      .bind(account.id)
      .bind(account.displayName)
      .bindUnlessEmpty(account.signInName)
      .bindUnlessEmpty(account.passwordHash)
      .bind(account.createdAt)
      .run();
  if (database_.changes() == 0) return AddAccountOutcome::taken;
  if (identity) {
    database_.query("INSERT OR IGNORE INTO identities VALUES (?, ?, ?)")
        .bind(identity->issuer)
        .bind(identity->subject)
        .bind(account.id)
        .run();
    if (database_.changes() == 0) return AddAccountOutcome::taken;
  }
  transaction.commit();
  return AddAccountOutcome::added;
}

std::optional<Account> SqliteStore::account(std::string_view id) {
  const std::lock_guard guard(lock_);
  auto query = database_.query(kAccountByID);
  return readOne(query.bind(id), readAccount);
}

std::optional<Account> SqliteStore::accountWithSignInName(std::string_view name) {
  const std::lock_guard guard(lock_);
  auto query = database_.query(kAccountByName);
  return readOne(query.bind(name), readAccount);
}

std::optional<Account> SqliteStore::accountWithIdentity(const Identity& identity) {
  const std::lock_guard guard(lock_);
  auto query = database_.query(kAccountByIdentity);
  return readOne(query.bind(identity.issuer).bind(identity.subject), readAccount);
}

std::size_t SqliteStore::countAccounts() {
  const std::lock_guard guard(lock_);
  return count("SELECT count(*) FROM accounts WHERE id <> ?", Account::kLocalID);
}

void SqliteStore::addSession(const Session& session) {
  const std::lock_guard guard(lock_);
  SqliteTransaction transaction(database_);
  database_.query("DELETE FROM sessions WHERE expiresAt <= ?").bind(session.createdAt).run();
  database_.query("INSERT INTO sessions VALUES (?, ?, ?, ?)")
      .bind(session.tokenHash)
      .bind(session.accountID)
      .bind(session.createdAt)
      .bind(session.expiresAt)
      .run();
  database_
      .query(
          "DELETE FROM sessions WHERE rowid IN (SELECT rowid FROM sessions WHERE accountID = ? "
          "ORDER BY createdAt DESC, rowid DESC LIMIT -1 OFFSET ?)")
      .bind(session.accountID)
      .bind(kMaximumSessionsPerAccount)
      .run();
  transaction.commit();
}

std::optional<Session> SqliteStore::session(const TokenHash& tokenHash, WallTime now) {
  const std::lock_guard guard(lock_);
  auto query = database_.query(
      "SELECT tokenHash, accountID, createdAt, expiresAt FROM sessions WHERE tokenHash = ? AND expiresAt > "
      "?");
  if (!query.bind(tokenHash).bind(now).step()) return std::nullopt;
  return Session{query.hash(0), query.text(1), query.number(2), query.number(3)};
}

void SqliteStore::removeSession(const TokenHash& tokenHash) {
  const std::lock_guard guard(lock_);
  database_.query("DELETE FROM sessions WHERE tokenHash = ?").bind(tokenHash).run();
}

bool SqliteStore::addAuthorization(const DeviceAuthorization& authorization) {
  const std::lock_guard guard(lock_);
  SqliteTransaction transaction(database_);
  database_.query("DELETE FROM authorizations WHERE expiresAt <= ?").bind(authorization.requestedAt).run();
  if (count("SELECT count(*) FROM authorizations WHERE id <> ?", {}) >= kMaximumAuthorizations) return false;
  database_.query("INSERT INTO authorizations VALUES (?, ?, ?, ?, ?, ?, ?, ?)")
      .bind(authorization.id)
      .bind(authorization.pollTokenHash)
      .bind(authorization.requestedAt)
      .bind(authorization.expiresAt)
      .bind(authorization.requesterAddress)
      .bind(authorization.requesterName)
      .bindUnlessEmpty(authorization.approvedBy)
      .bind(authorization.deviceName)
      .run();
  transaction.commit();
  return true;
}

std::optional<DeviceAuthorization> SqliteStore::findAuthorization(std::string_view id, WallTime now) {
  auto query = database_.query(
      "SELECT id, pollTokenHash, requestedAt, expiresAt, requesterAddress, requesterName, approvedBy, "
      "deviceName "
      "FROM authorizations WHERE id = ? AND expiresAt > ?");
  if (!query.bind(id).bind(now).step()) return std::nullopt;
  return DeviceAuthorization{query.text(0), query.hash(1), query.number(2), query.number(3),
                             query.text(4), query.text(5), query.text(6),   query.text(7)};
}

std::optional<DeviceAuthorization> SqliteStore::authorization(std::string_view id, WallTime now) {
  const std::lock_guard guard(lock_);
  return findAuthorization(id, now);
}

bool SqliteStore::approveAuthorization(std::string_view id, std::string_view accountID,
                                       std::string_view deviceName, WallTime now) {
  const std::lock_guard guard(lock_);
  database_
      .query(
          "UPDATE authorizations SET approvedBy = ?, deviceName = ? "
          "WHERE id = ? AND approvedBy IS NULL AND expiresAt > ?")
      .bind(accountID)
      .bind(deviceName)
      .bind(id)
      .bind(now)
      .run();
  return database_.changes() == 1;
}

Store::RedeemOutcome SqliteStore::redeemAuthorization(std::string_view id, const TokenHash& pollTokenHash,
                                                      const Device& device) {
  const std::lock_guard guard(lock_);
  SqliteTransaction transaction(database_);
  const auto authorization = findAuthorization(id, device.createdAt);
  if (!authorization || !isSameHash(authorization->pollTokenHash, pollTokenHash)) {
    return RedeemOutcome::unknown;
  }
  const auto& owner = authorization->approvedBy;
  if (owner.empty()) return RedeemOutcome::pending;
  if (count("SELECT count(*) FROM devices WHERE accountID = ?", owner) >= kMaximumDevicesPerAccount) {
    return RedeemOutcome::tooManyDevices;
  }
  database_.query("INSERT INTO devices VALUES (?, ?, ?, ?, ?, ?)")
      .bind(device.id)
      .bind(owner)
      .bind(authorization->deviceName)
      .bind(device.hostTokenHash)
      .bind(device.viewerTokenHash)
      .bind(device.createdAt)
      .run();
  database_.query("DELETE FROM authorizations WHERE id = ?").bind(id).run();
  transaction.commit();
  return RedeemOutcome::redeemed;
}

std::optional<Device> SqliteStore::device(std::string_view id) {
  const std::lock_guard guard(lock_);
  auto query = database_.query(kDeviceByID);
  return readOne(query.bind(id), readDevice);
}

std::vector<Device> SqliteStore::devices(std::string_view accountID) {
  const std::lock_guard guard(lock_);
  auto query = database_.query(kDevicesOfAccount);
  return readAll(query.bind(accountID), readDevice);
}

bool SqliteStore::removeDevice(std::string_view accountID, std::string_view deviceID) {
  const std::lock_guard guard(lock_);
  database_.query("DELETE FROM devices WHERE accountID = ? AND id = ?").bind(accountID).bind(deviceID).run();
  return database_.changes() == 1;
}

void SqliteStore::setPresence(std::string_view deviceID, const Presence& presence) {
  const std::lock_guard guard(lock_);
  database_.query("INSERT OR REPLACE INTO presence SELECT id, ?, ? FROM devices WHERE id = ?")
      .bind(std::int64_t{presence.isOnline})
      .bind(presence.lastSeenAt)
      .bind(deviceID)
      .run();
}

std::optional<Presence> SqliteStore::presence(std::string_view deviceID) {
  const std::lock_guard guard(lock_);
  auto query = database_.query("SELECT isOnline, lastSeenAt FROM presence WHERE deviceID = ?");
  if (!query.bind(deviceID).step()) return std::nullopt;
  return Presence{query.number(0) != 0, query.number(1)};
}

void SqliteStore::clearPresence() {
  const std::lock_guard guard(lock_);
  database_.execute("UPDATE presence SET isOnline = 0");
}

std::int64_t SqliteStore::addReport(const Report& report) {
  const std::lock_guard guard(lock_);
  SqliteTransaction transaction(database_);
  {
    auto query = database_.query("SELECT number FROM reports WHERE deviceID = ? AND reportID = ?");
    if (query.bind(report.deviceID).bind(report.reportID).step()) return query.number(0);
  }
  database_
      .query(
          "INSERT INTO reports (deviceID, accountID, deviceName, reportID, receivedAt, body) "
          "VALUES (?, ?, ?, ?, ?, ?)")
      .bind(report.deviceID)
      .bind(report.accountID)
      .bind(report.deviceName)
      .bind(report.reportID)
      .bind(report.receivedAt)
      .bind(report.body)
      .run();
  const auto number = database_.lastInsertedRow();
  database_
      .query(
          "DELETE FROM reports WHERE number IN (SELECT number FROM reports WHERE accountID = ? "
          "ORDER BY number DESC LIMIT -1 OFFSET ?)")
      .bind(report.accountID)
      .bind(kMaximumReportsPerAccount)
      .run();
  transaction.commit();
  return number;
}

std::optional<Report> SqliteStore::report(std::int64_t number) {
  const std::lock_guard guard(lock_);
  auto query = database_.query(kReportByNumber);
  return readOne(query.bind(number), readReport);
}

std::vector<Report> SqliteStore::reports(std::string_view accountID, std::size_t limit) {
  const std::lock_guard guard(lock_);
  auto query = database_.query(kReportsOfAccount);
  return readAll(query.bind(accountID).bind(limit), readReport);
}

}  // namespace kestrune::service
