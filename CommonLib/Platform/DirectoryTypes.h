// What the directory service and its nodes speak of: status codes, names, match types.
#pragma once

#include <cstdint>
#include <string_view>

namespace ostrel {

/// 0 for success, else one of `directoryStatus`.
using DirectoryStatus = std::int32_t;

/// A session, node, record, continuation, attribute list or value list. 0 is none.
using DirectoryHandle = std::uint32_t;

namespace directoryStatus {
inline constexpr DirectoryStatus success = 0;

// Those that callers know by number.
inline constexpr DirectoryStatus nodeNotFound = -14008;  ///< no node has this path
inline constexpr DirectoryStatus outOfMemory = -14050;   ///< memory or handles are used up
inline constexpr DirectoryStatus noSuchValue = -14062;   ///< an index past the last value; an unknown value identifier
inline constexpr DirectoryStatus recordExists = -14135;  ///< a record of this type has this name already
inline constexpr DirectoryStatus bufferTooSmall = -14260;  ///< not even one entry fits into the buffer
inline constexpr DirectoryStatus noNodeOfType = -14956;    ///< no node is of this type

// The others.
inline constexpr DirectoryStatus invalidHandle = -14701;     ///< 0, stale, made up, or of another kind
inline constexpr DirectoryStatus invalidArgument = -14702;   ///< null, an index of 0, a malformed buffer, ...
inline constexpr DirectoryStatus invalidName = -14703;       ///< a type, attribute or record name that none can have
inline constexpr DirectoryStatus invalidValue = -14704;      ///< a value that the node cannot hold
inline constexpr DirectoryStatus recordNotFound = -14705;    ///< also when an open record was deleted meanwhile
inline constexpr DirectoryStatus noSuchEntry = -14706;       ///< an index past the last record, attribute or node
inline constexpr DirectoryStatus matchUnknown = -14707;      ///< no match type of `directoryMatch`
inline constexpr DirectoryStatus readOnly = -14708;          ///< the node takes no changes
inline constexpr DirectoryStatus permissionDenied = -14709;  ///< not with these rights
inline constexpr DirectoryStatus userUnknown = -14710;       ///< authentication: the node has no such user
inline constexpr DirectoryStatus passwordRefused = -14711;  ///< authentication: wrong or empty password, locked account
inline constexpr DirectoryStatus methodUnknown = -14712;    ///< authentication: a method that is not offered
inline constexpr DirectoryStatus dataDamaged = -14713;      ///< the node's data cannot be read; kept as they are
inline constexpr DirectoryStatus busy = -14714;             ///< somebody else held the data for too long
inline constexpr DirectoryStatus storageFailed = -14715;    ///< the data cannot be read or written: disk, rights
inline constexpr DirectoryStatus unreachable = -14716;      ///< the node's server does not answer
inline constexpr DirectoryStatus configurationFault = -14717;  ///< the nodes' configuration cannot be used
inline constexpr DirectoryStatus notSupported = -14718;        ///< the node has no such operation
inline constexpr DirectoryStatus limitExceeded = -14719;       ///< the node's server refuses to answer that much
}  // namespace directoryStatus

/// How a value is compared with a pattern. "Ignoring case" folds every character of Unicode that has a one-to-one
/// counterpart (so "É" equals "é", but "ß" does not equal "SS"); composed and decomposed forms differ.
namespace directoryMatch {
inline constexpr std::uint32_t any = 1;            ///< every record, whatever the pattern
inline constexpr std::uint32_t exact = 0x2001;     ///< byte by byte
inline constexpr std::uint32_t contains = 0x2004;  ///< byte by byte
inline constexpr std::uint32_t lessThan = 0x2005;  ///< both whole decimal integers of 64 bits; no other value matches
inline constexpr std::uint32_t greaterThan = 0x2006;  ///< the same
inline constexpr std::uint32_t exactIgnoringCase = 0x2101;
inline constexpr std::uint32_t startsWithIgnoringCase = 0x2102;
inline constexpr std::uint32_t endsWithIgnoringCase = 0x2103;
inline constexpr std::uint32_t containsIgnoringCase = 0x2104;
}  // namespace directoryMatch

/// The nodes that `dsFindDirNodes` finds.
namespace directoryNodeType {
inline constexpr std::uint32_t local = 0x2200;          ///< the local node
inline constexpr std::uint32_t search = 0x2201;         ///< the authentication search node
inline constexpr std::uint32_t locallyHosted = 0x2203;  ///< the nodes whose data this machine itself serves
}  // namespace directoryNodeType

/// Names with a meaning to the directory service itself.
namespace directoryName {
inline constexpr std::string_view allRecords = "dsRecordsAll";
inline constexpr std::string_view allAttributes = "dsAttributesAll";
inline constexpr std::string_view clearTextMethod = "dsAuthMethodStandard:dsAuthNodeNativeCanUseClearText";

inline constexpr std::string_view users = "dsRecTypeStandard:Users";
inline constexpr std::string_view groups = "dsRecTypeStandard:Groups";

inline constexpr std::string_view recordName = "dsAttrTypeStandard:RecordName";
inline constexpr std::string_view uniqueID = "dsAttrTypeStandard:UniqueID";
inline constexpr std::string_view primaryGroupID = "dsAttrTypeStandard:PrimaryGroupID";
inline constexpr std::string_view generatedUID = "dsAttrTypeStandard:GeneratedUID";
inline constexpr std::string_view realName = "dsAttrTypeStandard:RealName";
inline constexpr std::string_view homeDirectory = "dsAttrTypeStandard:NFSHomeDirectory";
inline constexpr std::string_view nativeHome = "dsAttrTypeNative:home";
inline constexpr std::string_view userShell = "dsAttrTypeStandard:UserShell";
inline constexpr std::string_view password = "dsAttrTypeStandard:Password";
inline constexpr std::string_view member = "dsAttrTypeStandard:Member";
inline constexpr std::string_view groupMembership = "dsAttrTypeStandard:GroupMembership";
inline constexpr std::string_view groupMembers = "dsAttrTypeStandard:GroupMembers";
inline constexpr std::string_view nestedGroups = "dsAttrTypeStandard:NestedGroups";

inline constexpr std::string_view searchPath = "dsAttrTypeStandard:SearchPath";
inline constexpr std::string_view readOnlyNode = "dsAttrTypeStandard:ReadOnlyNode";
inline constexpr std::string_view nodePath = "dsAttrTypeStandard:NodePath";

/// What stands in the place of a password wherever it is read.
inline constexpr std::string_view hiddenPassword = "********";
}  // namespace directoryName

}  // namespace ostrel
