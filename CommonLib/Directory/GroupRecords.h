// One group: read with its members' names, made, changed and deleted.
#pragma once

#include "Containers/Export.h"
#include "Containers/PlistValue.h"
#include "Platform/DirectoryTypes.h"

namespace ostrel {

// Both open a session of their own and work on the node at the path or, with a null path, on the local node. A path or
// name of another kind than a string, or that cannot stand before a NUL, is `outOfMemory` (the path: as null when it is
// no string). Threads: any, several at once. They block on disk or network. Nothing is thrown except std::bad_alloc.

namespace directoryStatus {
inline constexpr DirectoryStatus noIdentifier = -14987;  ///< none could be made for a new group
}

/// Reads the group with exactly this name. `group` becomes a new mutable dictionary, empty when there is no such group
/// (which is no failure). After a failure it holds what was read before.
///
/// It holds the group's record name, primary group id, generated identifier and member attributes, each as a string or,
/// of several values, an array; "dsAttrTypeStandard:GroupMembers", "…:GroupMembership" and "…:NestedGroups" are always
/// arrays. For each entry of GroupMembers, in their order, "dsAttrTypeVirtual:UserMemberNames" and
/// "dsAttrTypeVirtual:UserMemberDistinguishedNames" hold the user's record name and real name, as the search node knows
/// them; the record name stands for a missing real name, the identifier for a user who is not found.
/// "dsAttrTypeVirtual:GroupMemberNames" and "dsAttrTypeVirtual:GroupMemberDistinguishedNames" do so for NestedGroups.
OSTREL_EXPORT DirectoryStatus DSGetGroupRecordInfo(const PlistValue& nodePath, const PlistValue& groupName,
                                                   PlistValue& group);

/// Makes or changes a group, or deletes it when `attributes` is null.
///
/// A new group gets "dsAttrTypeStandard:PrimaryGroupID" and "dsAttrTypeStandard:GeneratedUID" from the dictionary,
/// where these are strings, otherwise the lowest free id from 500 and a new identifier (`noIdentifier` when there is
/// none); failing there ends the call, the group having been made. A group that is there keeps its own. Then every
/// other attribute in the dictionary but the record name becomes what is there: a string is its one value, an array's
/// strings are its values, anything else removes it. All are gone through; the status is the first failure among them,
/// save that storing an array never fails (`DSSetRecordAttributeValuesByName`).
///
/// `invalidArgument`, and nothing done, for attributes that are neither a dictionary nor null.
OSTREL_EXPORT DirectoryStatus DSSetGroupRecordInfo(const PlistValue& nodePath, const PlistValue& groupName,
                                                   const PlistValue& attributes);

}  // namespace ostrel
