#include "Directory/DirectoryMemory.h"

#include <cstdlib>
#include <utility>

namespace ostrel {
namespace {

template <class Item, class Release>
DirectoryStatus releaseItem(Item* place, Release release) {
  const Item item = std::exchange(*place, Item{});
  return item == Item{} ? directoryStatus::success : release(item);
}

template <class Member>
DirectoryStatus addMember(Member** array, Member member) {
  std::size_t count = 0;
  while (*array != nullptr && (*array)[count] != nullptr) ++count;
  void* const grown = std::realloc(*array, (count + 2) * sizeof(Member));
  if (grown == nullptr) {
    DSDeallocPointer(array);
    return directoryStatus::outOfMemory;
  }
  *array = static_cast<Member*>(grown);
  (*array)[count] = member;
  (*array)[count + 1] = nullptr;
  return directoryStatus::success;
}

}  // namespace

void DSDeallocPointer(void** block) noexcept { std::free(std::exchange(*block, nullptr)); }

DirectoryStatus DSDataNodeDeAllocate(DirectoryDataNode** node) noexcept {
  return releaseItem(node, dsDataNodeDeAllocate);
}

DirectoryStatus DSDataBufferDeAllocate(DirectoryDataBuffer** buffer) noexcept {
  return releaseItem(buffer, dsDataBufferDeAllocate);
}

DirectoryStatus DSDataListDeallocate(DirectoryDataList** list) noexcept {
  return releaseItem(list, [](DirectoryDataList* released) {
    const DirectoryStatus status = dsDataListDeallocate(released);
    std::free(released);
    return status;
  });
}

DirectoryStatus DSReleaseContinueData(DirectoryHandle node, DirectoryHandle* continuation) noexcept {
  return releaseItem(continuation, [node](DirectoryHandle released) { return dsReleaseContinueData(node, released); });
}

DirectoryStatus DSCloseAttributeList(DirectoryHandle* attributes) noexcept {
  return releaseItem(attributes, dsCloseAttributeList);
}

DirectoryStatus DSCloseAttributeValueList(DirectoryHandle* values) noexcept {
  return releaseItem(values, dsCloseAttributeValueList);
}

DirectoryStatus DSDeallocRecordEntry(DirectoryRecordEntry** entry) noexcept {
  return releaseItem(entry, dsDeallocRecordEntry);
}

DirectoryStatus DSDeallocAttributeEntry(DirectoryAttributeEntry** entry) noexcept {
  return releaseItem(entry, dsDeallocAttributeEntry);
}

DirectoryStatus DSDeallocAttributeValueEntry(DirectoryAttributeValueEntry** entry) noexcept {
  return releaseItem(entry, dsDeallocAttributeValueEntry);
}

DirectoryStatus DSAddMemberToDynamicArray(void*** array, void* member) noexcept { return addMember(array, member); }
DirectoryStatus DSAddMemberToDynamicArray(char*** array, char* member) noexcept { return addMember(array, member); }

}  // namespace ostrel
