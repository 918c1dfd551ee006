#include "Platform/DirectoryMembership.h"

#include <algorithm>
#include <charconv>
#include <cstdint>
#include <utility>

#include "Containers/Format.h"
#include "Platform/DirectoryQuery.h"
#include "Platform/UserDatabase.h"

namespace ostrel {
namespace {

constexpr std::size_t deepestNesting = 16;
constexpr std::size_t mostGroups = 1024;

constexpr std::string_view userBeginning = "FFFFEEEE-DDDD-CCCC-BBBB-AAAA";
constexpr std::string_view groupBeginning = "AAAABBBB-CCCC-DDDD-EEEE-FFFF";

std::string identifierFrom(std::string_view generatedUID, std::string_view beginning, std::string_view number) {
  std::string identifier(generatedUID);
  std::ranges::transform(identifier, identifier.begin(),
                         [](char c) { return c >= 'a' && c <= 'z' ? static_cast<char>(c - 'a' + 'A') : c; });
  if (!identifier.empty()) return identifier;
  std::uint32_t value = 0;
  const auto [end, error] = std::from_chars(number.data(), number.data() + number.size(), value);
  return error == std::errc() && end == number.data() + number.size() ? format("%s%08X", beginning, value) : "";
}

std::string firstValue(const PlistValue& record, std::string_view attribute) {
  const PlistValue values = record.get(attribute);
  return values.count() == 0 ? "" : std::string(values.elements()[0].stringValue());
}

std::string groupIdentifier(const PlistValue& record) {
  return identifierFrom(firstValue(record, directoryName::generatedUID), groupBeginning,
                        firstValue(record, directoryName::primaryGroupID));
}

std::string userIdentifier(const PlistValue& record) {
  return directoryUserIdentifier(firstValue(record, directoryName::generatedUID),
                                 firstValue(record, directoryName::uniqueID));
}

DirectoryQuery queryFor(std::string_view type, std::string_view attribute, std::uint32_t match, std::string_view value,
                        std::size_t maximum) {
  return {{std::string(type)},
          std::string(attribute),
          match,
          std::string(value),
          {std::string(directoryName::recordName), std::string(directoryName::generatedUID),
           std::string(directoryName::uniqueID), std::string(directoryName::primaryGroupID)},
          maximum};
}

/// The record that a name leads to; null when there is none.
PlistValue recordNamed(const DirectoryQueryNode& node, std::string_view type, std::string_view name) {
  if (name == directoryName::allRecords) return {};
  const auto found = node.results(queryFor(type, directoryName::recordName, directoryMatch::exact, name, 1));
  return found.empty() ? PlistValue() : found.front().attributes;
}

}  // namespace

std::string directoryUserIdentifier(std::string_view generatedUID, std::string_view uniqueID) {
  return identifierFrom(generatedUID, userBeginning, uniqueID);
}

std::optional<DirectoryMemberships> DirectoryMemberships::ofUser(std::string_view name) {
  const auto session = DirectorySession::defaultSession();
  DirectoryMemberships user;
  if (session) user.node_ = session->nodeOfType(directoryNodeType::search);
  if (!user.node_) return std::nullopt;
  const PlistValue record = recordNamed(*user.node_, directoryName::users, name);
  user.identifier_ = userIdentifier(record);
  if (user.identifier_.empty()) return std::nullopt;
  user.primaryGroup_ = firstValue(record, directoryName::primaryGroupID);
  user.names_.emplace_back(name);
  const PlistValue names = record.get(directoryName::recordName);
  for (const PlistValue& alias : names.elements()) {
    if (alias == PlistValue(name)) continue;
    const PlistValue other = recordNamed(*user.node_, directoryName::users, alias.stringValue());
    if (userIdentifier(other) == user.identifier_) user.names_.emplace_back(alias.stringValue());
  }
  return user;
}

bool DirectoryMemberships::include(std::string_view group) {
  if (!groups_) lookUpGroups();
  if (groups_->empty()) return false;
  const std::string identifier = groupIdentifier(recordNamed(*node_, directoryName::groups, group));
  return !identifier.empty() && std::ranges::find(*groups_, identifier) != groups_->end();
}

/// From the user upwards: each step finds the groups in which those of the step before are nested. A group that was
/// found before is not followed again, so circles end.
void DirectoryMemberships::lookUpGroups() {
  groups_.emplace();
  bool isWhole =
      primaryGroup_.empty() || addGroups(directoryName::primaryGroupID, directoryMatch::exact, primaryGroup_);
  for (const std::string& name : names_) {
    isWhole = isWhole && addGroups(directoryName::member, directoryMatch::exact, name) &&
              addGroups(directoryName::groupMembership, directoryMatch::exact, name);
    lookUpHostGroups(name);
  }
  isWhole = isWhole && addGroups(directoryName::groupMembers, directoryMatch::exactIgnoringCase, identifier_);
  std::size_t begin = 0;
  for (std::size_t depth = 0; isWhole && depth < deepestNesting && begin < groups_->size(); ++depth) {
    for (const std::size_t end = groups_->size(); isWhole && begin < end; ++begin) {
      const std::string nested = (*groups_)[begin];
      isWhole = addGroups(directoryName::nestedGroups, directoryMatch::exactIgnoringCase, nested);
    }
  }
  if (!isWhole) groups_->clear();  // half an answer is none
}

void DirectoryMemberships::lookUpHostGroups(const std::string& name) {
  const auto user = UserDatabase::current().userNamed(name);
  if (!user || directoryUserIdentifier("", std::to_string(user->uid)) != identifier_) return;
  for (const gid_t group : UserDatabase::current().groupsOfUser(name)) {
    std::string identifier = identifierFrom("", groupBeginning, std::to_string(group));
    if (std::ranges::find(*groups_, identifier) == groups_->end()) groups_->push_back(std::move(identifier));
  }
}

/// Adds the groups that have this value. False when they cannot all be told.
bool DirectoryMemberships::addGroups(std::string_view attribute, std::uint32_t match, const std::string& value) {
  if (value == directoryName::allRecords) return true;  // would ask for every group
  DirectoryStatus status = directoryStatus::success;
  const auto found = node_->results(queryFor(directoryName::groups, attribute, match, value, mostGroups + 1), &status);
  for (const DirectoryResult& group : found) {
    std::string identifier = groupIdentifier(group.attributes);
    if (!identifier.empty() && std::ranges::find(*groups_, identifier) == groups_->end())
      groups_->push_back(std::move(identifier));
  }
  return status == directoryStatus::success && groups_->size() <= mostGroups;
}

}  // namespace ostrel
