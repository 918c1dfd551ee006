// Owners of directory items for the length of a scope, over the release helpers.
#pragma once

#include <utility>

#include "Directory/DirectoryMemory.h"
#include "Directory/DirectorySessions.h"

namespace ostrel::detail {

/// Holds an item, or none, and gives it to its release helper at the end.
template <class Item, auto Release>
class Released {
 public:
  explicit Released(Item item = Item{}) : item_(item) {}
  ~Released() { Release(&item_); }
  Released(const Released&) = delete;
  Released& operator=(const Released&) = delete;

  explicit operator bool() const { return item_ != Item{}; }
  Item get() const { return item_; }
  Item operator->() const { return item_; }
  auto& operator*() const { return *item_; }
  /// Where a call is to put an item; releases the one that is held.
  Item* place() {
    Release(&item_);
    return &item_;
  }
  /// Gives the item away.
  Item take() { return std::exchange(item_, Item{}); }

 private:
  Item item_;
};

inline DirectoryStatus closeNode(DirectoryHandle* node) noexcept { return DSCloseNode(0, node); }

using ReleasedSession = Released<DirectoryHandle, DSCloseDirectoryServices>;
using ReleasedNode = Released<DirectoryHandle, closeNode>;
using ReleasedAttributes = Released<DirectoryHandle, DSCloseAttributeList>;
using ReleasedValues = Released<DirectoryHandle, DSCloseAttributeValueList>;
using ReleasedDataNode = Released<DirectoryDataNode*, DSDataNodeDeAllocate>;
using ReleasedBuffer = Released<DirectoryDataBuffer*, DSDataBufferDeAllocate>;
using ReleasedList = Released<DirectoryDataList*, DSDataListDeallocate>;
using ReleasedRecordEntry = Released<DirectoryRecordEntry*, DSDeallocRecordEntry>;
using ReleasedAttributeEntry = Released<DirectoryAttributeEntry*, DSDeallocAttributeEntry>;
using ReleasedValueEntry = Released<DirectoryAttributeValueEntry*, DSDeallocAttributeValueEntry>;
using ReleasedText = Released<char*, DSDeallocPointer<char>>;

/// The continuation of a search on a node, given up at the end unless the search ended before.
class ReleasedContinuation {
 public:
  explicit ReleasedContinuation(DirectoryHandle node) : node_(node) {}
  ~ReleasedContinuation() { DSReleaseContinueData(node_, &continuation_); }
  ReleasedContinuation(const ReleasedContinuation&) = delete;
  ReleasedContinuation& operator=(const ReleasedContinuation&) = delete;

  explicit operator bool() const { return continuation_ != 0; }
  /// For the call that goes on with the search.
  DirectoryHandle* place() { return &continuation_; }

 private:
  DirectoryHandle node_;
  DirectoryHandle continuation_ = 0;
};

/// What answers are read into.
inline constexpr std::uint32_t answerCapacity = 0x40000;

}  // namespace ostrel::detail
