// Release helpers for what the directory service hands out, and arrays of pointers that grow.
#pragma once

#include "Containers/Export.h"
#include "Platform/DirectoryService.h"

namespace ostrel {

// Each release helper takes the place of an item. Null or 0 there: nothing happens. Otherwise the item is released by
// the platform call that is named and the place cleared, whatever the call answers. The status is that call's; 0 when
// there was nothing. Requires: the place itself is not null. Threads: any; one item on one thread. Nothing throws.

/// free(3). For blocks and strings that are answered as the caller's own.
OSTREL_EXPORT void DSDeallocPointer(void** block) noexcept;
template <class Type>
void DSDeallocPointer(Type** block) noexcept {
  void* released = *block;
  *block = nullptr;
  DSDeallocPointer(&released);
}

/// `dsDataNodeDeAllocate`.
OSTREL_EXPORT DirectoryStatus DSDataNodeDeAllocate(DirectoryDataNode** node) noexcept;
/// `dsDataBufferDeAllocate`.
OSTREL_EXPORT DirectoryStatus DSDataBufferDeAllocate(DirectoryDataBuffer** buffer) noexcept;
/// `dsDataListDeallocate`, and free(3) of the list's header.
OSTREL_EXPORT DirectoryStatus DSDataListDeallocate(DirectoryDataList** list) noexcept;
/// `dsReleaseContinueData` of the node to which the continuation belongs.
OSTREL_EXPORT DirectoryStatus DSReleaseContinueData(DirectoryHandle node, DirectoryHandle* continuation) noexcept;
/// `dsCloseAttributeList`.
OSTREL_EXPORT DirectoryStatus DSCloseAttributeList(DirectoryHandle* attributes) noexcept;
/// `dsCloseAttributeValueList`.
OSTREL_EXPORT DirectoryStatus DSCloseAttributeValueList(DirectoryHandle* values) noexcept;
/// `dsDeallocRecordEntry`.
OSTREL_EXPORT DirectoryStatus DSDeallocRecordEntry(DirectoryRecordEntry** entry) noexcept;
/// `dsDeallocAttributeEntry`.
OSTREL_EXPORT DirectoryStatus DSDeallocAttributeEntry(DirectoryAttributeEntry** entry) noexcept;
/// `dsDeallocAttributeValueEntry`.
OSTREL_EXPORT DirectoryStatus DSDeallocAttributeValueEntry(DirectoryAttributeValueEntry** entry) noexcept;

/// Appends a pointer to an array of pointers that a null pointer ends and free(3) releases; a null array is an empty
/// one. `outOfMemory`: the array is gone and its place null; what its members point to is still the caller's.
OSTREL_EXPORT DirectoryStatus DSAddMemberToDynamicArray(void*** array, void* member) noexcept;
OSTREL_EXPORT DirectoryStatus DSAddMemberToDynamicArray(char*** array, char* member) noexcept;

}  // namespace ostrel
