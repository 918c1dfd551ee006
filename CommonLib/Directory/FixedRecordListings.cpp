// The listings that answer plain records.
#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <new>
#include <string_view>
#include <utility>

#include "Directory/DirectoryRecords.h"
#include "Directory/Internal/RecordWalk.h"
#include "Directory/RecordListings.h"
#include "Platform/DirectoryRecordReader.h"

namespace ostrel {
namespace {

using detail::ReleasedList;

constexpr const char* userTypes[] = {"dsRecTypeStandard:Users", "dsRecTypeStandard:UserAliases"};
constexpr const char* groupTypes[] = {"dsRecTypeStandard:Groups", "dsRecTypeStandard:GroupAliases"};
constexpr std::string_view homeLocation = "dsAttrTypeNative:home_loc";

template <class Record, class Type>
struct Field {
  std::string_view attribute;
  Type Record::*member;
};
constexpr Field<DSUserRecord, char*> userTexts[] = {
    {directoryName::recordName, &DSUserRecord::name}, {directoryName::realName, &DSUserRecord::realName},
    {directoryName::nativeHome, &DSUserRecord::home}, {homeLocation, &DSUserRecord::homeLocation},
    {directoryName::userShell, &DSUserRecord::shell}, {directoryName::password, &DSUserRecord::password}};
constexpr Field<DSUserRecord, std::int32_t> userNumbers[] = {
    {directoryName::uniqueID, &DSUserRecord::uniqueID}, {directoryName::primaryGroupID, &DSUserRecord::primaryGroupID}};
constexpr Field<DSGroupRecord, char*> groupTexts[] = {{directoryName::recordName, &DSGroupRecord::name},
                                                      {directoryName::realName, &DSGroupRecord::realName},
                                                      {directoryName::password, &DSGroupRecord::password}};
constexpr Field<DSGroupRecord, std::int32_t> groupNumbers[] = {
    {directoryName::primaryGroupID, &DSGroupRecord::groupID}};

void freeText(char*& text) { std::free(std::exchange(text, nullptr)); }

// The last value of several stays.
DirectoryStatus setText(char*& field, const DirectoryAttributeValueEntry& entry) {
  char* text = nullptr;
  const DirectoryStatus status = DSExtractAttributeValueAsCString(&entry, &text);
  if (status != directoryStatus::success) return status;
  freeText(field);
  field = text;
  return status;
}

// What each kind of record takes from an attribute's value.

template <class Record, class Texts, class Numbers>
DirectoryStatus setField(Record& record, const Texts& texts, const Numbers& numbers, std::string_view attribute,
                         const DirectoryAttributeValueEntry& entry) {
  for (const auto& [name, member] : numbers)
    if (name == attribute) return DSExtractAttributeValueAsInteger(&entry, &(record.*member));
  for (const auto& [name, member] : texts) {
    if (name != attribute) continue;
    const DirectoryStatus status = setText(record.*member, entry);
    if (status == directoryStatus::success && attribute == directoryName::password) record.hasPassword = 1;
    return status;
  }
  return directoryStatus::success;
}

struct UserFiller {
  using Record = DSUserRecord;
  static void release(Record& record) { DSDeallocUserRecFields(&record); }
  DirectoryStatus begin(Record&, std::string_view, std::uint32_t) { return directoryStatus::success; }
  DirectoryStatus fill(Record& record, std::string_view attribute, const DirectoryAttributeValueEntry& entry) {
    return setField(record, userTexts, userNumbers, attribute, entry);
  }
};

struct GroupFiller {
  using Record = DSGroupRecord;
  static void release(Record& record) { DSDeallocGroupRecFields(&record); }

  // Makes room for all members at once: adding one by one would count those that are there for each.
  DirectoryStatus begin(Record& record, std::string_view attribute, std::uint32_t valueCount) {
    if (attribute != directoryName::member) return directoryStatus::success;
    if (record.members == nullptr) members = 0;
    void* grown = std::realloc(record.members, (members + valueCount + 1) * sizeof(char*));
    if (grown == nullptr) return directoryStatus::outOfMemory;
    record.members = static_cast<char**>(grown);
    std::fill_n(record.members + members, valueCount + std::size_t{1}, nullptr);
    return directoryStatus::success;
  }
  DirectoryStatus fill(Record& record, std::string_view attribute, const DirectoryAttributeValueEntry& entry) {
    if (attribute != directoryName::member) return setField(record, groupTexts, groupNumbers, attribute, entry);
    return setText(record.members[members++], entry);
  }

  std::size_t members = 0;
};

struct NameFiller {
  using Record = char*;
  static void release(Record& name) { DSDeallocAnyRecFields(&name); }
  DirectoryStatus begin(Record&, std::string_view, std::uint32_t) { return directoryStatus::success; }
  DirectoryStatus fill(Record& name, std::string_view attribute, const DirectoryAttributeValueEntry& entry) {
    return attribute == directoryName::recordName ? setText(name, entry) : directoryStatus::success;
  }
};

// Collects the records whose number is within the bounds.
template <class Filler>
class FixedCollector final : private DirectoryRecordVisitor {
 public:
  using Record = typename Filler::Record;

  FixedCollector(long first, long last) : first_(first), last_(last) {}
  ~FixedCollector() override {
    for (long at = 0; at < count_; ++at) Filler::release(records_[at]);
    std::free(records_);
  }
  FixedCollector(const FixedCollector&) = delete;
  FixedCollector& operator=(const FixedCollector&) = delete;

  DirectoryStatus takePiece(const DirectoryDataBuffer& buffer, std::uint32_t count) {
    for (std::uint32_t index = 1; index <= count; ++index) {
      const long number = total_ + static_cast<long>(index) - 1;
      if (number < first_ || (last_ >= 0 && number > last_)) continue;
      if (!grow()) return directoryStatus::outOfMemory;
      const DirectoryStatus status = readDirectoryRecord(buffer, index, *this);
      if (status != directoryStatus::success) return status;
    }
    total_ += count;
    return directoryStatus::success;
  }

  void giveAway(Record** records, long* count, long* total) {
    *records = std::exchange(records_, nullptr);
    *count = std::exchange(count_, 0);
    if (total != nullptr) *total = total_;
  }

 private:
  // Adds one zeroed record.
  bool grow() {
    if (count_ == room_) {
      const long room = room_ == 0 ? 1 : room_ * 2;
      void* grown = std::realloc(records_, static_cast<std::size_t>(room) * sizeof(Record));
      if (grown == nullptr) return false;
      records_ = static_cast<Record*>(grown);
      room_ = room;
    }
    records_[count_++] = Record{};
    return true;
  }

  DirectoryStatus beginAttribute(std::string_view name, std::uint32_t valueCount) override {
    attribute_ = name;
    return filler_.begin(records_[count_ - 1], name, valueCount);
  }
  DirectoryStatus value(std::string_view bytes) override {
    const detail::ReleasedValueEntry entry(
        dsAllocAttributeValueEntry(0, bytes.data(), static_cast<std::uint32_t>(bytes.size())));
    return entry ? filler_.fill(records_[count_ - 1], attribute_, *entry) : directoryStatus::outOfMemory;
  }

  const long first_;
  const long last_;
  Filler filler_;
  Record* records_ = nullptr;
  long count_ = 0;
  long room_ = 0;
  long total_ = 0;
  std::string_view attribute_;
};

const char* nameToAskFor(const char* name, std::uint32_t match) {
  const bool isAll = name == nullptr || (match != directoryMatch::exact && std::strcmp(name, "*") == 0);
  return isAll ? directoryName::allRecords.data() : name;
}

// The lists are the caller's; null ones were not to be had.
template <class Filler>
DirectoryStatus listRecords(DirectoryHandle node, const char* name, std::uint32_t match, long first, long last,
                            DirectoryDataList* types, DirectoryDataList* attributes, typename Filler::Record** records,
                            long* count, long* total) noexcept {
  if (records != nullptr) *records = nullptr;
  if (count != nullptr) *count = 0;
  if (total != nullptr) *total = 0;
  if (records == nullptr || count == nullptr) return directoryStatus::invalidArgument;
  const ReleasedList names(dsBuildListFromStringsAlloc(nameToAskFor(name, match), nullptr));
  if (!names || types == nullptr || attributes == nullptr) return directoryStatus::outOfMemory;
  try {
    FixedCollector<Filler> collector(first, last);
    const DirectoryStatus status = detail::walkSearch(
        node, 0,
        [&](DirectoryDataBuffer* buffer, std::uint32_t* found, DirectoryHandle* continuation) {
          return dsGetRecordList(node, buffer, names.get(), match, types, attributes, found, continuation);
        },
        [&](const DirectoryDataBuffer& buffer, std::uint32_t found, bool&) {
          return collector.takePiece(buffer, found);
        });
    if (status == directoryStatus::success) collector.giveAway(records, count, total);
    return status;
  } catch (const std::bad_alloc&) {
    return directoryStatus::outOfMemory;
  }
}

template <class Record, class Release>
void releaseAll(Record** records, long count, Release release) {
  if (records == nullptr || *records == nullptr) return;
  for (long at = 0; at < count; ++at) release(&(*records)[at]);
  std::free(std::exchange(*records, nullptr));
}

}  // namespace

DirectoryStatus DSGetUserRecordsInfo(DirectoryHandle, DirectoryHandle node, const char* name, std::uint32_t match,
                                     long first, long last, DSUserRecord** records, long* count, long* total) noexcept {
  const ReleasedList types(dsBuildListFromStringsAlloc(userTypes[0], userTypes[1], nullptr));
  const ReleasedList attributes(dsBuildListFromStringsAlloc(
      directoryName::recordName.data(), directoryName::uniqueID.data(), directoryName::primaryGroupID.data(),
      directoryName::realName.data(), directoryName::nativeHome.data(), homeLocation.data(),
      directoryName::userShell.data(), directoryName::password.data(), nullptr));
  return listRecords<UserFiller>(node, name, match, first, last, types.get(), attributes.get(), records, count, total);
}

DirectoryStatus DSGetGroupRecordsInfo(DirectoryHandle, DirectoryHandle node, const char* name, std::uint32_t match,
                                      long first, long last, DSGroupRecord** records, long* count,
                                      long* total) noexcept {
  const ReleasedList types(dsBuildListFromStringsAlloc(groupTypes[0], groupTypes[1], nullptr));
  const ReleasedList attributes(dsBuildListFromStringsAlloc(
      directoryName::recordName.data(), directoryName::primaryGroupID.data(), directoryName::realName.data(),
      directoryName::password.data(), directoryName::member.data(), nullptr));
  return listRecords<GroupFiller>(node, name, match, first, last, types.get(), attributes.get(), records, count, total);
}

DirectoryStatus DSGetAnyRecordsInfo(DirectoryHandle, DirectoryHandle node, const char* recordType, const char* name,
                                    std::uint32_t match, long first, long last, char*** names, long* count,
                                    long* total) noexcept {
  const ReleasedList types(dsBuildListFromStringsAlloc(recordType, nullptr));
  const ReleasedList attributes(dsBuildListFromStringsAlloc(directoryName::recordName.data(), nullptr));
  return listRecords<NameFiller>(node, name, match, first, last, types.get(), attributes.get(), names, count, total);
}

void DSDeallocUserRecs(DSUserRecord** records, long* count) noexcept {
  releaseAll(records, count == nullptr ? 0 : *count, DSDeallocUserRecFields);
  if (count != nullptr) *count = 0;
}

void DSDeallocGroupRecs(DSGroupRecord** records, long count) noexcept {
  releaseAll(records, count, DSDeallocGroupRecFields);
}

void DSDeallocAnyRecs(char*** names, long* count) noexcept {
  releaseAll(names, count == nullptr ? 0 : *count, DSDeallocAnyRecFields);
  if (count != nullptr) *count = 0;
}

void DSDeallocUserRecFields(DSUserRecord* record) noexcept {
  if (record == nullptr) return;
  for (const auto& field : userTexts) freeText(record->*field.member);
}

void DSDeallocGroupRecFields(DSGroupRecord* record) noexcept {
  if (record == nullptr) return;
  for (const auto& field : groupTexts) freeText(record->*field.member);
  for (char** member = record->members; member != nullptr && *member != nullptr; ++member) std::free(*member);
  std::free(std::exchange(record->members, nullptr));
}

void DSDeallocAnyRecFields(char** name) noexcept {
  if (name != nullptr) freeText(*name);
}

}  // namespace ostrel
