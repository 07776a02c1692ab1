#pragma once

#include <cstdint>
#include <filesystem>
#include <memory>
#include <string>
#include <string_view>

#include "store/Records.h"

struct sqlite3;
struct sqlite3_stmt;

namespace kestrune::service {

/// One run of a prepared statement. Parameters are bound in order, columns read by index. The statement is
/// reset when this goes. Every operation throws StoreError.
class SqliteQuery {
 public:
  SqliteQuery(sqlite3& database, sqlite3_stmt& statement) : database_(database), statement_(statement) {}
  SqliteQuery(const SqliteQuery&) = delete;
  SqliteQuery& operator=(const SqliteQuery&) = delete;
  ~SqliteQuery();

  SqliteQuery& bind(std::string_view text);
  SqliteQuery& bind(std::int64_t number);
  SqliteQuery& bind(std::size_t number) { return bind(static_cast<std::int64_t>(number)); }
  SqliteQuery& bind(const TokenHash& hash);
  /// NULL where the text is empty, so that a unique column takes any number of them.
  SqliteQuery& bindUnlessEmpty(std::string_view text);

  /// Whether there is a (further) row.
  bool step();
  void run() { step(); }

  std::string text(int column) const;
  std::int64_t number(int column) const;
  TokenHash hash(int column) const;

 private:
  SqliteQuery& check(int status);

  sqlite3& database_;
  sqlite3_stmt& statement_;
  int bound_ = 0;
};

/// One connection to a database file, and the statements that were prepared on it. Not thread-safe.
class SqliteDatabase {
 public:
  /// Creates the file, readable by its owner alone, where there is none. Throws StoreError.
  explicit SqliteDatabase(const std::filesystem::path& file);
  SqliteDatabase(const SqliteDatabase&) = delete;
  SqliteDatabase& operator=(const SqliteDatabase&) = delete;
  ~SqliteDatabase();

  /// Statements without parameters and rows, separated by ";".
  void execute(const char* statements);
  /// `statement` is a literal: it is prepared once, and known again by its address. Only one run of it at a
  /// time.
  SqliteQuery query(const char* statement);
  /// Rows changed by the last statement.
  std::size_t changes() const;
  std::int64_t lastInsertedRow() const;

 private:
  struct State;
  std::unique_ptr<State> state_;
};

/// A transaction that is rolled back unless it is committed. It takes the write lock at once, so that what it
/// reads holds until it writes.
class SqliteTransaction {
 public:
  explicit SqliteTransaction(SqliteDatabase& database);
  SqliteTransaction(const SqliteTransaction&) = delete;
  SqliteTransaction& operator=(const SqliteTransaction&) = delete;
  ~SqliteTransaction();

  void commit();

 private:
  SqliteDatabase& database_;
  bool isOpen_ = true;
};

}  // namespace kestrune::service
