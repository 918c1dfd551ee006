// Who belongs to a group: kept by name and by generated identifier, so that either kind of reader finds it.
#pragma once

#include <string>
#include <vector>

#include "AccountNode.h"

namespace ostrel::accounts {

/// The user as groups name it.
struct GroupMember {
  std::vector<std::string> names;  ///< the short name first
  std::string identifier;          ///< generated; "" when unknown
};

/// The user of a name on the node or, when it has none, on the search path. `recordNotFound` when there is none.
DirectoryStatus findMember(const AccountNode& node, const std::string& user, GroupMember& member);

DirectoryStatus addMember(AccountNode& node, const std::string& group, const GroupMember& member);
/// Success also when it was none.
DirectoryStatus removeMember(AccountNode& node, const std::string& group, const GroupMember& member);

/// Takes the member out of every group of the node.
DirectoryStatus removeFromAllGroups(AccountNode& node, const GroupMember& member);

}  // namespace ostrel::accounts
