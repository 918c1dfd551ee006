// SQLite connections and statements, as the local node uses them.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>

#include "Platform/DirectoryTypes.h"

struct sqlite3;
struct sqlite3_stmt;

namespace ostrel::detail {

/// What ends a step of the store's work; never leaves the local node.
struct StoreFailure {
  DirectoryStatus status;
};

class SqliteConnection;

/// A prepared statement of a connection for one use: bound, stepped, and reset when it ends. The parameters are
/// numbered from 1, the columns from 0. Everything throws StoreFailure, or std::bad_alloc.
class SqliteStatement {
 public:
  SqliteStatement(SqliteConnection& connection, const char* text);
  ~SqliteStatement();
  SqliteStatement(const SqliteStatement&) = delete;
  SqliteStatement& operator=(const SqliteStatement&) = delete;

  /// Binds in order, from the first parameter on. Text is bound as a blob that is borrowed until the statement ends.
  template <class... Values>
  SqliteStatement& with(const Values&... values) {
    int index = 0;
    (bind(++index, values), ...);
    return *this;
  }
  /// True while there is a row.
  bool step();
  /// Steps a statement that answers no row.
  void run() { step(); }

  std::int64_t integer(int column) const;
  bool isNull(int column) const;
  /// Lives until the next step.
  std::string_view blob(int column) const;

 private:
  void bind(int index, std::int64_t value);
  void bind(int index, std::string_view value);
  void bind(int index, const std::optional<std::int64_t>& value);
  void bind(int index, const std::optional<std::string>& value);

  SqliteConnection& connection_;
  const char* text_;
  sqlite3_stmt* statement_;
};

/// One connection. Threads: one at a time. Statements are kept prepared: texts are literals.
class SqliteConnection {
 public:
  /// Opens an existing file. Throws StoreFailure.
  explicit SqliteConnection(const std::string& path);
  ~SqliteConnection();
  SqliteConnection(const SqliteConnection&) = delete;
  SqliteConnection& operator=(const SqliteConnection&) = delete;

  /// Runs statements that take no parameters and answer nothing.
  void execute(const char* statements);
  std::int64_t lastRowId() const;
  int changes() const;

 private:
  friend class SqliteStatement;
  [[noreturn]] void fail(int code) const;
  /// A prepared statement that is not in use; gives the ownership to the statement.
  sqlite3_stmt* prepare(const char* text);
  void putBack(const char* text, sqlite3_stmt* statement) noexcept;

  std::string path_;
  sqlite3* database_ = nullptr;
  std::multimap<const char*, sqlite3_stmt*> prepared_;
};

/// A write transaction: rolled back unless it is committed.
class SqliteTransaction {
 public:
  explicit SqliteTransaction(SqliteConnection& connection);
  ~SqliteTransaction();
  SqliteTransaction(const SqliteTransaction&) = delete;
  SqliteTransaction& operator=(const SqliteTransaction&) = delete;
  void commit();

 private:
  SqliteConnection& connection_;
  bool open_ = true;
};

}  // namespace ostrel::detail
