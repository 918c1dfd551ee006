// A directory below a temporary host root, and short forms of its operations for tests.
#pragma once

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "Platform/DirectoryService.h"
#include "Platform/HostRoot.h"
#include "Support/TemporaryFolder.h"

namespace ostrel::testing {

inline constexpr const char* usersType = "dsRecTypeStandard:Users";
inline constexpr const char* groupsType = "dsRecTypeStandard:Groups";
inline constexpr const char* nameAttribute = "dsAttrTypeStandard:RecordName";
inline constexpr const char* idAttribute = "dsAttrTypeStandard:UniqueID";

struct FreeDirectoryItem {
  void operator()(DirectoryDataNode* node) const { dsDataNodeDeAllocate(node); }
  void operator()(DirectoryDataList* list) const {
    dsDataListDeallocate(list);
    free(list);
  }
  void operator()(DirectoryAttributeValueEntry* entry) const { dsDeallocAttributeValueEntry(entry); }
  void operator()(DirectoryAttributeEntry* entry) const { dsDeallocAttributeEntry(entry); }
  void operator()(DirectoryRecordEntry* entry) const { dsDeallocRecordEntry(entry); }
};
template <class Item>
using DirectoryItem = std::unique_ptr<Item, FreeDirectoryItem>;

inline DirectoryItem<DirectoryDataNode> dataNode(std::string_view text) {
  return DirectoryItem<DirectoryDataNode>(
      dsDataNodeAllocateBlock(text.data(), static_cast<std::uint32_t>(text.size())));
}
inline DirectoryItem<DirectoryDataList> dataList(const std::vector<std::string>& texts) {
  DirectoryItem<DirectoryDataList> list(dsDataListAllocate());
  for (const std::string& text : texts) dsAppendStringToListAlloc(list.get(), text.c_str());
  return list;
}
inline DirectoryItem<DirectoryDataBuffer> dataBuffer(std::uint32_t capacity) {
  return DirectoryItem<DirectoryDataBuffer>(dsDataBufferAllocate(capacity));
}

/// A record as it came out of a buffer.
struct FoundRecord {
  std::string type;
  std::string name;
  std::vector<std::pair<std::string, std::vector<std::string>>> attributes;

  std::vector<std::string> values(std::string_view attribute) const {
    for (const auto& [found, texts] : attributes)
      if (found == attribute) return texts;
    return {};
  }
};

/// An open session and node below a root of its own.
class DirectoryFixture : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(dsOpenDirService(&session), 0);
    ASSERT_EQ(openNode("/Local", node), 0);
  }
  void TearDown() override { dsCloseDirService(session); }

  DirectoryStatus openNode(const std::string& path, DirectoryHandle& opened) {
    const DirectoryItem<DirectoryDataList> name(dsBuildFromPath(path.c_str(), "/"));
    return dsOpenDirNode(session, name.get(), &opened);
  }
  DirectoryStatus open(const char* type, std::string_view name, DirectoryHandle& record) {
    return dsOpenRecord(node, dataNode(type).get(), dataNode(name).get(), &record);
  }
  DirectoryStatus create(const char* type, std::string_view name, DirectoryHandle& record) {
    return dsCreateRecordAndOpen(node, dataNode(type).get(), dataNode(name).get(), &record);
  }
  static DirectoryStatus add(DirectoryHandle record, std::string_view attribute, std::string_view value) {
    return dsAddAttributeValue(record, dataNode(attribute).get(), dataNode(value).get());
  }
  static DirectoryStatus valueAt(DirectoryHandle record, std::string_view attribute, std::uint32_t index,
                                 std::string& value, std::uint32_t* identifier = nullptr) {
    DirectoryAttributeValueEntry* entry = nullptr;
    const DirectoryStatus status = dsGetRecordAttributeValueByIndex(record, dataNode(attribute).get(), index, &entry);
    const DirectoryItem<DirectoryAttributeValueEntry> owned(entry);
    value = entry == nullptr ? "" : std::string(entry->value.text());
    if (entry != nullptr && identifier != nullptr) *identifier = entry->identifier;
    return status;
  }
  /// Makes a user with attributes as name and value pairs.
  void makeUser(std::string_view name, const std::vector<std::pair<std::string, std::string>>& attributes = {}) {
    makeRecord(usersType, name, attributes);
  }
  void makeRecord(const char* type, std::string_view name,
                  const std::vector<std::pair<std::string, std::string>>& attributes = {}) {
    DirectoryHandle record = 0;
    ASSERT_EQ(create(type, name, record), 0) << name;
    for (const auto& [attribute, value] : attributes) ASSERT_EQ(add(record, attribute, value), 0) << value;
    ASSERT_EQ(dsCloseRecord(record), 0);
  }

  /// Reads every record in a buffer.
  static std::vector<FoundRecord> readAll(DirectoryHandle node, const DirectoryDataBuffer& buffer,
                                          std::uint32_t count) {
    std::vector<FoundRecord> records;
    for (std::uint32_t index = 1; index <= count; ++index) {
      DirectoryHandle attributes = 0;
      DirectoryRecordEntry* entry = nullptr;
      EXPECT_EQ(dsGetRecordEntry(node, &buffer, index, &attributes, &entry), 0);
      const DirectoryItem<DirectoryRecordEntry> owned(entry);
      if (entry == nullptr) break;
      records.push_back({std::string(entry->type), std::string(entry->name), {}});
      readAttributes(node, buffer, attributes, entry->attributeCount, records.back());
      EXPECT_EQ(dsCloseAttributeList(attributes), 0);
    }
    return records;
  }
  static void readAttributes(DirectoryHandle node, const DirectoryDataBuffer& buffer, DirectoryHandle attributes,
                             std::uint32_t count, FoundRecord& record) {
    for (std::uint32_t index = 1; index <= count; ++index) {
      DirectoryHandle values = 0;
      DirectoryAttributeEntry* entry = nullptr;
      ASSERT_EQ(dsGetAttributeEntry(node, &buffer, attributes, index, &values, &entry), 0);
      const DirectoryItem<DirectoryAttributeEntry> owned(entry);
      auto& found = record.attributes.emplace_back(std::string(entry->name), std::vector<std::string>{}).second;
      for (std::uint32_t at = 1; at <= entry->valueCount; ++at) {
        DirectoryAttributeValueEntry* value = nullptr;
        ASSERT_EQ(dsGetAttributeValue(node, &buffer, at, values, &value), 0);
        const DirectoryItem<DirectoryAttributeValueEntry> ownedValue(value);
        found.emplace_back(value->value.text());
      }
      EXPECT_EQ(dsCloseAttributeValueList(values), 0);
    }
  }

  /// Runs a whole search in steps of `capacity` bytes and, unless 0, `limit` records.
  std::vector<FoundRecord> search(DirectoryHandle from, const std::vector<std::string>& types,
                                  std::string_view attribute, std::uint32_t match,
                                  const std::vector<std::string>& patterns,
                                  const std::vector<std::string>& attributes = {nameAttribute},
                                  std::uint32_t capacity = 0x40000, std::uint32_t limit = 0) {
    std::vector<FoundRecord> records;
    const auto buffer = dataBuffer(capacity);
    DirectoryHandle continuation = 0;
    do {
      std::uint32_t count = limit;
      status = dsDoMultipleAttributeValueSearchWithData(from, buffer.get(), dataList(types).get(),
                                                        dataNode(attribute).get(), match, dataList(patterns).get(),
                                                        dataList(attributes).get(), &count, &continuation);
      if (status != 0) break;
      EXPECT_LE(count, limit == 0 ? UINT32_MAX : limit);
      for (FoundRecord& record : readAll(from, *buffer, count)) records.push_back(std::move(record));
    } while (continuation != 0);
    if (continuation != 0) {
      EXPECT_EQ(dsReleaseContinueData(from, continuation), 0);
    }
    return records;
  }
  std::vector<std::string> namesOf(std::string_view attribute, std::uint32_t match, const std::string& pattern) {
    std::vector<std::string> names;
    for (const FoundRecord& record : search(node, {usersType}, attribute, match, {pattern}))
      names.push_back(record.name);
    return names;
  }

  TemporaryFolder folder;
  ScopedHostRoot root{folder.path()};
  DirectoryHandle session = 0;
  DirectoryHandle node = 0;
  DirectoryStatus status = 0;
};

}  // namespace ostrel::testing
