#include "store/SqliteDatabase.h"

#include <fcntl.h>
#include <sqlite3.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <unordered_map>

#include "store/Store.h"

namespace kestrune::service {
namespace {

/// How long a statement waits for another process, such as a backup.
constexpr int kBusyMilliseconds = 5000;

[[noreturn]] void fail(std::string_view doing, std::string_view reason) {
  throw StoreError("The store could not be " + std::string(doing) + ": " + std::string(reason) + ".");
}

/// SQLite gives its journal files the mode of the database file.
void createPrivateFile(const std::filesystem::path& file) {
  const int descriptor = open(file.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, S_IRUSR | S_IWUSR);
  if (descriptor < 0) fail("opened", std::strerror(errno));
  const int status = fchmod(descriptor, S_IRUSR | S_IWUSR);
  const int reason = errno;
  close(descriptor);
  if (status != 0) fail("made private", std::strerror(reason));
}

}  // namespace

SqliteQuery::~SqliteQuery() {
  sqlite3_reset(&statement_);
  sqlite3_clear_bindings(&statement_);
}

SqliteQuery& SqliteQuery::check(int status) {
  if (status != SQLITE_OK) fail("written", sqlite3_errmsg(&database_));
  return *this;
}

SqliteQuery& SqliteQuery::bind(std::string_view text) {
  // An empty view may have no address, and SQLite takes that for NULL.
  const char* start = text.empty() ? "" : text.data();
  return check(sqlite3_bind_text64(&statement_, ++bound_, start, text.size(), SQLITE_TRANSIENT, SQLITE_UTF8));
}

SqliteQuery& SqliteQuery::bind(std::int64_t number) {
  return check(sqlite3_bind_int64(&statement_, ++bound_, number));
}

SqliteQuery& SqliteQuery::bind(const TokenHash& hash) {
  return check(sqlite3_bind_blob64(&statement_, ++bound_, hash.data(), hash.size(), SQLITE_TRANSIENT));
}

SqliteQuery& SqliteQuery::bindUnlessEmpty(std::string_view text) {
  if (text.empty()) return check(sqlite3_bind_null(&statement_, ++bound_));
  return bind(text);
}

bool SqliteQuery::step() {
  const int status = sqlite3_step(&statement_);
  if (status == SQLITE_ROW) return true;
  if (status != SQLITE_DONE) fail("used", sqlite3_errmsg(&database_));
  return false;
}

std::string SqliteQuery::text(int column) const {
  const auto* start = reinterpret_cast<const char*>(sqlite3_column_text(&statement_, column));
  if (!start) return {};
  return {start, static_cast<std::size_t>(sqlite3_column_bytes(&statement_, column))};
}

std::int64_t SqliteQuery::number(int column) const {
  return sqlite3_column_int64(&statement_, column);
}

TokenHash SqliteQuery::hash(int column) const {
  TokenHash hash{};
  const auto* start = static_cast<const std::uint8_t*>(sqlite3_column_blob(&statement_, column));
  const auto size = static_cast<std::size_t>(sqlite3_column_bytes(&statement_, column));
  if (!start || size != hash.size()) fail("read", "a token hash has the wrong length");
  std::copy_n(start, size, hash.begin());
  return hash;
}

struct SqliteDatabase::State {
  sqlite3* connection = nullptr;
  std::unordered_map<const void*, sqlite3_stmt*> statements;  // by the address of their text

  ~State() {
    for (const auto& [text, statement] : statements) sqlite3_finalize(statement);
    sqlite3_close(connection);
  }
};

SqliteDatabase::SqliteDatabase(const std::filesystem::path& file) : state_(std::make_unique<State>()) {
  createPrivateFile(file);
  const int flags = SQLITE_OPEN_READWRITE | SQLITE_OPEN_NOMUTEX | SQLITE_OPEN_EXRESCODE;
  if (sqlite3_open_v2(file.c_str(), &state_->connection, flags, nullptr) != SQLITE_OK) {
    fail("opened", state_->connection ? sqlite3_errmsg(state_->connection) : "out of memory");
  }
  sqlite3_busy_timeout(state_->connection, kBusyMilliseconds);
}

SqliteDatabase::~SqliteDatabase() = default;

void SqliteDatabase::execute(const char* statements) {
  if (sqlite3_exec(state_->connection, statements, nullptr, nullptr, nullptr) != SQLITE_OK) {
    fail("used", sqlite3_errmsg(state_->connection));
  }
}

SqliteQuery SqliteDatabase::query(const char* statement) {
  auto& prepared = state_->statements[statement];
  if (!prepared && sqlite3_prepare_v3(state_->connection, statement, -1, SQLITE_PREPARE_PERSISTENT, &prepared,
                                      nullptr) != SQLITE_OK) {
    fail("used", sqlite3_errmsg(state_->connection));
  }
  return SqliteQuery(*state_->connection, *prepared);
}

std::size_t SqliteDatabase::changes() const {
  return static_cast<std::size_t>(sqlite3_changes64(state_->connection));
}

std::int64_t SqliteDatabase::lastInsertedRow() const {
  return sqlite3_last_insert_rowid(state_->connection);
}

SqliteTransaction::SqliteTransaction(SqliteDatabase& database) : database_(database) {
  database_.execute("BEGIN IMMEDIATE");
}

SqliteTransaction::~SqliteTransaction() {
  if (!isOpen_) return;
  try {
    database_.execute("ROLLBACK");
  } catch (const StoreError&) {
    // SQLite has rolled back by itself after the failure that is being reported.
  }
}

void SqliteTransaction::commit() {
  database_.execute("COMMIT");
  isOpen_ = false;
}

}  // namespace kestrune::service
