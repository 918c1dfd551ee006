#include "GroupMembers.h"

#include <set>

#include "Directory/RecordListings.h"

namespace ostrel::accounts {
namespace {

constexpr int noMaximum = -1;

// Each attribute with what stands in it for the member.
struct Place {
  std::string_view attribute;
  std::vector<std::string> values;
};

std::vector<Place> placesOf(const GroupMember& member) {
  std::vector<Place> places = {{directoryName::member, member.names}, {directoryName::groupMembership, member.names}};
  if (!member.identifier.empty()) places.push_back({directoryName::groupMembers, {member.identifier}});
  return places;
}

DirectoryStatus addGroupsWith(const AccountNode& node, const Place& place, std::set<std::string>& found) {
  PlistValue values = PlistValue::mutableArray();
  for (const std::string& value : place.values) values.append(value);
  const PlistValue listing = DSGetRecordsByRecordTypeAndAttributeValues(
      node.session(), node.node(), groups.type, place.attribute, values, directoryMatch::exact, noMaximum);
  const PlistValue records = listing.get("recordsArray");
  for (const PlistValue& record : records.elements()) found.insert(firstValue(record, directoryName::recordName));
  return static_cast<DirectoryStatus>(listing.get("status").int64Value());
}

}  // namespace

DirectoryStatus findMember(const AccountNode& node, const std::string& user, GroupMember& member) {
  PlistValue record;
  DirectoryStatus status = findRecord(users, node.path(), user, record);
  if (status == directoryStatus::recordNotFound) status = findRecord(users, {}, user, record);
  if (status != directoryStatus::success) return status;
  const PlistValue value = record.get(directoryName::recordName);
  const PlistValue names = value.isArray() ? value : PlistValue::arrayOf({value});
  for (const PlistValue& name : names.elements()) member.names.emplace_back(name.stringValue());
  member.identifier = firstValue(record, directoryName::generatedUID);
  return directoryStatus::success;
}

DirectoryStatus addMember(AccountNode& node, const std::string& group, const GroupMember& member) {
  // A node that keeps one list for all three has it in each after the first.
  for (const Place& place : placesOf(member)) {
    const DirectoryStatus status = node.append(groups, group, place.attribute, place.values.front());
    if (status != directoryStatus::success) return status;
  }
  return directoryStatus::success;
}

DirectoryStatus removeMember(AccountNode& node, const std::string& group, const GroupMember& member) {
  for (const Place& place : placesOf(member))
    for (const std::string& value : place.values) {
      const DirectoryStatus status = node.removeValue(groups, group, place.attribute, value);
      if (status != directoryStatus::success) return status;
    }
  return directoryStatus::success;
}

DirectoryStatus removeFromAllGroups(AccountNode& node, const GroupMember& member) {
  std::set<std::string> found;
  for (const Place& place : placesOf(member)) {
    const DirectoryStatus status = addGroupsWith(node, place, found);
    if (status != directoryStatus::success) return status;
  }
  for (const std::string& group : found) {
    const DirectoryStatus status = removeMember(node, group, member);
    if (status != directoryStatus::success) return status;
  }
  return directoryStatus::success;
}

}  // namespace ostrel::accounts
