#include "store/SqliteSchema.h"

#include <array>
#include <string>

#include "store/SqliteDatabase.h"
#include "store/Store.h"

namespace kestrune::service {
namespace {

/// The step at index n leads from version n to n + 1. A step that was released is never changed.
constexpr std::array kSteps{
    R"(CREATE TABLE accounts (
         id TEXT PRIMARY KEY, displayName TEXT NOT NULL, signInName TEXT UNIQUE, passwordHash TEXT,
         createdAt INTEGER NOT NULL) STRICT;
       CREATE TABLE identities (
         issuer TEXT NOT NULL, subject TEXT NOT NULL,
         accountID TEXT NOT NULL REFERENCES accounts ON DELETE CASCADE,
         PRIMARY KEY (issuer, subject)) STRICT;
       CREATE TABLE sessions (
         tokenHash BLOB PRIMARY KEY, accountID TEXT NOT NULL REFERENCES accounts ON DELETE CASCADE,
         createdAt INTEGER NOT NULL, expiresAt INTEGER NOT NULL) STRICT;
       CREATE INDEX sessionsByAccount ON sessions (accountID, createdAt);
       CREATE TABLE authorizations (
         id TEXT PRIMARY KEY, pollTokenHash BLOB NOT NULL, requestedAt INTEGER NOT NULL,
         expiresAt INTEGER NOT NULL, requesterAddress TEXT NOT NULL, requesterName TEXT NOT NULL,
         approvedBy TEXT REFERENCES accounts ON DELETE CASCADE, deviceName TEXT NOT NULL) STRICT;
       CREATE INDEX authorizationsByExpiry ON authorizations (expiresAt);
       CREATE TABLE devices (
         id TEXT PRIMARY KEY, accountID TEXT NOT NULL REFERENCES accounts ON DELETE CASCADE,
         name TEXT NOT NULL, hostTokenHash BLOB NOT NULL, viewerTokenHash BLOB NOT NULL,
         createdAt INTEGER NOT NULL) STRICT;
       CREATE INDEX devicesByAccount ON devices (accountID, createdAt);
       CREATE TABLE presence (
         deviceID TEXT PRIMARY KEY REFERENCES devices ON DELETE CASCADE,
         isOnline INTEGER NOT NULL, lastSeenAt INTEGER NOT NULL) STRICT;
       CREATE TABLE reports (
         number INTEGER PRIMARY KEY AUTOINCREMENT, deviceID TEXT NOT NULL,
         accountID TEXT NOT NULL REFERENCES accounts ON DELETE CASCADE, deviceName TEXT NOT NULL,
         reportID TEXT NOT NULL, receivedAt INTEGER NOT NULL, body TEXT NOT NULL,
         UNIQUE (deviceID, reportID)) STRICT;
       CREATE INDEX reportsByAccount ON reports (accountID, number);
       PRAGMA user_version = 1;)",
};

}  // namespace

void migrateSchema(SqliteDatabase& database) {
  constexpr auto kNewest = static_cast<std::int64_t>(kSteps.size());
  for (;;) {
    SqliteTransaction transaction(database);
    std::int64_t version = 0;
    {
      auto query = database.query("PRAGMA user_version");
      if (query.step()) version = query.number(0);
    }
    if (version > kNewest) {
      throw StoreError("The store was written by a newer version of this program (schema " +
                       std::to_string(version) + ", this one knows " + std::to_string(kNewest) + ").");
    }
    if (version == kNewest) return;
    database.execute(kSteps.at(static_cast<std::size_t>(version)));
    transaction.commit();
  }
}

}  // namespace kestrune::service
