#include <cstring>
#include <string>
#include <string_view>

#include "Directory/DirectoryRecords.h"
#include "Directory/DirectorySessions.h"
#include "Directory/Internal/OpenedNode.h"
#include "Directory/Internal/RecordDictionaries.h"
#include "Directory/Internal/Released.h"
#include "Directory/Internal/SearchPath.h"
#include "Directory/Internal/Utf8Text.h"

namespace ostrel {
namespace {

using detail::ReleasedAttributeEntry;
using detail::ReleasedAttributes;
using detail::ReleasedBuffer;
using detail::ReleasedList;
using detail::ReleasedNode;
using detail::ReleasedText;
using detail::ReleasedValueEntry;
using detail::ReleasedValues;

// What a node answers about itself, a bufferful at a time.
class NodeInformation {
 public:
  NodeInformation(DirectoryHandle node, DirectoryDataList* attributes)
      : node_(node), asked_(attributes), buffer_(dsDataBufferAllocate(detail::answerCapacity)), continuation_(node) {}

  DirectoryStatus ask() {
    if (!asked_ || !buffer_) return directoryStatus::outOfMemory;
    return dsGetDirNodeInfo(node_, asked_.get(), buffer_.get(), &count_, attributes_.place(), continuation_.place());
  }
  // The same where one attribute was asked for, which must be there.
  DirectoryStatus askForOne(ReleasedValues& values, ReleasedAttributeEntry& entry) {
    const DirectoryStatus status = ask();
    if (status != directoryStatus::success) return status;
    return count_ == 0 ? directoryStatus::noSuchAttribute : attribute(1, values, entry);
  }
  bool hasMore() const { return static_cast<bool>(continuation_); }
  std::uint32_t count() const { return count_; }

  DirectoryStatus attribute(std::uint32_t index, ReleasedValues& values, ReleasedAttributeEntry& entry) const {
    return dsGetAttributeEntry(node_, buffer_.get(), attributes_.get(), index, values.place(), entry.place());
  }
  DirectoryStatus value(std::uint32_t index, const ReleasedValues& values, ReleasedValueEntry& entry) const {
    return dsGetAttributeValue(node_, buffer_.get(), index, values.get(), entry.place());
  }

 private:
  DirectoryHandle node_;
  ReleasedList asked_;
  ReleasedBuffer buffer_;
  ReleasedAttributes attributes_;
  detail::ReleasedContinuation continuation_;
  std::uint32_t count_ = 0;
};

// Gives each entry of the search path, and its position from 0, to `visit` until that is true.
template <class Visit>
DirectoryStatus walkSearchPath(DirectoryHandle session, Visit visit) {
  ReleasedNode node;
  ReleasedText path;
  DirectoryStatus status = DSOpenNodeByType(session, directoryNodeType::search, node.place(), path.place());
  if (status != directoryStatus::success) return status;
  NodeInformation information(node.get(), dsBuildListFromStringsAlloc(directoryName::searchPath.data(), nullptr));
  long position = 0;
  do {
    ReleasedValues values;
    ReleasedAttributeEntry attribute;
    status = information.askForOne(values, attribute);
    if (status != directoryStatus::success) return status;
    for (std::uint32_t index = 1; index <= attribute->valueCount; ++index, ++position) {
      ReleasedValueEntry value;
      status = information.value(index, values, value);
      if (status != directoryStatus::success) return status;
      if (value->value.length == 0) return directoryStatus::nodeNotFound;
      if (visit(*value, position)) return directoryStatus::success;
    }
  } while (information.hasMore());
  return directoryStatus::success;
}

DirectoryStatus firstInSearchPath(DirectoryHandle session, char** firstEntry) {
  DirectoryStatus copied = directoryStatus::nodeNotFound;
  const DirectoryStatus status = walkSearchPath(session, [&](const DirectoryAttributeValueEntry& entry, long) {
    copied = DSExtractAttributeValueAsCString(&entry, firstEntry);
    return true;
  });
  return status == directoryStatus::success ? copied : status;
}

// The names to ask for; null without memory.
DirectoryDataList* namesToAsk(const PlistValue& attributes) {
  if (!detail::utf8Text(attributes.at(0)))
    return dsBuildListFromStringsAlloc(directoryName::allAttributes.data(), nullptr);
  ReleasedList names(dsDataListAllocate());
  for (const PlistValue& attribute : attributes.elements()) {
    const auto name = detail::utf8Text(attribute);
    if (!names || !name || name->starts_with(detail::virtualPrefix)) continue;
    if (dsAppendStringToListAlloc(names.get(), name->c_str()) != directoryStatus::success) return nullptr;
  }
  return names.take();
}

DirectoryStatus storeAttribute(const NodeInformation& information, std::uint32_t index, PlistValue& result) {
  ReleasedValues values;
  ReleasedAttributeEntry attribute;
  DirectoryStatus status = information.attribute(index, values, attribute);
  if (status != directoryStatus::success) return status;
  PlistValue texts = PlistValue::mutableArray();
  for (std::uint32_t at = 1; at <= attribute->valueCount; ++at) {
    ReleasedValueEntry value;
    status = information.value(at, values, value);
    if (status != directoryStatus::success) return status;
    texts.append(PlistValue::stringFromUTF8(value->value.text()));
  }
  if (texts.count() > 0) result.set(attribute->name, texts);
  return directoryStatus::success;
}

DirectoryStatus storeInformation(DirectoryHandle node, const PlistValue& attributes, PlistValue& result) {
  NodeInformation information(node, namesToAsk(attributes));
  do {
    DirectoryStatus status = information.ask();
    for (std::uint32_t index = 1; status == directoryStatus::success && index <= information.count(); ++index)
      status = storeAttribute(information, index, result);
    if (status != directoryStatus::success) return status;
  } while (information.hasMore());
  return directoryStatus::success;
}

}  // namespace

namespace detail {

DirectoryStatus levelInSearchPath(DirectoryHandle session, const char* nodePath, long& level) noexcept {
  level = -1;
  const std::string_view path = nodePath == nullptr ? "" : nodePath;
  return walkSearchPath(session, [&](const DirectoryAttributeValueEntry& entry, long position) {
    // A leading part is enough, also within a component: callers count on that.
    if (!path.starts_with(entry.value.text())) return false;
    level = position;
    return true;
  });
}

}  // namespace detail

DirectoryStatus DSGetNodeLevelInSearchList(DirectoryHandle session, const char* nodePath, long* level,
                                           char** firstEntry) noexcept {
  if (level != nullptr) *level = -1;
  if (firstEntry != nullptr) {
    *firstEntry = nullptr;
    return firstInSearchPath(session, firstEntry);
  }
  long found = -1;
  const DirectoryStatus status = detail::levelInSearchPath(session, nodePath, found);
  if (status != directoryStatus::success) return status;
  if (level != nullptr) *level = found;
  return found < 0 ? directoryStatus::nodeNotFound : directoryStatus::success;
}

DirectoryStatus DSIsNodeWritable(DirectoryHandle /*session*/, DirectoryHandle node, long* flag) noexcept {
  *flag = 0;
  NodeInformation information(node, dsBuildListFromStringsAlloc(directoryName::readOnlyNode.data(), nullptr));
  ReleasedValues values;
  ReleasedAttributeEntry attribute;
  DirectoryStatus status = information.askForOne(values, attribute);
  if (status != directoryStatus::success) return status;
  ReleasedValueEntry value;
  status = information.value(1, values, value);
  if (status != directoryStatus::success) return status;
  if (value->value.length == 0) return directoryStatus::emptyValue;
  // The sense is meant: 1 stands for "ReadOnly".
  *flag = value->value.text() == "ReadOnly" ? 1 : 0;
  return directoryStatus::success;
}

PlistValue DSGetNodeInfo(const PlistValue& nodePath, const PlistValue& attributes) {
  PlistValue result = PlistValue::mutableDictionary();
  detail::OpenedNode opened;
  DirectoryStatus status = opened.open(nodePath, directoryNodeType::search);
  if (status == directoryStatus::success) status = storeInformation(opened.node(), attributes, result);
  result.set("status", status);
  return result;
}

}  // namespace ostrel
