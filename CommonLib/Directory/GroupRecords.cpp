#include "Directory/GroupRecords.h"

#include <optional>
#include <string>
#include <vector>

#include "Directory/DirectoryIdentifiers.h"
#include "Directory/DirectoryRecords.h"
#include "Directory/Internal/GroupMembers.h"
#include "Directory/Internal/OpenedNode.h"
#include "Directory/Internal/RecordDictionaries.h"
#include "Directory/Internal/Utf8Text.h"

namespace ostrel {
namespace {

using detail::MemberRecords;
using detail::OpenedNode;
using detail::ReleasedList;
using detail::utf8Text;

constexpr const char* groupType = directoryName::groups.data();

// Reading.

DirectoryStatus readAttributes(DirectoryHandle node, const std::string& name, PlistValue& group) {
  if (name == directoryName::allRecords) return directoryStatus::success;  // no name, it would ask for any group
  const ReleasedList names(dsBuildListFromStringsAlloc(name.c_str(), nullptr));
  const ReleasedList types(dsBuildListFromStringsAlloc(groupType, nullptr));
  const ReleasedList attributes(
      dsBuildListFromStringsAlloc(directoryName::recordName.data(), directoryName::primaryGroupID.data(),
                                  directoryName::groupMembership.data(), directoryName::groupMembers.data(),
                                  directoryName::nestedGroups.data(), directoryName::generatedUID.data(), nullptr));
  if (!names || !types || !attributes) return directoryStatus::outOfMemory;
  detail::RecordCollector collector(1);
  const DirectoryStatus status =
      collector.collect(node, 1, [&](DirectoryDataBuffer* buffer, std::uint32_t* count, DirectoryHandle* continuation) {
        return dsGetRecordList(node, buffer, names.get(), directoryMatch::exact, types.get(), attributes.get(), count,
                               continuation);
      });
  const PlistValue records = collector.takeRecords();
  if (status == directoryStatus::success && records.count() > 0) group = records.at(0);
  return status;
}

void wrapMembers(PlistValue& group) {
  for (const auto attribute :
       {directoryName::groupMembers, directoryName::groupMembership, directoryName::nestedGroups}) {
    const PlistValue value = group.get(attribute);
    if (value.isString()) group.set(attribute, PlistValue::mutableArrayOf({value}));
  }
}

void setNames(PlistValue& group, const MemberRecords& records, const PlistValue& members, std::string_view namesKey,
              std::string_view realNamesKey) {
  if (members.count() == 0) return;
  PlistValue names;
  PlistValue realNames;
  records.name(members, names, realNames);
  group.set(namesKey, names);
  group.set(realNamesKey, realNames);
}

// Members may live on other nodes than the group.
DirectoryStatus nameMembers(DirectoryHandle session, PlistValue& group) {
  detail::ReleasedNode search;
  detail::ReleasedText path;
  DirectoryStatus status = DSOpenNodeByType(session, directoryNodeType::search, search.place(), path.place());
  if (status != directoryStatus::success) return status;
  const PlistValue users = group.get(directoryName::groupMembers);
  const PlistValue groups = group.get(directoryName::nestedGroups);
  MemberRecords userRecords(directoryName::users, directoryName::uniqueID);
  MemberRecords groupRecords(directoryName::groups, directoryName::primaryGroupID);
  status = userRecords.find(session, search.get(), users);
  if (status == directoryStatus::success) status = groupRecords.find(session, search.get(), groups);
  if (status != directoryStatus::success) return status;
  setNames(group, userRecords, users, "dsAttrTypeVirtual:UserMemberNames",
           "dsAttrTypeVirtual:UserMemberDistinguishedNames");
  setNames(group, groupRecords, groups, "dsAttrTypeVirtual:GroupMemberNames",
           "dsAttrTypeVirtual:GroupMemberDistinguishedNames");
  return status;
}

// Writing.

// A group being written.
class GroupWriter {
 public:
  GroupWriter(const OpenedNode& opened, std::optional<std::string> name) : opened_(opened), name_(std::move(name)) {}

  DirectoryStatus remove() const {
    return DSRemoveRecordByName(opened_.session(), opened_.node(), groupType, nameText());
  }
  DirectoryStatus create() const {
    return DSCreateRecordByName(opened_.session(), opened_.node(), groupType, nameText());
  }

  DirectoryStatus setIdentity(const PlistValue& attributes) const {
    const PlistValue number = attributes.get(directoryName::primaryGroupID);
    const DirectoryStatus status =
        setIdentifier(directoryName::primaryGroupID,
                      number.isString() ? number : DSGenerateLegacyGID(opened_.session(), opened_.node()));
    if (status != directoryStatus::success) return status;
    const PlistValue identifier = attributes.get(directoryName::generatedUID);
    return setIdentifier(directoryName::generatedUID,
                         identifier.isString() ? identifier : DSGenerateUniqueIdentifier());
  }

  // The first failure of all.
  DirectoryStatus setAttributes(const PlistValue& attributes) const {
    DirectoryStatus first = directoryStatus::success;
    for (const PlistEntry& entry : attributes.entries()) {
      const std::string_view key = entry.keyText();
      if (key == directoryName::recordName || key == directoryName::primaryGroupID ||
          key == directoryName::generatedUID)
        continue;
      const DirectoryStatus status = replace(entry.key, entry.value);
      if (first == directoryStatus::success) first = status;
    }
    return first;
  }

 private:
  const char* nameText() const { return name_ ? name_->c_str() : nullptr; }

  DirectoryStatus setIdentifier(std::string_view attribute, const PlistValue& value) const {
    return value.isNull() ? directoryStatus::noIdentifier : setText(attribute.data(), value);
  }

  DirectoryStatus replace(const PlistValue& attribute, const PlistValue& value) const {
    const auto name = utf8Text(attribute);
    if (!name) return directoryStatus::outOfMemory;
    const DirectoryStatus removed =
        DSRemoveRecordAttributeByName(opened_.session(), opened_.node(), groupType, nameText(), name->c_str());
    DirectoryStatus set = directoryStatus::success;
    if (value.isString()) set = setText(name->c_str(), value);
    if (value.isArray()) set = setTexts(name->c_str(), value);
    return removed == directoryStatus::success ? set : removed;
  }

  // A text that cannot stand before a NUL is not cut, but refused.
  DirectoryStatus setText(const char* attribute, const PlistValue& value) const {
    const auto text = utf8Text(value);
    if (!text) return directoryStatus::outOfMemory;
    return DSSetRecordAttributeValueByName(opened_.session(), opened_.node(), groupType, nameText(), attribute,
                                           text->c_str());
  }

  DirectoryStatus setTexts(const char* attribute, const PlistValue& values) const {
    std::vector<std::string> texts;
    for (const PlistValue& value : values.elements()) {
      if (!value.isString()) continue;
      auto text = utf8Text(value);
      if (!text) return directoryStatus::outOfMemory;
      texts.push_back(std::move(*text));
    }
    const ReleasedList list(detail::makeList(texts));
    if (!list) return directoryStatus::outOfMemory;
    return DSSetRecordAttributeValuesByName(opened_.session(), opened_.node(), groupType, nameText(), attribute,
                                            list.get());
  }

  const OpenedNode& opened_;
  const std::optional<std::string> name_;
};

}  // namespace

DirectoryStatus DSGetGroupRecordInfo(const PlistValue& nodePath, const PlistValue& groupName, PlistValue& group) {
  const auto name = utf8Text(groupName);
  // NOLINTNEXTLINE(performance-unnecessary-copy-initialization): `group` may be the same object
  const PlistValue path = nodePath;
  group = PlistValue::mutableDictionary();
  OpenedNode opened;
  DirectoryStatus status = opened.open(path, directoryNodeType::local);
  if (status != directoryStatus::success) return status;
  status = name ? readAttributes(opened.node(), *name, group) : directoryStatus::outOfMemory;
  if (status != directoryStatus::success || group.count() == 0) return status;
  wrapMembers(group);
  return nameMembers(opened.session(), group);
}

DirectoryStatus DSSetGroupRecordInfo(const PlistValue& nodePath, const PlistValue& groupName,
                                     const PlistValue& attributes) {
  if (!attributes.isNull() && !attributes.isDictionary()) return directoryStatus::invalidArgument;
  OpenedNode opened;
  const DirectoryStatus status = opened.open(nodePath, directoryNodeType::local);
  if (status != directoryStatus::success) return status;
  const GroupWriter group(opened, utf8Text(groupName));
  if (attributes.isNull()) return group.remove();
  const DirectoryStatus created = group.create();
  if (created != directoryStatus::success && created != directoryStatus::recordExists) return created;
  const DirectoryStatus identified =
      created == directoryStatus::success ? group.setIdentity(attributes) : directoryStatus::success;
  return identified == directoryStatus::success ? group.setAttributes(attributes) : identified;
}

}  // namespace ostrel
