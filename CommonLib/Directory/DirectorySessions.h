// Sessions and nodes of the directory service: opening and closing, what a node tells of itself, authentication.
#pragma once

#include <cstdint>

#include "Containers/Export.h"
#include "Containers/PlistValue.h"
#include "Platform/DirectoryService.h"

namespace ostrel {

// Statuses are those of the directory service (`directoryStatus`), passed on unchanged, and those named here. Outputs
// are set to null, 0 or what is said before any work. Requires: out arguments that are not said to be optional are not
// null. Strings that are answered are the caller's, for free(3) or `DSDeallocPointer`. A `PlistValue` that has no
// NUL-terminated form in UTF-8 where one is needed (another kind, a NUL inside, no UTF-8) is `outOfMemory`, the status
// of a copy that cannot be had.
//
// Threads: any. Everything here may block on disk or network. Nothing is thrown except std::bad_alloc.

namespace directoryStatus {
inline constexpr DirectoryStatus noSuchAttribute = -14134;  ///< the node's information lacks the attribute
inline constexpr DirectoryStatus emptyValue = -14210;       ///< the attribute's first value is empty
}  // namespace directoryStatus

/// Opens a session: with a host, a user and a password on the directory of that host, at `port`, in the user's name
/// (`dsOpenDirServiceProxy`); when one of the three is null, on this host's.
OSTREL_EXPORT DirectoryStatus DSOpenDirectoryServices(const PlistValue& host, std::int32_t port, const PlistValue& user,
                                                      const PlistValue& password, DirectoryHandle* session);
/// Closes a session, if it is not 0, and sets it to 0.
OSTREL_EXPORT DirectoryStatus DSCloseDirectoryServices(DirectoryHandle* session) noexcept;

/// Opens the node at a path; what stands between its "/" are the components. `outOfMemory` for a null path.
OSTREL_EXPORT DirectoryStatus DSOpenNodeByPath(DirectoryHandle session, const char* path,
                                               DirectoryHandle* node) noexcept;
/// Opens the first node of a type of `directoryNodeType`; for `locallyHosted`, the one that stands furthest behind in
/// the search path, the later one of equals, one outside of it counting as before all others. `path` becomes its path.
/// `noNodeOfType` when none is found, or more than 2,048 bytes hold.
OSTREL_EXPORT DirectoryStatus DSOpenNodeByType(DirectoryHandle session, std::uint32_t nodeType, DirectoryHandle* node,
                                               char** path) noexcept;
/// Closes a node, if it is not 0, and sets it to 0. The session is not used.
OSTREL_EXPORT DirectoryStatus DSCloseNode(DirectoryHandle session, DirectoryHandle* node) noexcept;

/// The path of the node at `index` (from 1) in a buffer that a search for nodes filled.
OSTREL_EXPORT DirectoryStatus DSGetDirNodePathName(DirectoryHandle session, const DirectoryDataBuffer* buffer,
                                                   std::uint32_t index, char** path) noexcept;
/// The path of the local node, or null on any failure. Session 0: opens one of its own for the call.
OSTREL_EXPORT PlistValue DSGetDefaultLocalNodePath(DirectoryHandle session);

/// The position (from 0) in the search path of the first entry that is the path or a leading part of its bytes:
/// "/LDAP/a" stands for "/LDAP/ab", too. -1 without one. With `firstEntry` (may be null, as may `level`) only the first
/// entry of the search path is answered, and no level. `nodeNotFound` when the path is not in the search path or an
/// entry before the match is empty; `noSuchAttribute` when the search node has no search path.
OSTREL_EXPORT DirectoryStatus DSGetNodeLevelInSearchList(DirectoryHandle session, const char* nodePath, long* level,
                                                         char** firstEntry) noexcept;
/// Despite its name, sets `flag` to 1 exactly when the node says that it is "ReadOnly", otherwise to 0: callers count
/// on that. `noSuchAttribute` when it says nothing, `emptyValue` when that is empty.
OSTREL_EXPORT DirectoryStatus DSIsNodeWritable(DirectoryHandle session, DirectoryHandle node, long* flag) noexcept;
/// What the node at a path (no string: the search node) tells of itself: attribute name -> array of its values as
/// strings, and "status". Asked for are the strings in `attributes` but for those that begin with "dsAttrTypeVirtual:";
/// all attributes when it is null, empty or begins with something else than a string. Values that are no UTF-8, and
/// attributes without any other, are left out. Opens a session of its own. A mutable dictionary of mutable arrays.
OSTREL_EXPORT PlistValue DSGetNodeInfo(const PlistValue& nodePath, const PlistValue& attributes);

/// Authenticates the node reference: what is done with it later is done in the user's name. The user may be given by
/// any record name; the node is asked with the first one of the record, or the given one where it knows none.
OSTREL_EXPORT DirectoryStatus DSAuthenticateNode(DirectoryHandle session, DirectoryHandle node, const PlistValue& user,
                                                 const PlistValue& password);
/// The buffer that authentication calls take: in host byte order the length of the user name (32 bits), the name, the
/// length of the password (32 bits), the password. Its capacity is 256 bytes, or as many as the two need. Null counts
/// as empty. The caller releases it (`DSDataBufferDeAllocate`). The session is not used.
OSTREL_EXPORT DirectoryStatus DSBuildAuthenticationBuffer(DirectoryHandle session, const char* user,
                                                          const char* password, DirectoryDataBuffer** buffer) noexcept;

}  // namespace ostrel
