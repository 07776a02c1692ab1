#pragma once

namespace kestrune::service {

class SqliteDatabase;

/// Brings the database to the newest schema, step by step, each in a transaction of its own. Throws
/// StoreError, also if a newer program has written the database.
void migrateSchema(SqliteDatabase& database);

}  // namespace kestrune::service
