#include "Directory/DirectoryRecords.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <limits>

#include "Containers/LeadingInteger.h"
#include "Directory/Internal/Released.h"

namespace ostrel {
namespace {

using detail::ReleasedDataNode;
using detail::ReleasedText;
using detail::ReleasedValueEntry;

// A record and the data nodes with which it was opened, all released at the end.
class NamedRecord {
 public:
  NamedRecord(DirectoryHandle session, DirectoryHandle node, const char* type, const char* name) : session_(session) {
    status_ = DSOpenNamedRecord(session, node, type, name, &type_, &name_, &record_);
  }
  ~NamedRecord() { DSCloseNamedRecord(session_, &type_, &name_, &record_); }
  NamedRecord(const NamedRecord&) = delete;
  NamedRecord& operator=(const NamedRecord&) = delete;

  DirectoryStatus status() const { return status_; }
  DirectoryHandle get() const { return record_; }
  DirectoryHandle* place() { return &record_; }
  const DirectoryDataNode* typeNode() const { return type_; }
  const DirectoryDataNode* nameNode() const { return name_; }

 private:
  DirectoryHandle session_;
  DirectoryDataNode* type_ = nullptr;
  DirectoryDataNode* name_ = nullptr;
  DirectoryHandle record_ = 0;
  DirectoryStatus status_;
};

// Opens the record, makes a data node of the attribute and does `work` with both.
template <class Work>
DirectoryStatus withAttribute(DirectoryHandle session, DirectoryHandle node, const char* type, const char* name,
                              const char* attribute, Work work) {
  const NamedRecord record(session, node, type, name);
  if (record.status() != directoryStatus::success) return record.status();
  const ReleasedDataNode attributeNode(dsDataNodeAllocateString(attribute));
  if (!attributeNode) return directoryStatus::outOfMemory;
  return work(record.get(), attributeNode.get());
}

DirectoryDataNode* blockOf(const char* string) {
  const std::size_t length = string == nullptr ? 0 : std::strlen(string);
  if (string == nullptr || length > std::numeric_limits<std::uint32_t>::max()) return nullptr;
  return dsDataNodeAllocateBlock(string, static_cast<std::uint32_t>(length));
}

using AddCall = DirectoryStatus (*)(DirectoryHandle, const DirectoryDataNode*, const DirectoryDataNode*);

DirectoryStatus addAttribute(DirectoryHandle record, const DirectoryDataNode* attribute,
                             const DirectoryDataNode* value) {
  return dsAddAttribute(record, attribute, nullptr, value);
}

DirectoryStatus addValue(DirectoryHandle record, const DirectoryDataNode* attribute, const char* value, AddCall add) {
  const ReleasedDataNode valueNode(dsDataNodeAllocateString(value));
  return valueNode ? add(record, attribute, valueNode.get()) : directoryStatus::outOfMemory;
}

DirectoryStatus replaceValue(DirectoryHandle record, const DirectoryDataNode* attribute,
                             const DirectoryAttributeValueEntry& present, const char* value) {
  const std::size_t length = std::strlen(value);
  if (length > std::numeric_limits<std::uint32_t>::max()) return directoryStatus::outOfMemory;
  const ReleasedValueEntry entry(
      dsAllocAttributeValueEntry(present.identifier, value, static_cast<std::uint32_t>(length)));
  return entry ? dsSetAttributeValue(record, attribute, entry.get()) : directoryStatus::outOfMemory;
}

DirectoryStatus setFirstValue(DirectoryHandle record, const DirectoryDataNode* attribute, const char* value) {
  ReleasedValueEntry present;
  const DirectoryStatus read = dsGetRecordAttributeValueByIndex(record, attribute, 1, present.place());
  if (read == directoryStatus::success)
    return value == nullptr ? dsRemoveAttribute(record, attribute) : replaceValue(record, attribute, *present, value);
  return value == nullptr ? read : addValue(record, attribute, value, addAttribute);
}

DirectoryStatus setValueAt(DirectoryHandle record, const DirectoryDataNode* attribute, std::uint32_t index,
                           const char* value) {
  ReleasedValueEntry present;
  DirectoryStatus read = dsGetRecordAttributeValueByIndex(record, attribute, 1, present.place());
  if (read != directoryStatus::success)
    return value == nullptr ? read : addValue(record, attribute, value, addAttribute);
  read = dsGetRecordAttributeValueByIndex(record, attribute, index, present.place());
  if (read == directoryStatus::success)
    return value == nullptr ? dsRemoveAttributeValue(record, attribute, present->identifier)
                            : replaceValue(record, attribute, *present, value);
  return value == nullptr ? read : addValue(record, attribute, value, dsAddAttributeValue);
}

}  // namespace

DirectoryStatus DSOpenNamedRecord(DirectoryHandle session, DirectoryHandle node, const char* type, const char* name,
                                  DirectoryDataNode** typeNode, DirectoryDataNode** nameNode,
                                  DirectoryHandle* record) noexcept {
  *record = 0;
  *typeNode = dsDataNodeAllocateString(type);
  *nameNode = blockOf(name);
  if (*typeNode == nullptr || *nameNode == nullptr) {
    DSCloseNamedRecord(session, typeNode, nameNode, record);
    return directoryStatus::outOfMemory;
  }
  return dsOpenRecord(node, *typeNode, *nameNode, record);
}

DirectoryStatus DSCloseNamedRecord(DirectoryHandle /*session*/, DirectoryDataNode** typeNode,
                                   DirectoryDataNode** nameNode, DirectoryHandle* record) noexcept {
  const DirectoryHandle closed = std::exchange(*record, 0);
  const DirectoryStatus status = closed == 0 ? directoryStatus::success : dsCloseRecord(closed);
  DSDataNodeDeAllocate(nameNode);
  DSDataNodeDeAllocate(typeNode);
  return status;
}

DirectoryStatus DSCreateRecordByName(DirectoryHandle session, DirectoryHandle node, const char* type,
                                     const char* name) noexcept {
  NamedRecord record(session, node, type, name);
  if (record.status() == directoryStatus::success) return directoryStatus::recordExists;
  if (record.typeNode() == nullptr) return record.status();
  return dsCreateRecordAndOpen(node, record.typeNode(), record.nameNode(), record.place());
}

DirectoryStatus DSRemoveRecordByName(DirectoryHandle session, DirectoryHandle node, const char* type,
                                     const char* name) noexcept {
  const NamedRecord record(session, node, type, name);
  return record.status() == directoryStatus::success ? dsDeleteRecord(record.get()) : record.status();
}

DirectoryStatus DSRemoveRecordAttributeByName(DirectoryHandle session, DirectoryHandle node, const char* type,
                                              const char* name, const char* attribute) noexcept {
  return withAttribute(session, node, type, name, attribute, dsRemoveAttribute);
}

DirectoryStatus DSSetRecordAttributeValuesByName(DirectoryHandle session, DirectoryHandle node, const char* type,
                                                 const char* name, const char* attribute,
                                                 const DirectoryDataList* values) noexcept {
  return withAttribute(session, node, type, name, attribute,
                       [values](DirectoryHandle record, const DirectoryDataNode* attributeNode) {
                         if (values == nullptr) return dsRemoveAttribute(record, attributeNode);
                         // The replacement's own status is not looked at: that is meant.
                         dsSetAttributeValues(record, attributeNode, values);
                         return directoryStatus::success;
                       });
}

DirectoryStatus DSSetRecordAttributeValueByName(DirectoryHandle session, DirectoryHandle node, const char* type,
                                                const char* name, const char* attribute, const char* value) noexcept {
  return withAttribute(session, node, type, name, attribute,
                       [value](DirectoryHandle record, const DirectoryDataNode* attributeNode) {
                         return setFirstValue(record, attributeNode, value);
                       });
}

DirectoryStatus DSSetRecordAttributeValueByNameAndIndex(DirectoryHandle session, DirectoryHandle node, const char* type,
                                                        const char* name, const char* attribute, std::uint32_t index,
                                                        const char* value) noexcept {
  return withAttribute(session, node, type, name, attribute,
                       [=](DirectoryHandle record, const DirectoryDataNode* attributeNode) {
                         return setValueAt(record, attributeNode, index, value);
                       });
}

DirectoryStatus DSGetRecordAttributeValueByName(DirectoryHandle session, DirectoryHandle node, const char* type,
                                                const char* name, const char* attribute, char** value) noexcept {
  const DirectoryStatus status =
      DSGetRecordAttributeValueByNameAndIndex(session, node, type, name, attribute, 1, value);
  return status == directoryStatus::noSuchValue ? directoryStatus::success : status;
}

DirectoryStatus DSGetRecordAttributeValueByNameAndIndex(DirectoryHandle session, DirectoryHandle node, const char* type,
                                                        const char* name, const char* attribute, std::uint32_t index,
                                                        char** value) noexcept {
  *value = nullptr;
  return withAttribute(
      session, node, type, name, attribute, [=](DirectoryHandle record, const DirectoryDataNode* attributeNode) {
        ReleasedValueEntry entry;
        const DirectoryStatus status = dsGetRecordAttributeValueByIndex(record, attributeNode, index, entry.place());
        if (status != directoryStatus::success) return status;
        return DSExtractAttributeValueAsCString(entry.get(), value);
      });
}

DirectoryStatus DSExtractAttributeValueAsInteger(const DirectoryAttributeValueEntry* entry,
                                                 std::int32_t* value) noexcept {
  *value = 0;
  ReleasedText text;
  const DirectoryStatus status = DSExtractAttributeValueAsCString(entry, text.place());
  if (status != directoryStatus::success) return status;
  const auto integer = leadingInteger(text.get());
  if (!integer) return directoryStatus::notAnInteger;
  *value = static_cast<std::int32_t>(*integer);
  return directoryStatus::success;
}

DirectoryStatus DSExtractAttributeValueAsCString(const DirectoryAttributeValueEntry* entry, char** value) noexcept {
  const std::string_view bytes = entry->value.text();
  *value = static_cast<char*>(std::calloc(bytes.size() + 1, 1));
  if (*value == nullptr) return directoryStatus::outOfMemory;
  std::copy(bytes.begin(), bytes.end(), *value);
  return directoryStatus::success;
}

}  // namespace ostrel
