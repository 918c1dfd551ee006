// The heap side of PlistValue, shared by the value type and the codecs that fill values in bulk. Not installed.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>

#include "Containers/PlistValue.h"

namespace ostrel::detail {

/// What every heap value begins with. `references` is first: PlistValue counts through it without this header.
struct Node {
  std::uint32_t references = 1;
  bool isMutable = false;
  bool isDictionary = false;
};

/// A string longer than the handle holds, or data. The bytes follow the node in the same allocation.
struct BytesNode : Node {
  std::size_t length = 0;
  char* bytes() noexcept { return reinterpret_cast<char*>(this + 1); }
};

/// What arrays and dictionaries share. Members live behind `members`: in the node's own allocation when the node was
/// made at its final size, elsewhere once it has grown.
struct ContainerNode : Node {
  std::uint32_t count = 0;
  std::uint32_t capacity = 0;
  ContainerNode* nextDoomed = nullptr;  // links containers that wait to be destroyed, so that depth costs no stack
};

struct ArrayNode : ContainerNode {
  PlistValue* members = nullptr;
  PlistValue* ownStorage() noexcept { return reinterpret_cast<PlistValue*>(this + 1); }
};

struct DictionaryNode : ContainerNode {
  PlistEntry* members = nullptr;
  std::uint32_t* index = nullptr;  // open addressing over members, slot = position + 1; null while small
  std::uint32_t indexMask = 0;
  PlistEntry* ownStorage() noexcept { return reinterpret_cast<PlistEntry*>(this + 1); }
};

/// Makes values in bulk, without a write at a time.
class OSTREL_EXPORT PlistStorage {
 public:
  /// A string of `length` bytes, longer than the handle holds, that the caller fills before the value is shared.
  /// Requires: length > inlineCapacity.
  static PlistValue allocateString(std::size_t length, char*& bytes);
  /// A data value of `length` bytes that the caller fills before the value is shared.
  static PlistValue allocateData(std::size_t length, char*& bytes);
  /// A container of exactly these members, which are moved out of the span in either case. `makeDictionary` gives
  /// null when two keys are equal. Every key is a string.
  static PlistValue makeArray(std::span<PlistValue> members, bool isMutable);
  static PlistValue makeDictionary(std::span<PlistEntry> members, bool isMutable);

  static constexpr std::size_t inlineCapacity = PlistValue::inlineCapacity;

 private:
  friend class ostrel::PlistValue;

  static PlistValue adopt(Node* node, PlistValue::Tag tag) noexcept;
  static BytesNode* newBytes(std::size_t length);
  static ArrayNode* newArray(std::size_t capacity, bool isMutable);
  static DictionaryNode* newDictionary(std::size_t capacity, bool isMutable);
  static ArrayNode* array(const PlistValue& value) noexcept;
  static DictionaryNode* dictionary(const PlistValue& value) noexcept;

  static void reserveOneMore(ArrayNode* node);
  static void reserveOneMore(DictionaryNode* node);
  /// False when two keys are equal; the index is then incomplete.
  static bool rebuildIndex(DictionaryNode* node);
  static std::size_t position(const DictionaryNode* node, std::string_view key) noexcept;
  static void appendEntry(DictionaryNode* node, PlistValue key, PlistValue value);

  /// Frees a chain of containers that nobody holds any more, and what only they held.
  static void destroy(ContainerNode* doomed) noexcept;
  static void dropMembers(ContainerNode* node, ContainerNode*& doomed) noexcept;
  static void drop(PlistValue& member, ContainerNode*& doomed) noexcept;
  static void freeContainer(ContainerNode* node) noexcept;
};

}  // namespace ostrel::detail
