// Copies of whole trees.
#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <new>
#include <utility>
#include <vector>

#include "Containers/Internal/PlistStorage.h"
#include "Containers/PlistValue.h"
#include "Containers/PropertyList.h"

namespace ostrel {

namespace detail {

/// Containers are made at their final size, in memory that the copy's nodes share as a document's do. What is too deep
/// for the call stack is put off.
class PlistStorage::DeepCopy {
 public:
  DeepCopy(const PlistValue& root, bool sharesLeaves) noexcept
      : arena_(expectedSize(root)), sharesLeaves_(sharesLeaves), isFlat_(holdsNoNodes(root)) {}

  PlistValue of(const PlistValue& value) {
    PlistValue root = copy(value, 0);
    while (!putOff_.empty()) {
      auto [source, made] = std::move(putOff_.back());
      putOff_.pop_back();
      copyMembers(*source, made, 0);
    }
    return root;
  }

 private:
  static bool holdsNoNodes(const PlistValue& value) noexcept {
    const auto entryHoldsNone = [](const PlistEntry& entry) {
      return !entry.key.holdsNode() && !entry.value.holdsNode();
    };
    return std::ranges::none_of(value.elements(), &PlistValue::holdsNode) &&
           std::ranges::all_of(value.entries(), entryHoldsNone);
  }

  /// Bytes of the first two levels: enough for small trees, which is where memory left over would count.
  static std::size_t expectedSize(const PlistValue& root) noexcept {
    std::size_t size = shallowSize(root);
    for (const PlistEntry& entry : root.entries()) size += shallowSize(entry.key) + shallowSize(entry.value);
    for (const PlistValue& element : root.elements()) size += shallowSize(element);
    return size + 2 * PlistArena::grain;
  }
  static std::size_t shallowSize(const PlistValue& value) noexcept {
    if (!value.holdsNode()) return 0;
    if (value.isArray()) return sizeof(ArrayNode) + value.count() * sizeof(PlistValue);
    if (value.isDictionary()) return sizeof(DictionaryNode) + value.count() * sizeof(PlistEntry);
    return sizeof(BytesNode) + value.dataView().size() + PlistArena::grain;
  }

  PlistArena* arena() noexcept { return isFlat_ ? nullptr : &arena_; }

  PlistValue copy(const PlistValue& value, std::size_t depth) {
    if (value.cell_.tag < PlistValue::Tag::array) return copyLeaf(value);
    const std::size_t count = value.count();
    PlistValue made = value.isArray() ? adopt(newArray(count, true, arena()), PlistValue::Tag::array)
                                      : adopt(newDictionary(count, true, arena()), PlistValue::Tag::dictionary);
    if (depth < maximumPlistDepth) {
      copyMembers(value, made, depth + 1);
    } else {
      putOff_.emplace_back(&value, made);
    }
    return made;
  }

  PlistValue copyLeaf(const PlistValue& leaf) {
    if (!sharesLeaves_ && leaf.holdsNode()) return adopt(newBytes(leaf.dataView(), arena()), leaf.cell_.tag);
    return leaf;
  }

  // Handles without a node, the most, are copied as bytes.
  template <class Copy>
  static void place(PlistValue* to, const PlistValue& from, Copy copyNode) {
    if (from.holdsNode()) {
      new (to) PlistValue(copyNode(from));
    } else {
      std::memcpy(static_cast<void*>(to), static_cast<const void*>(&from), sizeof from);
    }
  }

  // The count follows the members that are there, so that a copy that fails half-way can be dropped.
  void copyMembers(const PlistValue& source, const PlistValue& made, std::size_t depth) {
    const auto copyNode = [this, depth](const PlistValue& value) { return copy(value, depth); };
    const auto copyKey = [this](const PlistValue& key) { return copyLeaf(key); };
    if (ArrayNode* to = array(made); to != nullptr) {
      for (const PlistValue& element : source.elements()) {
        place(to->members + to->count, element, copyNode);
        ++to->count;
      }
      return;
    }
    DictionaryNode* to = dictionary(made);
    for (const PlistEntry& entry : source.entries()) {
      PlistEntry* member = to->members + to->count;
      place(&member->key, entry.key, copyKey);
      new (&member->value) PlistValue();
      ++to->count;
      place(&member->value, entry.value, copyNode);
    }
    copyIndex(dictionary(source), to);
  }

  static void copyIndex(const DictionaryNode* from, DictionaryNode* to) {
    if (from->index == nullptr) return;
    const std::size_t bytes = (std::size_t{from->indexMask} + 1) * sizeof *from->index;
    void* index = std::malloc(bytes);
    if (index == nullptr) throw std::bad_alloc();
    std::memcpy(index, from->index, bytes);
    to->index = static_cast<std::uint32_t*>(index);
    to->indexMask = from->indexMask;
  }

  PlistArena arena_;
  bool sharesLeaves_;
  bool isFlat_;  // one node in all
  std::vector<std::pair<const PlistValue*, PlistValue>> putOff_;
};

PlistValue PlistStorage::deepCopy(const PlistValue& value, bool sharesLeaves) {
  return DeepCopy(value, sharesLeaves).of(value);
}

}  // namespace detail

PlistValue PlistValue::deepMutableCopy() const { return detail::PlistStorage::deepCopy(*this, false); }
PlistValue PlistValue::deepMutableStructureCopy() const { return detail::PlistStorage::deepCopy(*this, true); }

}  // namespace ostrel
