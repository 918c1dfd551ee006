// The record operations of the directory service.
#include <span>
#include <vector>

#include "Platform/DirectoryService.h"
#include "Platform/Internal/Directory/Entries.h"
#include "Platform/Internal/Directory/OpenHandles.h"

namespace ostrel {
namespace {

using detail::answered;
using detail::OpenHandles;

using RecordOpener = DirectoryStatus (DirectoryNode::*)(std::string_view, std::string_view,
                                                        const DirectoryIdentityPointer&,
                                                        std::unique_ptr<DirectoryRecord>&);

DirectoryStatus openWith(RecordOpener opener, DirectoryHandle node, const DirectoryDataNode* type,
                         const DirectoryDataNode* name, DirectoryHandle* record) {
  if (record != nullptr) *record = 0;
  if (type == nullptr || name == nullptr || record == nullptr) return directoryStatus::invalidArgument;
  return answered([&]() -> DirectoryStatus {
    auto opened = std::make_shared<detail::OpenRecord>();
    opened->node = node;
    opened->keep = detail::openNode(node);
    if (!opened->keep) return directoryStatus::invalidHandle;
    const DirectoryStatus status =
        (opened->keep->node().*opener)(type->text(), name->text(), opened->keep->identity(), opened->record);
    if (status != directoryStatus::success) return status;
    return detail::handOut(OpenHandles::current().records, std::move(opened), record);
  });
}

// Runs an operation on an open record.
template <class Operation>
DirectoryStatus onRecord(DirectoryHandle record, Operation&& operation) {
  return answered([&]() -> DirectoryStatus {
    const auto opened = OpenHandles::current().records.find(record);
    return opened ? operation(*(*opened)->record) : directoryStatus::invalidHandle;
  });
}

}  // namespace

DirectoryStatus dsOpenRecord(DirectoryHandle node, const DirectoryDataNode* type, const DirectoryDataNode* name,
                             DirectoryHandle* record) noexcept {
  return openWith(&DirectoryNode::openRecord, node, type, name, record);
}

DirectoryStatus dsCreateRecordAndOpen(DirectoryHandle node, const DirectoryDataNode* type,
                                      const DirectoryDataNode* name, DirectoryHandle* record) noexcept {
  return openWith(&DirectoryNode::createRecord, node, type, name, record);
}

DirectoryStatus dsCloseRecord(DirectoryHandle record) noexcept {
  return answered([&]() -> DirectoryStatus {
    return OpenHandles::current().records.take(record) ? directoryStatus::success : directoryStatus::invalidHandle;
  });
}

DirectoryStatus dsDeleteRecord(DirectoryHandle record) noexcept {
  return onRecord(record, [](DirectoryRecord& opened) { return opened.remove(); });
}

DirectoryStatus dsGetRecordAttributeValueByIndex(DirectoryHandle record, const DirectoryDataNode* attribute,
                                                 std::uint32_t index, DirectoryAttributeValueEntry** entry) noexcept {
  if (entry != nullptr) *entry = nullptr;
  if (attribute == nullptr || entry == nullptr || index == 0) return directoryStatus::invalidArgument;
  return onRecord(record, [&](DirectoryRecord& opened) -> DirectoryStatus {
    std::uint32_t identifier = 0;
    std::string bytes;
    const DirectoryStatus status = opened.valueAt(attribute->text(), index, identifier, bytes);
    if (status != directoryStatus::success) return status;
    *entry = detail::makeValueEntry(identifier, bytes);
    return *entry == nullptr ? directoryStatus::outOfMemory : directoryStatus::success;
  });
}

DirectoryStatus dsAddAttribute(DirectoryHandle record, const DirectoryDataNode* attribute, const void*,
                               const DirectoryDataNode* firstValue) noexcept {
  if (attribute == nullptr) return directoryStatus::invalidArgument;
  return onRecord(record, [&](DirectoryRecord& opened) {
    return firstValue == nullptr ? directoryStatus::success : opened.addValue(attribute->text(), firstValue->text());
  });
}

DirectoryStatus dsRemoveAttribute(DirectoryHandle record, const DirectoryDataNode* attribute) noexcept {
  if (attribute == nullptr) return directoryStatus::invalidArgument;
  return onRecord(record, [&](DirectoryRecord& opened) { return opened.removeAttribute(attribute->text()); });
}

DirectoryStatus dsAddAttributeValue(DirectoryHandle record, const DirectoryDataNode* attribute,
                                    const DirectoryDataNode* value) noexcept {
  if (attribute == nullptr || value == nullptr) return directoryStatus::invalidArgument;
  return onRecord(record, [&](DirectoryRecord& opened) { return opened.addValue(attribute->text(), value->text()); });
}

DirectoryStatus dsRemoveAttributeValue(DirectoryHandle record, const DirectoryDataNode* attribute,
                                       std::uint32_t identifier) noexcept {
  if (attribute == nullptr) return directoryStatus::invalidArgument;
  return onRecord(record, [&](DirectoryRecord& opened) { return opened.removeValue(attribute->text(), identifier); });
}

DirectoryStatus dsSetAttributeValue(DirectoryHandle record, const DirectoryDataNode* attribute,
                                    const DirectoryAttributeValueEntry* entry) noexcept {
  if (attribute == nullptr || entry == nullptr) return directoryStatus::invalidArgument;
  return onRecord(record, [&](DirectoryRecord& opened) {
    return opened.replaceValue(attribute->text(), entry->identifier, entry->value.text());
  });
}

DirectoryStatus dsSetAttributeValues(DirectoryHandle record, const DirectoryDataNode* attribute,
                                     const DirectoryDataList* values) noexcept {
  if (attribute == nullptr || values == nullptr) return directoryStatus::invalidArgument;
  return onRecord(record, [&](DirectoryRecord& opened) {
    std::vector<std::string_view> texts;
    for (std::uint32_t index = 0; index < values->count; ++index) texts.push_back(values->items[index]->text());
    return opened.setValues(attribute->text(), texts);
  });
}

}  // namespace ostrel
