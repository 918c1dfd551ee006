// Listings of users, groups and other records: as plain records for C-like callers, and as response dictionaries.
#pragma once

#include <cstdint>

#include "Containers/Export.h"
#include "Containers/PlistValue.h"
#include "Platform/DirectoryTypes.h"

namespace ostrel {

// What all listings share:
// - Threads: any, several at once. They block on the disk or the network of the node that is asked.
// - Match types are those of `directoryMatch`. A name "dsRecordsAll" stands for every record.
// - Answers of the node are read in pieces of 256 KiB; a record larger than that is read into a buffer that fits.
// - Nothing throws.

/// A user. Strings are NUL-terminated and the record's own, null where the user has no such attribute. Of an attribute
/// with several values the last one counts.
struct DSUserRecord {
  char* name;                   ///< "dsAttrTypeStandard:RecordName"
  std::int32_t uniqueID;        ///< "dsAttrTypeStandard:UniqueID"
  std::int32_t primaryGroupID;  ///< "dsAttrTypeStandard:PrimaryGroupID"
  char* realName;               ///< "dsAttrTypeStandard:RealName"
  char* home;                   ///< "dsAttrTypeNative:home"
  char* homeLocation;           ///< "dsAttrTypeNative:home_loc"
  char* shell;                  ///< "dsAttrTypeStandard:UserShell"
  std::int32_t hasPassword;     ///< 1 when there is a password value, else 0
  char* password;               ///< "dsAttrTypeStandard:Password"
};

/// A group; as `DSUserRecord`, with all values of "dsAttrTypeStandard:Member".
struct DSGroupRecord {
  char* name;            ///< "dsAttrTypeStandard:RecordName"
  std::int32_t groupID;  ///< "dsAttrTypeStandard:PrimaryGroupID"
  char* realName;        ///< "dsAttrTypeStandard:RealName"
  char** members;        ///< ends with a null pointer; null itself for a group without members
  std::int32_t hasPassword;
  char* password;  ///< "dsAttrTypeStandard:Password"
};

// Plain records.
//
// Each lists the records of a node whose name matches. A null name asks for all, and so does "*" with any match type
// but exact. `first` and `last` pick some of them by their number, counted from 0 in the node's order; a negative
// `last` is no bound. `records` receives one block with `count` of them, which the caller gives back with the
// deallocator; null when there are none. `total` (may be null) receives how many match, picked or not. The session is
// the one in which the node is open.
//
// On a failure the outputs are null and 0. `invalidArgument` without an output; -14243 when an identifier holds no
// decimal integer; -14050 when memory runs out; otherwise what the directory service answers.

/// Users and user aliases.
OSTREL_EXPORT DirectoryStatus DSGetUserRecordsInfo(DirectoryHandle session, DirectoryHandle node, const char* name,
                                                   std::uint32_t match, long first, long last, DSUserRecord** records,
                                                   long* count, long* total = nullptr) noexcept;
/// Groups and group aliases.
OSTREL_EXPORT DirectoryStatus DSGetGroupRecordsInfo(DirectoryHandle session, DirectoryHandle node, const char* name,
                                                    std::uint32_t match, long first, long last, DSGroupRecord** records,
                                                    long* count, long* total = nullptr) noexcept;
/// The names of records of any one type.
OSTREL_EXPORT DirectoryStatus DSGetAnyRecordsInfo(DirectoryHandle session, DirectoryHandle node, const char* recordType,
                                                  const char* name, std::uint32_t match, long first, long last,
                                                  char*** names, long* count, long* total = nullptr) noexcept;

/// Free the records with all that they hold, and clear the pointer and the count. Null is harmless everywhere below.
OSTREL_EXPORT void DSDeallocUserRecs(DSUserRecord** records, long* count) noexcept;
/// The same, but the count stays as it was: that is meant.
OSTREL_EXPORT void DSDeallocGroupRecs(DSGroupRecord** records, long count) noexcept;
OSTREL_EXPORT void DSDeallocAnyRecs(char*** names, long* count) noexcept;

/// Free what one record holds, and clear its pointers.
OSTREL_EXPORT void DSDeallocUserRecFields(DSUserRecord* record) noexcept;
OSTREL_EXPORT void DSDeallocGroupRecFields(DSGroupRecord* record) noexcept;
OSTREL_EXPORT void DSDeallocAnyRecFields(char** name) noexcept;

// Response dictionaries.
//
// A record is a dictionary from attribute name to value: a string for one value, an array of strings for several;
// attributes without values are left out, and so are values that are no UTF-8. Arguments of another kind than the one
// named count as null. `maximum` is how many records to list at most, a negative number being no bound.
//
// The answer always holds "status", a directory status as a number. Records, arrays and the answer are mutable; arrays
// that were given are in it as they are. When memory runs out the answer holds "status" = -14050 alone.

/// The records of the given types (strings; by default users) with the given attributes (by default the record name)
/// whose names match: on the node with this path or, with a null path, on the search node. Alias types are left out.
///
/// The first of these decides about the names: both ends given and the same: exactly that name; names that start with
/// `startsWith`; that contain `contains`; that end with `endsWith`; all. All compare ignoring case. An empty string
/// and "*" are as good as null.
///
/// `maximum` is 256 by default. "dsAttrTypeVirtual:isAdmin" among the attributes of a listing of users marks with true
/// under that name those who are members of the group "admin" of the same node, by name or by primary group.
///
/// Keys: "recordTypesArray" and, unless empty, "startsWithName" and "containsName", as they were given; "recordsArray";
/// "nodePath", when the search node was asked; "nbRecords"; "moreRecords", a boolean: whether more records match;
/// "status". After a failure there is "status" alone. `reserved` is not used.
OSTREL_EXPORT PlistValue DSGetListOfRecords(const PlistValue& nodePath, const PlistValue& recordTypes,
                                            const PlistValue& attributes, const PlistValue& startsWith,
                                            const PlistValue& contains, const PlistValue& endsWith,
                                            const PlistValue& maximum = {}, const PlistValue& reserved = {}) noexcept;

/// The records of the given types with the given attributes (by default the record name) that match by name or
/// identifier, without the system's own accounts unless asked for. Node as for `DSGetListOfRecords`.
///
/// `patternKey` is one of "nameIs", "nameContains", "nameStartsWith", "nameEndsWith" (ignoring case), "idContains",
/// "idIs", "idIsGreaterThan", "idIsLessThan"; "commentContains" compares the identifier too: that is meant. The
/// identifier is the group id when the first type is groups, else the user id. A `patternText` that is null, empty or
/// "*" asks for all. "+returnSystemAccounts" behind the key lists system accounts of those of users and groups that are
/// among the types; docs/directory.md tells which they are.
///
/// `maximum` is 256 by default and for 0. Marking of administrators as in `DSGetListOfRecords`.
///
/// Keys: "recordTypesArray", the types without aliases; "recordsArray"; "patternText" and "patternKey", unless empty,
/// the key without what stood behind "+"; "nodePath", when one was given; "nbRecords"; "nbSkippedRecords", how many
/// were left out; "moreRecords", always false; "status", always 0. A failure, and a search that finds nothing, give
/// "status" alone. `reserved` is not used.
OSTREL_EXPORT PlistValue DSGetValueMatchedListOfRecords(const PlistValue& nodePath, const PlistValue& recordTypes,
                                                        const PlistValue& attributes, const PlistValue& patternKey,
                                                        const PlistValue& patternText, const PlistValue& maximum = {},
                                                        const PlistValue& reserved = {}) noexcept;

/// The records of one type of an open node that have a value of the attribute which matches one of the given strings
/// (elements of other kinds are passed over), with that attribute, the record name and the real name.
///
/// `maximum` is 256 by default. Keys: "recordType", "attributeType" and "attributeValues", as far as given;
/// "recordsArray"; "nbRecords"; "moreRecords", a boolean; "status". After a failure there is "status" alone: -14050
/// without an attribute type, otherwise what the directory service answers.
OSTREL_EXPORT PlistValue DSGetRecordsByRecordTypeAndAttributeValues(
    DirectoryHandle session, DirectoryHandle node, const PlistValue& recordType, const PlistValue& attributeType,
    const PlistValue& attributeValues, std::uint32_t match, const PlistValue& maximum = {}) noexcept;

}  // namespace ostrel
