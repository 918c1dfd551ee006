#include "AccountNode.h"

#include <algorithm>
#include <charconv>
#include <cstdint>
#include <memory>
#include <set>

#include "Directory/DirectoryMemory.h"
#include "Directory/DirectoryRecords.h"
#include "Directory/DirectorySessions.h"
#include "Directory/RecordListings.h"
#include "Platform/DirectoryNode.h"

namespace ostrel::accounts {
namespace {

constexpr std::uint32_t lowestUserNumber = 1000;  // where Debian begins to number people
constexpr int noMaximum = -1;

struct FreeList {
  void operator()(DirectoryDataList* list) const { DSDataListDeallocate(&list); }
};

DirectoryStatus makeList(const std::vector<std::string>& values, std::unique_ptr<DirectoryDataList, FreeList>& list) {
  list.reset(dsDataListAllocate());
  if (!list) return directoryStatus::outOfMemory;
  for (const std::string& value : values) {
    const DirectoryStatus status = dsAppendStringToListAlloc(list.get(), value.c_str());
    if (status != directoryStatus::success) return status;
  }
  return directoryStatus::success;
}

// The values of an attribute as a listing has them: none, a string, or several.
std::vector<std::string> textsOf(const PlistValue& value) {
  std::vector<std::string> texts;
  if (value.isString()) texts.emplace_back(value.stringValue());
  for (const PlistValue& element : value.elements()) texts.emplace_back(element.stringValue());
  return texts;
}

DirectoryStatus addNumbersInUse(DirectoryHandle session, DirectoryHandle node, std::set<std::uint32_t>& numbers) {
  const PlistValue found = DSGetRecordsByRecordTypeAndAttributeValues(
      session, node, users.type, users.numberAttribute, PlistValue::arrayOf({std::to_string(lowestUserNumber - 1)}),
      directoryMatch::greaterThan, noMaximum);
  const PlistValue records = found.get("recordsArray");
  for (const PlistValue& record : records.elements()) {
    for (const std::string& text : textsOf(record.get(users.numberAttribute))) {
      std::uint32_t number = 0;
      if (std::from_chars(text.data(), text.data() + text.size(), number).ec == std::errc{}) numbers.insert(number);
    }
  }
  return static_cast<DirectoryStatus>(found.get("status").int64Value());
}

// The record of exactly this name, ignoring case.
DirectoryStatus exactRecord(const AccountKind& kind, const PlistValue& nodePath, const std::string& name,
                            const PlistValue& attributes, PlistValue& record) {
  // Both ends given and equal: no beginning or end, but the whole name.
  const PlistValue found =
      DSGetListOfRecords(nodePath, PlistValue::arrayOf({kind.type}), attributes, name, {}, name, 1);
  const auto status = static_cast<DirectoryStatus>(found.get("status").int64Value());
  if (status != directoryStatus::success) return status;
  record = found.get("recordsArray").at(0);
  const std::string folded = foldedCase(name);
  const auto names = textsOf(record.get(directoryName::recordName));
  const bool isIt = std::ranges::any_of(names, [&](const std::string& each) { return foldedCase(each) == folded; });
  return isIt ? directoryStatus::success : directoryStatus::recordNotFound;
}

}  // namespace

AccountNode::AccountNode(std::string path) : path_(std::move(path)) {}

AccountNode::~AccountNode() {
  DSCloseNode(session_, &node_);
  DSCloseDirectoryServices(&session_);
}

DirectoryStatus AccountNode::open() {
  const DirectoryStatus status = DSOpenDirectoryServices(nullptr, 0, nullptr, nullptr, &session_);
  return status == directoryStatus::success ? DSOpenNodeByPath(session_, path_.c_str(), &node_) : status;
}

DirectoryStatus AccountNode::create(const AccountKind& kind, const std::string& name) {
  return DSCreateRecordByName(session_, node_, kind.type.data(), name.c_str());
}

DirectoryStatus AccountNode::remove(const AccountKind& kind, const std::string& name) {
  return DSRemoveRecordByName(session_, node_, kind.type.data(), name.c_str());
}

DirectoryStatus AccountNode::values(const AccountKind& kind, const std::string& name, std::string_view attribute,
                                    std::vector<std::string>& values) const {
  values.clear();
  PlistValue record;
  const DirectoryStatus status =
      exactRecord(kind, path_, name, PlistValue::arrayOf({directoryName::recordName, attribute}), record);
  if (status == directoryStatus::success) values = textsOf(record.get(attribute));
  return status;
}

DirectoryStatus AccountNode::set(const AccountKind& kind, const std::string& name, std::string_view attribute,
                                 const std::vector<std::string>& values) {
  const std::string attributeName(attribute);
  if (values.empty())
    return DSRemoveRecordAttributeByName(session_, node_, kind.type.data(), name.c_str(), attributeName.c_str());
  std::unique_ptr<DirectoryDataList, FreeList> list;
  DirectoryStatus status = makeList(values, list);
  if (status == directoryStatus::success)
    status = DSSetRecordAttributeValuesByName(session_, node_, kind.type.data(), name.c_str(), attributeName.c_str(),
                                              list.get());
  if (status != directoryStatus::success) return status;
  // That call does not say whether the node took the values.
  std::vector<std::string> kept;
  status = this->values(kind, name, attribute, kept);
  if (status != directoryStatus::success) return status;
  return kept == values ? directoryStatus::success : directoryStatus::invalidValue;
}

DirectoryStatus AccountNode::append(const AccountKind& kind, const std::string& name, std::string_view attribute,
                                    const std::string& value) {
  std::vector<std::string> present;
  const DirectoryStatus status = values(kind, name, attribute, present);
  if (status != directoryStatus::success || std::ranges::find(present, value) != present.end()) return status;
  const std::string attributeName(attribute);
  return DSSetRecordAttributeValueByNameAndIndex(session_, node_, kind.type.data(), name.c_str(), attributeName.c_str(),
                                                 UINT32_MAX, value.c_str());
}

DirectoryStatus AccountNode::removeValue(const AccountKind& kind, const std::string& name, std::string_view attribute,
                                         const std::string& value) {
  std::vector<std::string> present;
  const DirectoryStatus status = values(kind, name, attribute, present);
  const auto found = std::ranges::find(present, value);
  if (status != directoryStatus::success || found == present.end()) return status;
  const std::string attributeName(attribute);
  const auto index = static_cast<std::uint32_t>(found - present.begin()) + 1;
  // A listing leaves out what is no text, and somebody else may have changed the record: no other value may go.
  char* there = nullptr;
  const DirectoryStatus read = DSGetRecordAttributeValueByNameAndIndex(session_, node_, kind.type.data(), name.c_str(),
                                                                       attributeName.c_str(), index, &there);
  const bool isThere = there != nullptr && value == there;
  DSDeallocPointer(&there);
  if (!isThere) return read == directoryStatus::success ? directoryStatus::busy : read;
  return DSSetRecordAttributeValueByNameAndIndex(session_, node_, kind.type.data(), name.c_str(), attributeName.c_str(),
                                                 index, nullptr);
}

DirectoryStatus AccountNode::setPassword(const std::string& user, const std::string& password) {
  return DSSetRecordAttributeValueByName(session_, node_, users.type.data(), user.c_str(),
                                         directoryName::password.data(), password.c_str());
}

DirectoryStatus AccountNode::isNumberTaken(const AccountKind& kind, const std::string& number, bool& taken) const {
  const PlistValue found = DSGetRecordsByRecordTypeAndAttributeValues(
      session_, node_, kind.type, kind.numberAttribute, PlistValue::arrayOf({number}), directoryMatch::exact, 1);
  taken = found.get("recordsArray").count() > 0;
  return static_cast<DirectoryStatus>(found.get("status").int64Value());
}

DirectoryStatus AccountNode::freeUserNumber(std::string& number) const {
  std::set<std::uint32_t> numbers;
  DirectoryStatus status = addNumbersInUse(session_, node_, numbers);
  if (status != directoryStatus::success) return status;
  DirectoryHandle everywhere = 0;
  char* path = nullptr;
  status = DSOpenNodeByType(session_, directoryNodeType::search, &everywhere, &path);
  DSDeallocPointer(&path);
  if (status == directoryStatus::success) status = addNumbersInUse(session_, everywhere, numbers);
  DSCloseNode(session_, &everywhere);
  if (status != directoryStatus::success) return status;
  std::uint32_t free = lowestUserNumber;
  for (auto taken = numbers.lower_bound(free); taken != numbers.end() && *taken == free; ++taken) ++free;
  number = std::to_string(free);
  return directoryStatus::success;
}

DirectoryStatus findRecord(const AccountKind& kind, const PlistValue& nodePath, const std::string& name,
                           PlistValue& record) {
  PlistValue attributes = PlistValue::mutableArrayOf({directoryName::allAttributes});
  if (kind.type == directoryName::users) attributes.append("dsAttrTypeVirtual:isAdmin");
  const DirectoryStatus status = exactRecord(kind, nodePath, name, attributes, record);
  if (status != directoryStatus::success) return status;
  const bool hasPassword = record.remove(directoryName::password);
  if (kind.type == directoryName::users) record.set("hasPassword", hasPassword);
  return directoryStatus::success;
}

std::string firstValue(const PlistValue& record, std::string_view attribute) {
  const auto texts = textsOf(record.get(attribute));
  return texts.empty() ? "" : texts.front();
}

}  // namespace ostrel::accounts
