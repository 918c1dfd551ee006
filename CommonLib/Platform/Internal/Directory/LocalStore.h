// The local node's database: its file, its connections and what every operation on it needs.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "Platform/Internal/Directory/Sqlite.h"
#include "Platform/Mutex.h"

namespace ostrel::detail {

/// Values up to so many bytes (folded) are in the index of their parts; the few longer ones are searched by scanning.
inline constexpr std::size_t longestIndexedValue = 256;
/// Records up to this size carry a packed copy of all their values, so that a listing reads one row a record.
inline constexpr std::int64_t largestPackedRecord = 8192;

/// A connection with the names that it has seen. Identifiers of types and attributes are never used again for others.
class LocalConnection : public SqliteConnection {
 public:
  explicit LocalConnection(const std::string& path, std::uint64_t inode);

  std::uint64_t inode() const { return inode_; }
  pid_t process() const { return process_; }
  /// Absent when no record ever had such a type or attribute.
  std::optional<std::int64_t> typeNamed(std::string_view name);
  std::optional<std::int64_t> attributeNamed(std::string_view name);
  /// Made when missing. Requires: a transaction.
  std::int64_t makeType(std::string_view name);
  std::int64_t makeAttribute(std::string_view name);
  /// Live as long as the connection.
  const std::string& typeName(std::int64_t type);
  const std::string& attributeName(std::int64_t attribute);

 private:
  const std::uint64_t inode_;
  const pid_t process_;
  std::unordered_map<std::int64_t, std::string> types_;
  std::unordered_map<std::int64_t, std::string> attributes_;
};

/// The database file, made on first use (mode 0600 in a folder of mode 0700).
/// Threads: any. Several processes may have the file open.
class LocalStore {
 public:
  explicit LocalStore(std::string path);

  /// Holds a connection for a scope and gives it back.
  class Lease {
   public:
    explicit Lease(LocalStore& store) : store_(&store), connection_(store.checkOut()) {}
    ~Lease() { store_->giveBack(std::move(connection_)); }
    Lease(const Lease&) = delete;
    Lease& operator=(const Lease&) = delete;
    LocalConnection& operator*() const { return *connection_; }
    LocalConnection* operator->() const { return connection_.get(); }

   private:
    LocalStore* store_;
    std::unique_ptr<LocalConnection> connection_;
  };

 private:
  std::unique_ptr<LocalConnection> checkOut();
  void giveBack(std::unique_ptr<LocalConnection> connection) noexcept;
  std::uint64_t prepareFile() const;

  const std::string path_;
  Mutex mutex_;
  std::vector<std::unique_ptr<LocalConnection>> idle_ OSTREL_GUARDED_BY(mutex_);
};

// A record's values packed: for each attribute, in the order of their identifiers, its identifier and the count of its
// values, for each of them its identifier, size and bytes. All numbers are LEB128 (DWARF 5, section 7.6).

void appendNumber(std::string& packed, std::uint64_t number);
/// False at the end, and for what is no number.
bool takeNumber(std::string_view& packed, std::uint64_t& number);

/// Packs the values of a record; with `attributes` those of these only.
std::string packRecord(LocalConnection& connection, std::int64_t record,
                       const std::vector<std::int64_t>* attributes = nullptr);

}  // namespace ostrel::detail
