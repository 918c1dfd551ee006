// The heap side of PlistValue, shared by the value type and the codecs that fill values in bulk. Not installed.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string_view>

#include "Containers/PlistValue.h"

namespace ostrel::detail {

/// What every heap value begins with. `references` is first: PlistValue counts through it without this header.
struct Node {
  std::uint32_t references = 1;
  bool isMutable = false;
  bool isDictionary = false;
  bool hasPlainKeys = false;  // set by the XML reader: every key stood in the input byte for byte
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
  /// Cuts the unused end off a data value that nobody else holds yet.
  static void shrinkData(PlistValue& data, std::size_t length) noexcept;
  /// A string of any length.
  static PlistValue makeString(std::string_view text) {
    if (text.size() > inlineCapacity) return makeLongString(text);
    PlistValue made;
    if (!text.empty()) std::memcpy(static_cast<void*>(&made.cell_), text.data(), text.size());
    made.cell_.length = static_cast<std::uint8_t>(text.size());
    made.cell_.tag = PlistValue::Tag::inlineString;
    return made;
  }
  /// The same for a short string that stands in sixteen readable bytes. Requires: length <= inlineCapacity.
  static PlistValue makeShortString(const char* sixteenBytes, std::size_t length) {
    std::uint64_t low = 0;
    std::uint64_t high = 0;
    std::memcpy(&low, sixteenBytes, 8);
    std::memcpy(&high, sixteenBytes + 8, 8);
    low &= length >= 8 ? ~std::uint64_t{} : (std::uint64_t{1} << (8 * length)) - 1;
    high &= length <= 8 ? 0 : (std::uint64_t{1} << (8 * (length - 8))) - 1;
    PlistValue made;
    std::memcpy(static_cast<void*>(&made.cell_), &low, 8);
    std::memcpy(reinterpret_cast<char*>(&made.cell_) + 8, &high, 8);
    made.cell_.length = static_cast<std::uint8_t>(length);
    made.cell_.tag = PlistValue::Tag::inlineString;
    return made;
  }

  enum class Keys : std::uint8_t { unchecked, knownDistinct };

  /// A container of exactly these members, which are moved from in either case; what they leave need not be destroyed.
  /// `makeDictionary` takes keys (strings all) and values in turn, and gives null when two keys are equal.
  static PlistValue makeArray(PlistValue* members, std::size_t count, bool isMutable);
  static PlistValue makeDictionary(PlistValue* keysAndValues, std::size_t count, bool isMutable, Keys keys);

  /// Another handle on a value that only this thread can reach, without an atomic step.
  static PlistValue shareUnpublished(const PlistValue& value) noexcept {
    PlistValue copy;
    copy.cell_ = value.cell_;
    if (copy.holdsNode()) ++copy.node()->references;
    return copy;
  }
  static void markPlainKeys(PlistValue& dictionaryValue) noexcept { dictionaryValue.node()->hasPlainKeys = true; }
  static bool hasPlainKeys(const PlistValue& dictionaryValue) noexcept { return dictionaryValue.node()->hasPlainKeys; }

  static constexpr std::size_t inlineCapacity = PlistValue::inlineCapacity;

 private:
  friend class ostrel::PlistValue;

  static PlistValue makeLongString(std::string_view text);
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
