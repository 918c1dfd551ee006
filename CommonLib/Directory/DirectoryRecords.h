// Records of the directory service by type and name: each call opens the record, does its work and closes it.
#pragma once

#include <cstdint>

#include "Containers/Export.h"
#include "Platform/DirectoryService.h"

namespace ostrel {

// For statuses, outputs, strings and threads: DirectorySessions.h. Nothing throws. Types, names, attributes and values
// are NUL-terminated; null, but where a value may be, is `outOfMemory`: no data node can be made of it. Indexes are
// from
// 1. What cannot be opened is the open's status.

namespace directoryStatus {
inline constexpr DirectoryStatus notAnInteger = -14243;  ///< the value begins with no decimal integer
}

/// Opens a record. The caller gives the three outputs to `DSCloseNamedRecord`, also after a failure: when the record
/// cannot be opened, the two data nodes are there all the same.
OSTREL_EXPORT DirectoryStatus DSOpenNamedRecord(DirectoryHandle session, DirectoryHandle node, const char* type,
                                                const char* name, DirectoryDataNode** typeNode,
                                                DirectoryDataNode** nameNode, DirectoryHandle* record) noexcept;
/// Closes the record, if there is one, releases the two nodes and clears all three. The status is that of the close.
OSTREL_EXPORT DirectoryStatus DSCloseNamedRecord(DirectoryHandle session, DirectoryDataNode** typeNode,
                                                 DirectoryDataNode** nameNode, DirectoryHandle* record) noexcept;

/// Makes a record with nothing but its name. `recordExists` when one can be opened by that name.
OSTREL_EXPORT DirectoryStatus DSCreateRecordByName(DirectoryHandle session, DirectoryHandle node, const char* type,
                                                   const char* name) noexcept;
OSTREL_EXPORT DirectoryStatus DSRemoveRecordByName(DirectoryHandle session, DirectoryHandle node, const char* type,
                                                   const char* name) noexcept;

/// Removes an attribute with all its values.
OSTREL_EXPORT DirectoryStatus DSRemoveRecordAttributeByName(DirectoryHandle session, DirectoryHandle node,
                                                            const char* type, const char* name,
                                                            const char* attribute) noexcept;
/// Makes these the attribute's values; 0 once the record is open, whether they could be set or not: callers count on
/// that. A null list removes the attribute, and answers the status of that.
OSTREL_EXPORT DirectoryStatus DSSetRecordAttributeValuesByName(DirectoryHandle session, DirectoryHandle node,
                                                               const char* type, const char* name,
                                                               const char* attribute,
                                                               const DirectoryDataList* values) noexcept;
/// Puts a value in the place of the attribute's first one, adding the attribute when it has none. A null value removes
/// the whole attribute; when it has no value, nothing happens and the status of reading it is answered (`noSuchValue`).
OSTREL_EXPORT DirectoryStatus DSSetRecordAttributeValueByName(DirectoryHandle session, DirectoryHandle node,
                                                              const char* type, const char* name, const char* attribute,
                                                              const char* value) noexcept;
/// The same for the value at `index`: a null value removes that one, and one past the last is appended. Where there is
/// nothing to remove, the status of reading it is answered.
OSTREL_EXPORT DirectoryStatus DSSetRecordAttributeValueByNameAndIndex(DirectoryHandle session, DirectoryHandle node,
                                                                      const char* type, const char* name,
                                                                      const char* attribute, std::uint32_t index,
                                                                      const char* value) noexcept;
/// The attribute's first value; null, and success, when it has none.
OSTREL_EXPORT DirectoryStatus DSGetRecordAttributeValueByName(DirectoryHandle session, DirectoryHandle node,
                                                              const char* type, const char* name, const char* attribute,
                                                              char** value) noexcept;
/// The value at `index`. Here `noSuchValue` is a failure like any other.
OSTREL_EXPORT DirectoryStatus DSGetRecordAttributeValueByNameAndIndex(DirectoryHandle session, DirectoryHandle node,
                                                                      const char* type, const char* name,
                                                                      const char* attribute, std::uint32_t index,
                                                                      char** value) noexcept;

/// The decimal integer with which the value begins, as scanf(3) reads "%d": what is too large for 32 bits keeps its low
/// ones, so that the unsigned 4294967294 is -2. `notAnInteger` when there is none.
OSTREL_EXPORT DirectoryStatus DSExtractAttributeValueAsInteger(const DirectoryAttributeValueEntry* entry,
                                                               std::int32_t* value) noexcept;
/// The value's bytes, NUL-terminated.
OSTREL_EXPORT DirectoryStatus DSExtractAttributeValueAsCString(const DirectoryAttributeValueEntry* entry,
                                                               char** value) noexcept;

}  // namespace ostrel
