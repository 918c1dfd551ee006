#include "Platform/Internal/Directory/LocalStore.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "Platform/FileDescriptor.h"
#include "Platform/Files.h"
#include "Platform/SystemLog.h"

namespace ostrel::detail {
namespace {

constexpr std::size_t mostIdleConnections = 8;
constexpr std::int64_t applicationId = 0x6f644c31;
constexpr std::int64_t schemaVersion = 1;
// The text index spells an attribute in four hexadecimal digits.
constexpr std::int64_t mostAttributes = 0xFFFF;

// Values keep their order by their identifiers, which grow and are never used again. `folded` is what matches compare;
// it is null for what must not be found (passwords). `grams` is an index of parts of values (see TextIndex.h).
constexpr const char* schema = R"(
CREATE TABLE type(id INTEGER PRIMARY KEY, name BLOB NOT NULL UNIQUE);
CREATE TABLE attribute(id INTEGER PRIMARY KEY, name BLOB NOT NULL UNIQUE);
CREATE TABLE record(id INTEGER PRIMARY KEY AUTOINCREMENT, type INTEGER NOT NULL, size INTEGER NOT NULL, packed BLOB);
CREATE INDEX record_by_type ON record(type);
CREATE TABLE name(type INTEGER NOT NULL, folded BLOB NOT NULL, record INTEGER NOT NULL, PRIMARY KEY(type, folded))
  WITHOUT ROWID;
CREATE INDEX name_by_record ON name(record);
CREATE TABLE value(id INTEGER PRIMARY KEY AUTOINCREMENT, record INTEGER NOT NULL, attribute INTEGER NOT NULL,
  bytes BLOB NOT NULL, folded BLOB, number INTEGER);
CREATE INDEX value_by_record ON value(record, attribute);
CREATE INDEX value_by_text ON value(attribute, folded);
CREATE INDEX value_by_number ON value(attribute, number) WHERE number IS NOT NULL;
CREATE INDEX value_long ON value(attribute) WHERE length(folded) > 256;
CREATE VIRTUAL TABLE grams USING fts5(text, content='', columnsize=0, tokenize='ascii', prefix='6 8');
CREATE TABLE password(record INTEGER PRIMARY KEY, hash BLOB NOT NULL);
PRAGMA application_id=1868844081;
PRAGMA user_version=1;
)";
static_assert(applicationId == 1868844081 && schemaVersion == 1 && longestIndexedValue == 256);

[[noreturn]] void refuse(const std::string& path, std::string_view reason) {
  logAt(LogLevel::error, "[%d] directory database %s %s", processId(), path, reason);
  throw StoreFailure{directoryStatus::storageFailed};
}

bool isOurs(const FileStatus& status) { return status.user == 0 || status.user == geteuid(); }

std::int64_t pragma(SqliteConnection& connection, const char* text) {
  SqliteStatement statement(connection, text);
  return statement.step() ? statement.integer(0) : 0;
}

std::optional<std::int64_t> idIn(SqliteConnection& connection, const char* text, std::string_view name) {
  SqliteStatement statement(connection, text);
  if (!statement.with(name).step()) return std::nullopt;
  return statement.integer(0);
}

const std::string& nameIn(SqliteConnection& connection, const char* text, std::int64_t id,
                          std::unordered_map<std::int64_t, std::string>& seen) {
  if (const auto known = seen.find(id); known != seen.end()) return known->second;
  SqliteStatement statement(connection, text);
  if (!statement.with(id).step()) throw StoreFailure{directoryStatus::dataDamaged};
  return seen.emplace(id, statement.blob(0)).first->second;
}

}  // namespace

LocalConnection::LocalConnection(const std::string& path, std::uint64_t inode)
    : SqliteConnection(path), inode_(inode), process_(processId()) {
  if (pragma(*this, "PRAGMA user_version") == schemaVersion && pragma(*this, "PRAGMA application_id") == applicationId)
    return;
  SqliteTransaction transaction(*this);
  // Another process may have been faster; what is neither empty nor ours is left alone.
  if (pragma(*this, "PRAGMA user_version") == schemaVersion && pragma(*this, "PRAGMA application_id") == applicationId)
    return;
  if (pragma(*this, "SELECT count(*) FROM sqlite_master") != 0) throw StoreFailure{directoryStatus::dataDamaged};
  execute(schema);
  transaction.commit();
}

std::optional<std::int64_t> LocalConnection::typeNamed(std::string_view name) {
  return idIn(*this, "SELECT id FROM type WHERE name=?1", name);
}

std::optional<std::int64_t> LocalConnection::attributeNamed(std::string_view name) {
  return idIn(*this, "SELECT id FROM attribute WHERE name=?1", name);
}

std::int64_t LocalConnection::makeType(std::string_view name) {
  if (const auto known = typeNamed(name)) return *known;
  SqliteStatement(*this, "INSERT INTO type(name) VALUES(?1)").with(name).run();
  return lastRowId();
}

std::int64_t LocalConnection::makeAttribute(std::string_view name) {
  if (const auto known = attributeNamed(name)) return *known;
  SqliteStatement(*this, "INSERT INTO attribute(name) VALUES(?1)").with(name).run();
  if (lastRowId() > mostAttributes) throw StoreFailure{directoryStatus::limitExceeded};
  return lastRowId();
}

const std::string& LocalConnection::typeName(std::int64_t type) {
  return nameIn(*this, "SELECT name FROM type WHERE id=?1", type, types_);
}

const std::string& LocalConnection::attributeName(std::int64_t attribute) {
  return nameIn(*this, "SELECT name FROM attribute WHERE id=?1", attribute, attributes_);
}

LocalStore::LocalStore(std::string path) : path_(std::move(path)) {
  idle_.reserve(mostIdleConnections);  // giving back must not fail
}

// The inode of the file, which is made when it is missing.
std::uint64_t LocalStore::prepareFile() const {
  if (const auto status = linkStatus(path_)) {
    if (!status->isRegularFile()) refuse(path_, "is no regular file");
    if (!isOurs(*status) || (status->mode & 077U) != 0) refuse(path_, "belongs to others or is open to them");
    return status->inode;
  }
  if (errno != ENOENT) refuse(path_, std::strerror(errno));
  const std::string folder = path_.substr(0, path_.rfind('/'));
  if (!makeDirectories(folder.substr(0, folder.rfind('/')), 0755) || !makeDirectories(folder, 0700))
    refuse(folder, std::strerror(errno));
  const auto status = fileStatus(folder);
  if (!status || !isOurs(*status) || (status->mode & 022U) != 0) refuse(folder, "belongs to others or is open to them");
  // SQLite gives its other files the mode of this one.
  const FileDescriptor file = openFile(path_, O_RDWR | O_CREAT | O_NOFOLLOW, 0600);
  const auto made = file ? descriptorStatus(file.get()) : std::nullopt;
  if (!made || !changeMode(file.get(), 0600) || !syncDirectory(folder)) refuse(path_, std::strerror(errno));
  return made->inode;
}

std::unique_ptr<LocalConnection> LocalStore::checkOut() {
  const std::uint64_t inode = prepareFile();
  for (;;) {
    std::unique_ptr<LocalConnection> connection;
    {
      const MutexLock lock(mutex_);
      if (idle_.empty()) break;
      connection = std::move(idle_.back());
      idle_.pop_back();
    }
    // SQLite's connections must not be used, nor closed, in a forked process.
    if (connection->process() != processId()) {
      static_cast<void>(connection.release());
      continue;
    }
    // A file that was put in the place of the former one is a new database.
    if (connection->inode() == inode) return connection;
  }
  return std::make_unique<LocalConnection>(path_, inode);
}

void LocalStore::giveBack(std::unique_ptr<LocalConnection> connection) noexcept {
  const MutexLock lock(mutex_);
  if (idle_.size() < mostIdleConnections) idle_.push_back(std::move(connection));
}

void appendNumber(std::string& packed, std::uint64_t number) {
  for (; number >= 0x80; number >>= 7U) packed += static_cast<char>(number | 0x80U);
  packed += static_cast<char>(number);
}

bool takeNumber(std::string_view& packed, std::uint64_t& number) {
  number = 0;
  for (unsigned shift = 0; shift < 64 && !packed.empty(); shift += 7) {
    const auto byte = static_cast<unsigned char>(packed.front());
    packed.remove_prefix(1);
    number |= static_cast<std::uint64_t>(byte & 0x7FU) << shift;
    if (byte < 0x80) return true;
  }
  return false;
}

namespace {

// The values of one attribute behind one another, until their count is known.
struct PackedValues {
  std::int64_t attribute = 0;
  std::uint64_t count = 0;
  std::string bytes;

  void flush(std::string& packed) {
    if (count == 0) return;
    appendNumber(packed, static_cast<std::uint64_t>(attribute));
    appendNumber(packed, count);
    packed += bytes;
    count = 0;
    bytes.clear();
  }
  void add(std::int64_t identifier, std::string_view value) {
    appendNumber(bytes, static_cast<std::uint64_t>(identifier));
    appendNumber(bytes, value.size());
    bytes += value;
    ++count;
  }
};

void packRows(SqliteStatement& rows, std::string& packed) {
  PackedValues values;
  while (rows.step()) {
    if (rows.integer(1) != values.attribute) {
      values.flush(packed);
      values.attribute = rows.integer(1);
    }
    values.add(rows.integer(0), rows.blob(2));
  }
  values.flush(packed);
}

}  // namespace

std::string packRecord(LocalConnection& connection, std::int64_t record, const std::vector<std::int64_t>* attributes) {
  std::string packed;
  if (attributes == nullptr) {
    SqliteStatement rows(connection, "SELECT id, attribute, bytes FROM value WHERE record=?1 ORDER BY attribute, id");
    packRows(rows.with(record), packed);
    return packed;
  }
  for (const std::int64_t attribute : *attributes) {
    SqliteStatement rows(connection,
                         "SELECT id, attribute, bytes FROM value WHERE record=?1 AND attribute=?2 ORDER BY id");
    packRows(rows.with(record, attribute), packed);
  }
  return packed;
}

}  // namespace ostrel::detail
