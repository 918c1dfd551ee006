// Changes of the local node's records. Every change keeps in step: the values, their text index, the record's names,
// its password and its packed copy.
#include <algorithm>
#include <charconv>
#include <utility>

#include "Containers/Utf8.h"
#include "Platform/Internal/Directory/LocalNode.h"
#include "Platform/Internal/Directory/PasswordHash.h"
#include "Platform/Internal/Directory/TextIndex.h"

namespace ostrel::detail {
namespace {

constexpr std::size_t longestName = 255;
// What a value costs in a packed record besides its bytes, about.
constexpr std::int64_t valueOverhead = 8;

// Numbers as matches compare them; as a text, exactly so and not otherwise.
std::optional<std::int64_t> numberIn(std::string_view text) {
  std::int64_t number = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
  if (error != std::errc() || end != text.data() + text.size()) return std::nullopt;
  return number;
}

bool isRecordName(std::string_view name) { return isLocalName(name) && name != directoryName::allRecords; }

// One record within a transaction.
class RecordEditor {
 public:
  RecordEditor(LocalConnection& connection, std::int64_t record, std::int64_t type)
      : connection_(connection), record_(record), type_(type) {}

  std::int64_t count(std::int64_t attribute) {
    SqliteStatement select(connection_, "SELECT count(*) FROM value WHERE record=?1 AND attribute=?2");
    select.with(record_, attribute).step();
    return select.integer(0);
  }

  void append(std::int64_t attribute, std::string_view bytes, bool findable) {
    SqliteStatement(connection_, "INSERT INTO value(record, attribute, bytes) VALUES(?1, ?2, ?3)")
        .with(record_, attribute, bytes)
        .run();
    const std::int64_t value = connection_.lastRowId();
    if (value > UINT32_MAX) throw StoreFailure{directoryStatus::limitExceeded};
    if (findable) index(value, attribute, bytes);
    grown_ += static_cast<std::int64_t>(bytes.size()) + valueOverhead;
  }

  void replace(std::int64_t attribute, std::int64_t value, std::string_view bytes) {
    forget(attribute, value);
    SqliteStatement(connection_, "UPDATE value SET bytes=?2 WHERE id=?1").with(value, bytes).run();
    index(value, attribute, bytes);
    grown_ += static_cast<std::int64_t>(bytes.size()) + valueOverhead;
  }

  void remove(std::int64_t attribute, std::int64_t value) {
    forget(attribute, value);
    SqliteStatement(connection_, "DELETE FROM value WHERE id=?1").with(value).run();
  }

  void removeAll(std::int64_t attribute) {
    for (const std::int64_t value : valuesOf(attribute)) remove(attribute, value);
  }

  bool has(std::int64_t attribute, std::int64_t value) {
    SqliteStatement select(connection_, "SELECT 1 FROM value WHERE id=?1 AND record=?2 AND attribute=?3");
    return select.with(value, record_, attribute).step();
  }

  // The names by which the record is found, from its name values.
  void renewNames(std::int64_t attribute) {
    SqliteStatement(connection_, "DELETE FROM name WHERE record=?1").with(record_).run();
    // Left to itself, SQLite walks over every record's names to spare the sorting.
    SqliteStatement names(connection_,
                          "SELECT DISTINCT folded FROM value INDEXED BY value_by_record WHERE record=?1 AND "
                          "attribute=?2");
    names.with(record_, attribute);
    bool any = false;
    while (names.step()) {
      SqliteStatement insert(connection_, "INSERT OR IGNORE INTO name(type, folded, record) VALUES(?1, ?2, ?3)");
      insert.with(type_, names.blob(0), record_).run();
      if (connection_.changes() == 0) throw StoreFailure{directoryStatus::recordExists};
      any = true;
    }
    if (!any) throw StoreFailure{directoryStatus::invalidValue};  // a record without a name could not be found again
  }

  void removeRecord() {
    std::vector<std::int64_t> attributes;
    SqliteStatement select(connection_, "SELECT DISTINCT attribute FROM value WHERE record=?1");
    select.with(record_);
    while (select.step()) attributes.push_back(select.integer(0));
    for (const std::int64_t attribute : attributes) removeAll(attribute);
    SqliteStatement(connection_, "DELETE FROM name WHERE record=?1").with(record_).run();
    SqliteStatement(connection_, "DELETE FROM password WHERE record=?1").with(record_).run();
    SqliteStatement(connection_, "DELETE FROM record WHERE id=?1").with(record_).run();
  }

  void setPassword(const std::string& hash) {
    SqliteStatement(connection_, "INSERT OR REPLACE INTO password(record, hash) VALUES(?1, ?2)")
        .with(record_, std::string_view(hash))
        .run();
  }
  void removePassword() { SqliteStatement(connection_, "DELETE FROM password WHERE record=?1").with(record_).run(); }

  // Brings the packed copy up to date; large records have none.
  void finish() {
    SqliteStatement(connection_, "UPDATE record SET size=size+?2 WHERE id=?1").with(record_, grown_).run();
    SqliteStatement select(connection_, "SELECT size FROM record WHERE id=?1");
    const bool small = select.with(record_).step() && select.integer(0) <= largestPackedRecord;
    const auto packed = small ? std::optional(packRecord(connection_, record_)) : std::nullopt;
    SqliteStatement(connection_, "UPDATE record SET packed=?2 WHERE id=?1").with(record_, packed).run();
  }

 private:
  std::vector<std::int64_t> valuesOf(std::int64_t attribute) {
    std::vector<std::int64_t> values;
    SqliteStatement select(connection_, "SELECT id FROM value WHERE record=?1 AND attribute=?2");
    select.with(record_, attribute);
    while (select.step()) values.push_back(select.integer(0));
    return values;
  }

  void index(std::int64_t value, std::int64_t attribute, std::string_view bytes) {
    const std::string folded = foldedCase(bytes);
    SqliteStatement(connection_, "UPDATE value SET folded=?2, number=?3 WHERE id=?1")
        .with(value, std::string_view(folded), numberIn(bytes))
        .run();
    if (folded.empty() || folded.size() > longestIndexedValue) return;
    SqliteStatement(connection_, "INSERT INTO grams(rowid, text) VALUES(?1, CAST(?2 AS TEXT))")
        .with(value, std::string_view(indexedText(attribute, folded)))
        .run();
  }

  // Takes a value out of the indexes; an index without content needs the text once more for that.
  void forget(std::int64_t attribute, std::int64_t value) {
    SqliteStatement select(connection_, "SELECT folded, length(bytes) FROM value WHERE id=?1");
    if (!select.with(value).step()) return;
    grown_ -= select.integer(1) + valueOverhead;
    const std::string_view folded = select.blob(0);
    if (folded.empty() || folded.size() > longestIndexedValue) return;
    SqliteStatement(connection_, "INSERT INTO grams(grams, rowid, text) VALUES('delete', ?1, CAST(?2 AS TEXT))")
        .with(value, std::string_view(indexedText(attribute, folded)))
        .run();
  }

  LocalConnection& connection_;
  const std::int64_t record_;
  const std::int64_t type_;
  std::int64_t grown_ = 0;
};

class LocalRecord final : public DirectoryRecord {
 public:
  LocalRecord(std::shared_ptr<LocalStore> store, std::int64_t record, std::int64_t type)
      : store_(std::move(store)), record_(record), type_(type) {}

  DirectoryStatus valueAt(std::string_view attribute, std::uint32_t index, std::uint32_t& identifier,
                          std::string& bytes) override {
    return onStore([&] {
      const LocalStore::Lease connection(*store_);
      const auto attributeId = connection->attributeNamed(attribute);
      SqliteStatement select(
          *connection, "SELECT id, bytes FROM value WHERE record=?1 AND attribute=?2 ORDER BY id LIMIT 1 OFFSET ?3");
      if (!attributeId || !select.with(record_, *attributeId, std::int64_t{index} - 1).step()) {
        requireRecord(*connection);
        throw StoreFailure{directoryStatus::noSuchValue};
      }
      identifier = static_cast<std::uint32_t>(select.integer(0));
      bytes = select.blob(1);
    });
  }

  DirectoryStatus addValue(std::string_view attribute, std::string_view value) override {
    if (attribute == directoryName::password) return addPassword(value);
    return change(attribute, {&value, 1},
                  [&](RecordEditor& editor, std::int64_t id) { editor.append(id, value, true); });
  }

  DirectoryStatus replaceValue(std::string_view attribute, std::uint32_t identifier, std::string_view value) override {
    return change(attribute, {&value, 1}, [&](RecordEditor& editor, std::int64_t id) {
      if (!editor.has(id, identifier)) throw StoreFailure{directoryStatus::noSuchValue};
      if (attribute != directoryName::password) editor.replace(id, identifier, value);
    });
  }

  DirectoryStatus removeValue(std::string_view attribute, std::uint32_t identifier) override {
    return change(attribute, {}, [&](RecordEditor& editor, std::int64_t id) {
      if (!editor.has(id, identifier)) throw StoreFailure{directoryStatus::noSuchValue};
      editor.remove(id, identifier);
      if (attribute == directoryName::password) editor.removePassword();
    });
  }

  DirectoryStatus setValues(std::string_view attribute, std::span<const std::string_view> values) override {
    const bool isPassword = attribute == directoryName::password;
    if (isPassword && values.size() > 1) return directoryStatus::invalidValue;
    return change(attribute, values, [&](RecordEditor& editor, std::int64_t id) {
      if (isPassword && values.empty()) editor.removePassword();
      editor.removeAll(id);
      for (const std::string_view value : values)
        editor.append(id, isPassword ? directoryName::hiddenPassword : value, !isPassword);
    });
  }

  DirectoryStatus removeAttribute(std::string_view attribute) override { return setValues(attribute, {}); }

  DirectoryStatus remove() override {
    return onStore([&] {
      const LocalStore::Lease connection(*store_);
      SqliteTransaction transaction(*connection);
      requireRecord(*connection);
      RecordEditor(*connection, record_, type_).removeRecord();
      transaction.commit();
    });
  }

 private:
  void requireRecord(LocalConnection& connection) const {
    SqliteStatement select(connection, "SELECT 1 FROM record WHERE id=?1");
    if (!select.with(record_).step()) throw StoreFailure{directoryStatus::recordNotFound};
  }

  // A second password would make it undecided which one holds.
  DirectoryStatus addPassword(std::string_view value) {
    return change(directoryName::password, {&value, 1}, [&](RecordEditor& editor, std::int64_t id) {
      if (editor.count(id) > 0) throw StoreFailure{directoryStatus::invalidValue};
      editor.append(id, directoryName::hiddenPassword, false);
    });
  }

  // Runs an edit as one transaction. `values` are those that it brings: checked before, and kept as the hash alone when
  // they are passwords.
  template <class Edit>
  DirectoryStatus change(std::string_view attribute, std::span<const std::string_view> values, Edit&& edit) {
    if (!isLocalName(attribute)) return directoryStatus::invalidName;
    const bool isName = attribute == directoryName::recordName;
    if (isName && !std::ranges::all_of(values, isRecordName)) return directoryStatus::invalidName;
    if (!std::ranges::all_of(values, isValueText)) return directoryStatus::invalidValue;
    const bool isPassword = attribute == directoryName::password && !values.empty();
    const bool keepsPassword = isPassword && values.front() == directoryName::hiddenPassword;
    const auto hash = isPassword && !keepsPassword ? hashPassword(values.front()) : std::nullopt;
    if (isPassword && !keepsPassword && !hash) return directoryStatus::invalidValue;
    return onStore([&] {
      const LocalStore::Lease connection(*store_);
      SqliteTransaction transaction(*connection);
      requireRecord(*connection);
      RecordEditor editor(*connection, record_, type_);
      const std::int64_t attributeId = connection->makeAttribute(attribute);
      if (keepsPassword && editor.count(attributeId) == 0) throw StoreFailure{directoryStatus::invalidValue};
      edit(editor, attributeId);
      if (hash) editor.setPassword(*hash);
      if (isName) editor.renewNames(attributeId);
      editor.finish();
      transaction.commit();
    });
  }

  const std::shared_ptr<LocalStore> store_;
  const std::int64_t record_;
  const std::int64_t type_;
};

}  // namespace

bool isLocalName(std::string_view text) {
  const auto isControl = [](char c) { return static_cast<unsigned char>(c) < 0x20 || c == 0x7F; };
  return !text.empty() && text.size() <= longestName && std::ranges::none_of(text, isControl) && isValidUtf8(text);
}

std::unique_ptr<DirectoryRecord> makeLocalRecord(std::shared_ptr<LocalStore> store, std::int64_t record,
                                                 std::int64_t type) {
  return std::make_unique<LocalRecord>(std::move(store), record, type);
}

std::int64_t insertRecord(LocalConnection& connection, std::int64_t type, std::string_view name) {
  if (!isRecordName(name)) throw StoreFailure{directoryStatus::invalidName};
  SqliteStatement(connection, "INSERT INTO record(type, size) VALUES(?1, 0)").with(type).run();
  const std::int64_t record = connection.lastRowId();
  RecordEditor editor(connection, record, type);
  const std::int64_t attribute = connection.makeAttribute(directoryName::recordName);
  editor.append(attribute, name, true);
  editor.renewNames(attribute);
  editor.finish();
  return record;
}

DirectoryStatus importRecords(const std::string& databasePath, std::span<const DirectoryRecordView> records) {
  LocalStore store(databasePath);
  return onStore([&] {
    const LocalStore::Lease connection(store);
    SqliteTransaction transaction(*connection);
    for (const DirectoryRecordView& record : records) {
      const std::int64_t type = connection->makeType(record.type);
      RecordEditor editor(*connection, insertRecord(*connection, type, record.name), type);
      for (const DirectoryAttribute& attribute : record.attributes) {
        if (attribute.name == directoryName::recordName || attribute.name == directoryName::password) continue;
        const std::int64_t attributeId = connection->makeAttribute(attribute.name);
        for (const DirectoryValue& value : attribute.values) editor.append(attributeId, value.bytes, true);
      }
      editor.finish();
    }
    transaction.commit();
  });
}

std::optional<std::int64_t> recordNamed(LocalConnection& connection, std::int64_t type, std::string_view name) {
  SqliteStatement select(connection, "SELECT record FROM name WHERE type=?1 AND folded=?2");
  const std::string folded = foldedCase(name);
  if (!select.with(type, std::string_view(folded)).step()) return std::nullopt;
  return select.integer(0);
}

}  // namespace ostrel::detail
