#include "Platform/Internal/Directory/Sqlite.h"

#include <sqlite3.h>

#include <new>

#include "Platform/SystemLog.h"

namespace ostrel::detail {
namespace {

constexpr int busyMilliseconds = 5000;

DirectoryStatus statusOf(int code) {
  switch (code & 0xff) {
    case SQLITE_CORRUPT:
    case SQLITE_NOTADB:
      return directoryStatus::dataDamaged;
    case SQLITE_BUSY:
    case SQLITE_LOCKED:
      return directoryStatus::busy;
    default:
      return directoryStatus::storageFailed;
  }
}

}  // namespace

SqliteConnection::SqliteConnection(const std::string& path) : path_(path) {
  const int code = sqlite3_open_v2(path.c_str(), &database_, SQLITE_OPEN_READWRITE | SQLITE_OPEN_NOMUTEX, nullptr);
  try {
    if (code != SQLITE_OK) fail(code);
    sqlite3_busy_timeout(database_, busyMilliseconds);
    sqlite3_db_config(database_, SQLITE_DBCONFIG_DEFENSIVE, 1, nullptr);
    sqlite3_db_config(database_, SQLITE_DBCONFIG_TRUSTED_SCHEMA, 0, nullptr);
    execute("PRAGMA journal_mode=WAL; PRAGMA synchronous=FULL; PRAGMA cell_size_check=ON; PRAGMA cache_size=-8192");
  } catch (...) {
    sqlite3_close_v2(database_);
    throw;
  }
}

SqliteConnection::~SqliteConnection() {
  for (const auto& [text, statement] : prepared_) sqlite3_finalize(statement);
  sqlite3_close_v2(database_);
}

void SqliteConnection::fail(int code) const {
  if ((code & 0xff) == SQLITE_NOMEM) throw std::bad_alloc();
  const char* reason = database_ == nullptr ? sqlite3_errstr(code) : sqlite3_errmsg(database_);
  logAt(LogLevel::error, "[%d] directory database %s: %s (%d)", processId(), path_, reason, code);
  throw StoreFailure{statusOf(code)};
}

void SqliteConnection::execute(const char* statements) {
  const int code = sqlite3_exec(database_, statements, nullptr, nullptr, nullptr);
  if (code != SQLITE_OK) fail(code);
}

std::int64_t SqliteConnection::lastRowId() const { return sqlite3_last_insert_rowid(database_); }
int SqliteConnection::changes() const { return sqlite3_changes(database_); }

sqlite3_stmt* SqliteConnection::prepare(const char* text) {
  if (const auto kept = prepared_.find(text); kept != prepared_.end()) {
    sqlite3_stmt* statement = kept->second;
    prepared_.erase(kept);
    return statement;
  }
  sqlite3_stmt* statement = nullptr;
  const int code = sqlite3_prepare_v3(database_, text, -1, SQLITE_PREPARE_PERSISTENT, &statement, nullptr);
  if (code != SQLITE_OK) fail(code);
  return statement;
}

void SqliteConnection::putBack(const char* text, sqlite3_stmt* statement) noexcept {
  sqlite3_reset(statement);
  sqlite3_clear_bindings(statement);
  try {
    prepared_.emplace(text, statement);
  } catch (const std::bad_alloc&) {  // then it is prepared anew
    sqlite3_finalize(statement);
  }
}

SqliteStatement::SqliteStatement(SqliteConnection& connection, const char* text)
    : connection_(connection), text_(text), statement_(connection.prepare(text)) {}

SqliteStatement::~SqliteStatement() { connection_.putBack(text_, statement_); }

bool SqliteStatement::step() {
  const int code = sqlite3_step(statement_);
  if (code == SQLITE_ROW) return true;
  if (code != SQLITE_DONE) connection_.fail(code);
  return false;
}

void SqliteStatement::bind(int index, std::int64_t value) {
  const int code = sqlite3_bind_int64(statement_, index, value);
  if (code != SQLITE_OK) connection_.fail(code);
}

void SqliteStatement::bind(int index, std::string_view value) {
  // A null pointer would bind NULL.
  const char* bytes = value.data() == nullptr ? "" : value.data();
  const int code = sqlite3_bind_blob64(statement_, index, bytes, value.size(), SQLITE_STATIC);
  if (code != SQLITE_OK) connection_.fail(code);
}

void SqliteStatement::bind(int index, const std::optional<std::int64_t>& value) {
  if (value) bind(index, *value);
}

void SqliteStatement::bind(int index, const std::optional<std::string>& value) {
  if (value) bind(index, std::string_view(*value));
}

std::int64_t SqliteStatement::integer(int column) const { return sqlite3_column_int64(statement_, column); }
bool SqliteStatement::isNull(int column) const { return sqlite3_column_type(statement_, column) == SQLITE_NULL; }

std::string_view SqliteStatement::blob(int column) const {
  const void* bytes = sqlite3_column_blob(statement_, column);
  if (bytes == nullptr) return {};
  return {static_cast<const char*>(bytes), static_cast<std::size_t>(sqlite3_column_bytes(statement_, column))};
}

SqliteTransaction::SqliteTransaction(SqliteConnection& connection) : connection_(connection) {
  connection_.execute("BEGIN IMMEDIATE");
}

SqliteTransaction::~SqliteTransaction() {
  if (!open_) return;
  try {
    connection_.execute("ROLLBACK");
  } catch (...) {  // SQLite has rolled back by itself after some failures
  }
}

void SqliteTransaction::commit() {
  connection_.execute("COMMIT");
  open_ = false;
}

}  // namespace ostrel::detail
