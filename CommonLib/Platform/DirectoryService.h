// The directory service: sessions, nodes, records, attributes, searches and authentication, by handles and buffers.
// docs/directory.md tells where the nodes come from. DirectoryQuery.h has the same searches as objects.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

#include "Containers/Export.h"
#include "Platform/DirectoryTypes.h"

namespace ostrel {

// For every operation below:
//
// Threads: any thread; many sessions, and many threads in one session, at once. One buffer, list, entry or continuation
// is used by one thread at a time. Operations on nodes and records may block on disk or network.
//
// Handles: 0 is none. A handle that is 0, was closed, was made up or is of another kind is answered with
// `directoryStatus::invalidHandle`. Closing a session closes its nodes, closing a node its records, continuations and
// lists. At most 65,535 handles of a kind are open at once; beyond them: `outOfMemory`.
//
// Outputs are set to 0 or null before any work, so that a failure leaves none stale. Null where an argument is needed:
// `invalidArgument`. Nothing throws. Strings that are given are NUL-terminated; those that are answered are blocks of
// malloc(3) for the caller to free(3).

/// A block of bytes: `capacity` bytes of room, of which the first `length` are in use. A data buffer takes what a
/// search answers; a data node, of the same shape, holds one string or block. Made only by the allocators below.
struct DirectoryDataBuffer {
  std::uint32_t capacity;
  std::uint32_t length;

  char* bytes() { return reinterpret_cast<char*>(this + 1); }
  const char* bytes() const { return reinterpret_cast<const char*>(this + 1); }
  std::string_view text() const { return {bytes(), length}; }
};
using DirectoryDataNode = DirectoryDataBuffer;

/// A list of byte strings. The header is a block of malloc(3); what it leads to is the list's own.
struct DirectoryDataList {
  std::uint32_t count;
  std::uint32_t room;         ///< for how many `items` has room
  DirectoryDataNode** items;  ///< owned
};

/// A record in a buffer. Both views end with a NUL beyond their end.
struct DirectoryRecordEntry {
  std::uint32_t attributeCount;
  std::string_view type;
  std::string_view name;  ///< its first record name
};

/// An attribute in a buffer. The view ends with a NUL beyond its end.
struct DirectoryAttributeEntry {
  std::uint32_t valueCount;
  std::string_view name;
};

/// A value with its identifier; the bytes have no terminator.
struct DirectoryAttributeValueEntry {
  std::uint32_t identifier;
  DirectoryDataNode value;
};

// Data nodes, buffers and lists.

/// A data node of the string's bytes without its terminator; of `length` bytes. Null when out of memory, for a null
/// string, and for null bytes with a length.
OSTREL_EXPORT DirectoryDataNode* dsDataNodeAllocateString(const char* string) noexcept;
OSTREL_EXPORT DirectoryDataNode* dsDataNodeAllocateBlock(const void* bytes, std::uint32_t length) noexcept;
OSTREL_EXPORT DirectoryStatus dsDataNodeDeAllocate(DirectoryDataNode* node) noexcept;

/// A buffer with room for `capacity` bytes (also 0), zeroed, nothing in use.
OSTREL_EXPORT DirectoryDataBuffer* dsDataBufferAllocate(std::uint32_t capacity) noexcept;
OSTREL_EXPORT DirectoryStatus dsDataBufferDeAllocate(DirectoryDataBuffer* buffer) noexcept;

/// An empty list.
OSTREL_EXPORT DirectoryDataList* dsDataListAllocate() noexcept;
/// Releases what the list holds and leaves it empty. The header stays: free(3) it.
OSTREL_EXPORT DirectoryStatus dsDataListDeallocate(DirectoryDataList* list) noexcept;
/// Appends a copy of a string.
OSTREL_EXPORT DirectoryStatus dsAppendStringToListAlloc(DirectoryDataList* list, const char* string) noexcept;
/// A new list of the strings up to the null pointer that ends the arguments. Null when out of memory.
OSTREL_EXPORT DirectoryDataList* dsBuildListFromStringsAlloc(const char* first, ...) noexcept __attribute__((sentinel));

/// The components of a path, split at the separator; empty ones are left out. Null when out of memory, or for a null
/// path or an empty separator.
OSTREL_EXPORT DirectoryDataList* dsBuildFromPath(const char* path, const char* separator) noexcept;
/// The list as a path: the separator before each component. Null when out of memory or without a list.
OSTREL_EXPORT char* dsGetPathFromList(const DirectoryDataList* list, const char* separator) noexcept;

// Sessions and nodes.

/// Opens a session on this host's nodes as they are configured now. `configurationFault` when the configuration is
/// there but cannot be used.
OSTREL_EXPORT DirectoryStatus dsOpenDirService(DirectoryHandle* session) noexcept;
/// Opens a session on the directory of another host, which is asked over LDAP: its nodes are that directory, as
/// "/LDAP/HOST" and as the search node. `port` 0 is the kind's own. The method and the authentication buffer are those
/// of `dsDoDirNodeAuth`; the session speaks for the user whom they name. The response buffer is left empty and the
/// continuation 0.
/// `notSupported` when there is no node of kind "LDAP", otherwise what the authentication answers.
OSTREL_EXPORT DirectoryStatus dsOpenDirServiceProxy(DirectoryHandle* session, const char* host, std::int32_t port,
                                                    const DirectoryDataNode* method,
                                                    const DirectoryDataBuffer* authentication,
                                                    DirectoryDataBuffer* response,
                                                    DirectoryHandle* continuation) noexcept;
OSTREL_EXPORT DirectoryStatus dsCloseDirService(DirectoryHandle session) noexcept;

/// Lists the nodes of a type (`directoryNodeType`) into the buffer and sets `count` to how many there are; for an
/// unknown type, and when there is none, count 0 and success. `bufferTooSmall` unless all fit: the same call with a
/// larger buffer lists them. `continuation` is set to 0.
OSTREL_EXPORT DirectoryStatus dsFindDirNodes(DirectoryHandle session, DirectoryDataBuffer* buffer,
                                             std::uint32_t nodeType, std::uint32_t* count,
                                             DirectoryHandle* continuation) noexcept;
/// The same for every node, in the order of the configuration; the search node is not among them.
OSTREL_EXPORT DirectoryStatus dsGetDirNodeList(DirectoryHandle session, DirectoryDataBuffer* buffer,
                                               std::uint32_t* count, DirectoryHandle* continuation) noexcept;
/// The components of the path of the node at `index` (from 1) in a buffer that one of the two above filled. The caller
/// releases the list and its header. `noSuchEntry` past the last.
OSTREL_EXPORT DirectoryStatus dsGetDirNodeName(DirectoryHandle session, const DirectoryDataBuffer* buffer,
                                               std::uint32_t index, DirectoryDataList** name) noexcept;

/// Opens the node whose path has these components. `nodeNotFound` when there is none.
OSTREL_EXPORT DirectoryStatus dsOpenDirNode(DirectoryHandle session, const DirectoryDataList* name,
                                            DirectoryHandle* node) noexcept;
OSTREL_EXPORT DirectoryStatus dsCloseDirNode(DirectoryHandle node) noexcept;

/// Puts what the node tells of itself into the buffer: the attributes in the list, or all with "dsAttributesAll".
/// `count` is set to how many were found, `attributes` to a list for `dsGetAttributeEntry`, `continuation` to 0.
/// Attributes that the node does not have are left out. `bufferTooSmall` unless all fit.
/// Every node has "dsAttrTypeStandard:ReadOnlyNode" ("ReadOnly" or "ReadWrite") and "dsAttrTypeStandard:NodePath"; the
/// search node has "dsAttrTypeStandard:SearchPath", the paths of the nodes that it asks, in their order.
OSTREL_EXPORT DirectoryStatus dsGetDirNodeInfo(DirectoryHandle node, const DirectoryDataList* attributeNames,
                                               DirectoryDataBuffer* buffer, std::uint32_t* count,
                                               DirectoryHandle* attributes, DirectoryHandle* continuation) noexcept;

/// Authenticates with the method "dsAuthMethodStandard:dsAuthNodeNativeCanUseClearText" (any other: `methodUnknown`).
/// The authentication buffer holds, in host byte order, the length of the user name (32 bits), the name, the length of
/// the password (32 bits) and the password; one that ends early is an `invalidArgument`. Unless only a check is asked
/// for, the node reference speaks for the user from now on: for records that are opened, made and searched later.
/// On the search node the first node that knows the user decides. `userUnknown`, `passwordRefused`.
/// The response buffer (may be null) is left empty, the continuation set to 0.
OSTREL_EXPORT DirectoryStatus dsDoDirNodeAuth(DirectoryHandle node, const DirectoryDataNode* method, bool verifyOnly,
                                              const DirectoryDataBuffer* authentication, DirectoryDataBuffer* response,
                                              DirectoryHandle* continuation) noexcept;

// Searches.

/// Fills the buffer with records of the given types one of whose names matches one of `names`; a name of
/// "dsRecordsAll", or the match type `any`, asks for every one. Each record carries those of the attributes in the list
/// ("dsAttributesAll": every one) that have values.
///
/// `count`: on entry at most how many records this call is to answer, 0 for as many as fit; on return how many it did.
/// `continuation`: 0 begins a search. On return it is 0 when there are no more records that match; otherwise give it to
/// the next call on this node, with the same arguments (they are those of the first call whatever is given) and a count
/// for that call. A continuation that is not 0 is released by the call that ends the search or fails, or by
/// `dsReleaseContinueData`. A search that goes on sees changes made meanwhile, but answers no record twice.
///
/// `bufferTooSmall`: not even the next record fits. The continuation is kept: the call can be made again with a larger
/// buffer.
OSTREL_EXPORT DirectoryStatus dsGetRecordList(DirectoryHandle node, DirectoryDataBuffer* buffer,
                                              const DirectoryDataList* names, std::uint32_t match,
                                              const DirectoryDataList* types, const DirectoryDataList* attributes,
                                              std::uint32_t* count, DirectoryHandle* continuation) noexcept;
/// The same for records that have a value of the attribute `attribute` which matches one of `values`.
OSTREL_EXPORT DirectoryStatus dsDoMultipleAttributeValueSearchWithData(
    DirectoryHandle node, DirectoryDataBuffer* buffer, const DirectoryDataList* types,
    const DirectoryDataNode* attribute, std::uint32_t match, const DirectoryDataList* values,
    const DirectoryDataList* attributes, std::uint32_t* count, DirectoryHandle* continuation) noexcept;
/// Gives up a search of the node before its end. Continuation 0: `invalidHandle`.
OSTREL_EXPORT DirectoryStatus dsReleaseContinueData(DirectoryHandle node, DirectoryHandle continuation) noexcept;

// What is in a buffer. The buffer may be moved, but not be changed; a list that belongs to what a buffer held before it
// was filled again is answered with `invalidHandle`.

/// The record at `index` (from 1): its entry, and a list of its attributes for `dsGetAttributeEntry`. `noSuchEntry`
/// past the last record.
OSTREL_EXPORT DirectoryStatus dsGetRecordEntry(DirectoryHandle node, const DirectoryDataBuffer* buffer,
                                               std::uint32_t index, DirectoryHandle* attributes,
                                               DirectoryRecordEntry** entry) noexcept;
/// The attribute at `index` (from 1), and a list of its values. `noSuchEntry` past the last.
OSTREL_EXPORT DirectoryStatus dsGetAttributeEntry(DirectoryHandle node, const DirectoryDataBuffer* buffer,
                                                  DirectoryHandle attributes, std::uint32_t index,
                                                  DirectoryHandle* values, DirectoryAttributeEntry** entry) noexcept;
/// The value at `index` (from 1). `noSuchValue` past the last. Constant time when they are read in order.
OSTREL_EXPORT DirectoryStatus dsGetAttributeValue(DirectoryHandle node, const DirectoryDataBuffer* buffer,
                                                  std::uint32_t index, DirectoryHandle values,
                                                  DirectoryAttributeValueEntry** entry) noexcept;
OSTREL_EXPORT DirectoryStatus dsCloseAttributeList(DirectoryHandle attributes) noexcept;
OSTREL_EXPORT DirectoryStatus dsCloseAttributeValueList(DirectoryHandle values) noexcept;
OSTREL_EXPORT DirectoryStatus dsDeallocRecordEntry(DirectoryRecordEntry* entry) noexcept;
OSTREL_EXPORT DirectoryStatus dsDeallocAttributeEntry(DirectoryAttributeEntry* entry) noexcept;
OSTREL_EXPORT DirectoryStatus dsDeallocAttributeValueEntry(DirectoryAttributeValueEntry* entry) noexcept;
/// A value entry of one's own, for `dsSetAttributeValue`. Null when out of memory.
OSTREL_EXPORT DirectoryAttributeValueEntry* dsAllocAttributeValueEntry(std::uint32_t identifier, const void* bytes,
                                                                       std::uint32_t length) noexcept;

// Records. Each change is whole and durable when it is answered. `readOnly` where the node takes none.

/// Opens the record of a type by any of its names, ignoring case. `recordNotFound` when there is none.
OSTREL_EXPORT DirectoryStatus dsOpenRecord(DirectoryHandle node, const DirectoryDataNode* type,
                                           const DirectoryDataNode* name, DirectoryHandle* record) noexcept;
OSTREL_EXPORT DirectoryStatus dsCreateRecordAndOpen(DirectoryHandle node, const DirectoryDataNode* type,
                                                    const DirectoryDataNode* name, DirectoryHandle* record) noexcept;
OSTREL_EXPORT DirectoryStatus dsCloseRecord(DirectoryHandle record) noexcept;
/// Deletes the record; its handle stays open and answers `recordNotFound` from now on.
OSTREL_EXPORT DirectoryStatus dsDeleteRecord(DirectoryHandle record) noexcept;

/// The value of an attribute at `index` (from 1). `noSuchValue` past the last, also when there is no such attribute.
OSTREL_EXPORT DirectoryStatus dsGetRecordAttributeValueByIndex(DirectoryHandle record,
                                                               const DirectoryDataNode* attribute, std::uint32_t index,
                                                               DirectoryAttributeValueEntry** entry) noexcept;
/// Adds an attribute with its first value; one that is there gets a further value. Without a value nothing happens: an
/// attribute exists when it has values. The third argument is not read.
OSTREL_EXPORT DirectoryStatus dsAddAttribute(DirectoryHandle record, const DirectoryDataNode* attribute,
                                             const void* attributeInformation,
                                             const DirectoryDataNode* firstValue) noexcept;
/// Removes an attribute with its values. Success also when it is not there.
OSTREL_EXPORT DirectoryStatus dsRemoveAttribute(DirectoryHandle record, const DirectoryDataNode* attribute) noexcept;
/// Appends a value, making the attribute when it is not there.
OSTREL_EXPORT DirectoryStatus dsAddAttributeValue(DirectoryHandle record, const DirectoryDataNode* attribute,
                                                  const DirectoryDataNode* value) noexcept;
/// Removes the value with this identifier. `noSuchValue` when there is none.
OSTREL_EXPORT DirectoryStatus dsRemoveAttributeValue(DirectoryHandle record, const DirectoryDataNode* attribute,
                                                     std::uint32_t identifier) noexcept;
/// Puts the entry's bytes in the place of the value with the entry's identifier. `noSuchValue` when there is none.
OSTREL_EXPORT DirectoryStatus dsSetAttributeValue(DirectoryHandle record, const DirectoryDataNode* attribute,
                                                  const DirectoryAttributeValueEntry* entry) noexcept;
/// Makes these the attribute's values, in order, whether it was there or not. An empty list removes it.
OSTREL_EXPORT DirectoryStatus dsSetAttributeValues(DirectoryHandle record, const DirectoryDataNode* attribute,
                                                   const DirectoryDataList* values) noexcept;

}  // namespace ostrel
