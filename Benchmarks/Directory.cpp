// The directory service beside plain SQLite: 20,000 users of eight attributes.
//
// The peer has one table of records and one of values with the indexes that a first design would give it, and is asked
// through SQLite alone. `ours` goes through the directory service: buffers, entries and handles; `listing` through
// DSGetListOfRecords on top of it.
#include <benchmark/benchmark.h>
#include <sqlite3.h>
#include <stdlib.h>
#include <sys/stat.h>

#include <array>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "Directory/RecordListings.h"
#include "Platform/DirectoryService.h"
#include "Platform/HostRoot.h"
#include "Platform/Internal/Directory/LocalNode.h"

namespace {

using namespace ostrel;

constexpr int userCount = 20000;
constexpr const char* usersType = "dsRecTypeStandard:Users";
constexpr std::array<const char*, 8> attributeNames = {
    "dsAttrTypeStandard:RecordName", "dsAttrTypeStandard:UniqueID",    "dsAttrTypeStandard:PrimaryGroupID",
    "dsAttrTypeStandard:RealName",   "dsAttrTypeNative:home",          "dsAttrTypeNative:home_loc",
    "dsAttrTypeStandard:UserShell",  "dsAttrTypeStandard:GeneratedUID"};

std::string numbered(const char* pattern, int number) {
  std::array<char, 128> text{};
  std::snprintf(text.data(), text.size(), pattern, number);
  return text.data();
}

std::array<std::string, 8> valuesOf(int number) {
  constexpr std::array<const char*, 8> first = {"Ada",    "Grace",   "Edsger", "Barbara",
                                                "Donald", "Frances", "John",   "Tony"};
  const std::string name = numbered("user%05d", number);
  return {
      name,
      std::to_string(1000 + number),
      std::to_string(100 + number % 50),
      numbered((std::string(first[static_cast<std::size_t>(number) % first.size()]) + " Surname %d").c_str(), number),
      "/home/" + name,
      "<home_dir><path>" + name + "</path></home_dir>",
      "/bin/bash",
      numbered("3F2504E0-4F89-11D3-9A0C-0305E82C%04X", number % 0x10000)};
}

void require(bool condition, const char* what) {
  if (condition) return;
  std::fprintf(stderr, "%s\n", what);
  std::abort();
}

// In memory where that can be had, for both alike.
std::string makeFolder() {
  std::string pattern =
      std::filesystem::is_directory("/dev/shm") ? "/dev/shm/ostrel-bench-XXXXXX" : "/tmp/ostrel-bench-XXXXXX";
  require(mkdtemp(pattern.data()) != nullptr, "cannot make a folder");
  return pattern;
}

using Node = std::unique_ptr<DirectoryDataNode, decltype(&dsDataNodeDeAllocate)>;
Node node(const std::string& text) {
  return {dsDataNodeAllocateBlock(text.data(), static_cast<std::uint32_t>(text.size())), &dsDataNodeDeAllocate};
}

struct FreeList {
  void operator()(DirectoryDataList* list) const {
    dsDataListDeallocate(list);
    free(list);
  }
};
using List = std::unique_ptr<DirectoryDataList, FreeList>;
List list(const std::vector<std::string>& texts) {
  List made(dsDataListAllocate());
  for (const std::string& text : texts) dsAppendStringToListAlloc(made.get(), text.c_str());
  return made;
}

class Directory {
 public:
  Directory() : folder_(makeFolder()), root_(folder_) {
    require(dsOpenDirService(&session_) == 0, "cannot open a session");
    const List path(dsBuildFromPath("/Local", "/"));
    require(dsOpenDirNode(session_, path.get(), &node_) == 0, "cannot open the node");
    seed();
    openPeer();
  }
  ~Directory() {
    dsCloseDirService(session_);
    sqlite3_close(peer_);
    std::error_code ignored;
    std::filesystem::remove_all(folder_, ignored);
  }
  Directory(const Directory&) = delete;
  Directory& operator=(const Directory&) = delete;

  static Directory& instance() {
    static Directory directory;
    return directory;
  }

  // Everything that matches, read out of the buffers value by value. The bytes read.
  std::size_t search(const char* attribute, std::uint32_t match, const std::string& pattern, std::size_t& records) {
    const std::unique_ptr<DirectoryDataBuffer, decltype(&dsDataBufferDeAllocate)> buffer(dsDataBufferAllocate(0x40000),
                                                                                         &dsDataBufferDeAllocate);
    const List types = list({usersType});
    const List patterns = list({pattern});
    const List attributes = list({attributeNames.begin(), attributeNames.end()});
    const Node searched = node(attribute);
    DirectoryHandle continuation = 0;
    std::size_t bytes = 0;
    records = 0;
    do {
      std::uint32_t count = 0;
      require(dsDoMultipleAttributeValueSearchWithData(node_, buffer.get(), types.get(), searched.get(), match,
                                                       patterns.get(), attributes.get(), &count, &continuation) == 0,
              "a search failed");
      records += count;
      for (std::uint32_t index = 1; index <= count; ++index) bytes += read(*buffer, index);
    } while (continuation != 0);
    return bytes;
  }

  // A listing as a module asks for it: session, node, search and the dictionaries of all that was found.
  PlistValue listing(const PlistValue& startsWith, const PlistValue& contains, const PlistValue& endsWith,
                     std::size_t& records) const {
    PlistValue attributes = PlistValue::mutableArray();
    for (const char* name : attributeNames) attributes.append(name);
    PlistValue answer =
        DSGetListOfRecords("/Local", PlistValue::arrayOf({usersType}), attributes, startsWith, contains, endsWith, -1);
    require(answer.get("status") == PlistValue(0), "a listing failed");
    records = answer.get("recordsArray").count();
    return answer;
  }

  std::size_t ask(const char* condition, const std::string& pattern, std::size_t& records) {
    const std::string text =
        "SELECT v.record, a.name, v.bytes FROM value v JOIN attribute a ON a.id=v.attribute WHERE v.record IN "
        "(SELECT record FROM value WHERE " +
        std::string(condition) + ") ORDER BY v.record, v.id";
    sqlite3_stmt* statement = nullptr;
    require(sqlite3_prepare_v2(peer_, text.c_str(), -1, &statement, nullptr) == SQLITE_OK, sqlite3_errmsg(peer_));
    sqlite3_bind_text(statement, 1, pattern.c_str(), -1, SQLITE_STATIC);
    std::size_t bytes = 0;
    sqlite3_int64 last = -1;
    records = 0;
    while (sqlite3_step(statement) == SQLITE_ROW) {
      const sqlite3_int64 record = sqlite3_column_int64(statement, 0);
      if (record != last) ++records;
      last = record;
      benchmark::DoNotOptimize(sqlite3_column_text(statement, 1));
      const std::string value(reinterpret_cast<const char*>(sqlite3_column_text(statement, 2)),
                              static_cast<std::size_t>(sqlite3_column_bytes(statement, 2)));
      bytes += value.size();
    }
    sqlite3_finalize(statement);
    return bytes;
  }

 private:
  void seed() const {
    std::vector<std::array<std::string, 8>> texts(userCount);
    std::vector<std::array<DirectoryValue, 8>> values(userCount);
    std::vector<std::array<DirectoryAttribute, 8>> attributes(userCount);
    std::vector<DirectoryRecordView> records;
    for (std::size_t number = 0; number < userCount; ++number) {
      texts[number] = valuesOf(static_cast<int>(number));
      for (std::size_t at = 0; at < attributeNames.size(); ++at) {
        values[number][at] = {0, texts[number][at]};
        attributes[number][at] = {attributeNames[at], {&values[number][at], 1}};
      }
      records.push_back({usersType, texts[number][0], attributes[number]});
    }
    require(detail::importRecords(folder_ + "/var/ostreld/directory/local.db", records) == 0, "cannot seed");
  }

  std::size_t read(const DirectoryDataBuffer& buffer, std::uint32_t index) const {
    DirectoryHandle attributes = 0;
    DirectoryRecordEntry* record = nullptr;
    require(dsGetRecordEntry(node_, &buffer, index, &attributes, &record) == 0, "no record");
    std::size_t bytes = 0;
    for (std::uint32_t at = 1; at <= record->attributeCount; ++at) {
      DirectoryHandle values = 0;
      DirectoryAttributeEntry* attribute = nullptr;
      require(dsGetAttributeEntry(node_, &buffer, attributes, at, &values, &attribute) == 0, "no attribute");
      for (std::uint32_t number = 1; number <= attribute->valueCount; ++number) {
        DirectoryAttributeValueEntry* value = nullptr;
        require(dsGetAttributeValue(node_, &buffer, number, values, &value) == 0, "no value");
        bytes += value->value.length;
        dsDeallocAttributeValueEntry(value);
      }
      dsDeallocAttributeEntry(attribute);
      dsCloseAttributeValueList(values);
    }
    dsDeallocRecordEntry(record);
    dsCloseAttributeList(attributes);
    return bytes;
  }

  void openPeer() {
    const std::string path = folder_ + "/peer.db";
    require(sqlite3_open(path.c_str(), &peer_) == SQLITE_OK, "cannot open the peer");
    run("PRAGMA journal_mode=WAL; CREATE TABLE attribute(id INTEGER PRIMARY KEY, name TEXT);"
        "CREATE TABLE value(id INTEGER PRIMARY KEY, record INTEGER, attribute INTEGER, bytes TEXT);"
        "CREATE INDEX by_record ON value(record); CREATE INDEX by_text ON value(attribute, bytes); BEGIN");
    for (const char* name : attributeNames)
      run(("INSERT INTO attribute(name) VALUES('" + std::string(name) + "')").c_str());
    for (int number = 0; number < userCount; ++number) {
      const auto values = valuesOf(number);
      for (std::size_t at = 0; at < values.size(); ++at)
        run(("INSERT INTO value(record, attribute, bytes) VALUES(" + std::to_string(number + 1) + "," +
             std::to_string(at + 1) + ",'" + values[at] + "')")
                .c_str());
    }
    run("COMMIT; ANALYZE");
  }
  void run(const char* statements) {
    require(sqlite3_exec(peer_, statements, nullptr, nullptr, nullptr) == SQLITE_OK, sqlite3_errmsg(peer_));
  }

  std::string folder_;
  ScopedHostRoot root_;
  DirectoryHandle session_ = 0;
  DirectoryHandle node_ = 0;
  sqlite3* peer_ = nullptr;
};

void ours(benchmark::State& state, const char* attribute, std::uint32_t match, const char* pattern) {
  Directory& directory = Directory::instance();
  std::size_t records = 0;
  for (auto _ : state) benchmark::DoNotOptimize(directory.search(attribute, match, pattern, records));
  state.counters["records"] = static_cast<double>(records);
}

void listing(benchmark::State& state, const char* startsWith, const char* contains, const char* endsWith) {
  const Directory& directory = Directory::instance();
  std::size_t records = 0;
  for (auto _ : state) benchmark::DoNotOptimize(directory.listing(startsWith, contains, endsWith, records));
  state.counters["records"] = static_cast<double>(records);
}

void plain(benchmark::State& state, const char* condition, const char* pattern) {
  Directory& directory = Directory::instance();
  std::size_t records = 0;
  for (auto _ : state) benchmark::DoNotOptimize(directory.ask(condition, pattern, records));
  state.counters["records"] = static_cast<double>(records);
}

BENCHMARK_CAPTURE(ours, list, attributeNames[0], directoryMatch::any, "dsRecordsAll")->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(listing, list, nullptr, nullptr, nullptr)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(plain, list, "attribute=1", "")->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(ours, exact, attributeNames[0], directoryMatch::exact, "user12345")->Unit(benchmark::kMicrosecond);
BENCHMARK_CAPTURE(listing, exact, "user12345", nullptr, "user12345")->Unit(benchmark::kMicrosecond);
BENCHMARK_CAPTURE(plain, exact, "attribute=1 AND bytes=?1", "user12345")->Unit(benchmark::kMicrosecond);
BENCHMARK_CAPTURE(ours, exactIgnoringCase, attributeNames[0], directoryMatch::exactIgnoringCase, "USER12345")
    ->Unit(benchmark::kMicrosecond);
BENCHMARK_CAPTURE(ours, startsWith, attributeNames[0], directoryMatch::startsWithIgnoringCase, "User1234")
    ->Unit(benchmark::kMicrosecond);
BENCHMARK_CAPTURE(listing, startsWith, "User1234", nullptr, nullptr)->Unit(benchmark::kMicrosecond);
BENCHMARK_CAPTURE(listing, contains, nullptr, "R1234", nullptr)->Unit(benchmark::kMicrosecond);
BENCHMARK_CAPTURE(listing, endsWith, nullptr, nullptr, "2345")->Unit(benchmark::kMicrosecond);
BENCHMARK_CAPTURE(ours, contains, attributeNames[0], directoryMatch::containsIgnoringCase, "R1234")
    ->Unit(benchmark::kMicrosecond);
BENCHMARK_CAPTURE(plain, contains, "attribute=1 AND bytes LIKE '%'||?1||'%'", "r1234")->Unit(benchmark::kMicrosecond);
BENCHMARK_CAPTURE(ours, containsTwoBytes, attributeNames[0], directoryMatch::containsIgnoringCase, "zq")
    ->Unit(benchmark::kMicrosecond);
BENCHMARK_CAPTURE(ours, containsNothing, attributeNames[0], directoryMatch::containsIgnoringCase, "user99999")
    ->Unit(benchmark::kMicrosecond);
BENCHMARK_CAPTURE(ours, endsWith, attributeNames[0], directoryMatch::endsWithIgnoringCase, "2345")
    ->Unit(benchmark::kMicrosecond);
BENCHMARK_CAPTURE(plain, endsWith, "attribute=1 AND bytes LIKE '%'||?1", "2345")->Unit(benchmark::kMicrosecond);
BENCHMARK_CAPTURE(ours, greaterThan, attributeNames[1], directoryMatch::greaterThan, "20990")
    ->Unit(benchmark::kMicrosecond);
BENCHMARK_CAPTURE(plain, greaterThan, "attribute=2 AND CAST(bytes AS INTEGER)>CAST(?1 AS INTEGER)", "20990")
    ->Unit(benchmark::kMicrosecond);

}  // namespace

BENCHMARK_MAIN();
