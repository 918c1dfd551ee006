// Who belongs to which group, as the nodes of the search path tell it.
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "Containers/Export.h"
#include "Platform/DirectoryTypes.h"

namespace ostrel {

class DirectoryQueryNode;

/// The groups of one user, as the search node knows both. Names are compared to the byte; where several records have a
/// name, the one of the first node on the search path counts. Records are told apart by their identifier: the
/// "GeneratedUID", and where there is none one made of the "UniqueID" (a group's "PrimaryGroupID").
///
/// A user is a member of a group whose "PrimaryGroupID" is the user's, whose "Member" or "GroupMembership" holds a name
/// of the user's, or whose "GroupMembers" holds the user's identifier, and of a group whose "NestedGroups" holds the
/// identifier of such a group, up to 16 groups deep and 1024 groups in all. A name counts only if it leads to this
/// user: no record becomes another's by an alias. For users of the host the name service is asked as well, which knows
/// memberships that groups do not list.
///
/// Threads: one at a time. Every operation may block on disk or network. Groups are looked up once, with the first
/// question.
class OSTREL_EXPORT DirectoryMemberships {
 public:
  /// Absent when the name leads to no user with an identifier, or the directory cannot be asked.
  static std::optional<DirectoryMemberships> ofUser(std::string_view name);

  /// In upper case, 8-4-4-4-12 digits as a rule.
  const std::string& identifier() const { return identifier_; }
  /// False also when the group is unknown or has no identifier, or the directory cannot be asked.
  bool include(std::string_view group);

 private:
  DirectoryMemberships() = default;
  void lookUpGroups();
  void lookUpHostGroups(const std::string& name);
  bool addGroups(std::string_view attribute, std::uint32_t match, const std::string& value);

  std::shared_ptr<DirectoryQueryNode> node_;
  std::string identifier_;
  std::string primaryGroup_;
  std::vector<std::string> names_;
  std::optional<std::vector<std::string>> groups_;  ///< identifiers; absent until they are looked up
};

/// The identifier of a user record with this "GeneratedUID" and "UniqueID" ("" where it has none); "" when neither
/// makes one.
OSTREL_EXPORT std::string directoryUserIdentifier(std::string_view generatedUID, std::string_view uniqueID);

}  // namespace ostrel
