// The heap side of PlistValue, shared by the value type and the codecs that fill values in bulk. Not installed.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <limits>
#include <span>
#include <string_view>

#include "Containers/PlistValue.h"

namespace ostrel::detail {

/// What every heap value begins with. `references` is first: PlistValue counts through it without this header.
struct Node {
  std::uint32_t references = 1;
  std::uint16_t slabOffset = 0;  // from the start of its slab in units of `PlistArena::grain`; 0 outside slabs
  bool isMutable : 1 = false;
  bool isDictionary : 1 = false;
  bool hasPlainKeys : 1 = false;  // set by the XML reader: every key stood in the input byte for byte
};

/// Where many nodes of one document live together. It is freed with the last of them, so a value that outlives its
/// document keeps at most `PlistArena::slabSize` bytes, or about the size of a smaller document, from being freed.
struct Slab {
  std::atomic<std::uint32_t> live;  // nodes that are not freed yet; far more while the slab is being filled
};

/// Memory for the nodes of a document that is being read: an addition each instead of an allocation each.
class PlistArena {
 public:
  static constexpr std::size_t slabSize = 65536 - 64;
  static constexpr std::size_t grain = 16;

  /// `expected`: a guess at the bytes that the document's nodes will take.
  explicit PlistArena(std::size_t expected) noexcept : expected_(expected) {}
  PlistArena(const PlistArena&) = delete;
  PlistArena& operator=(const PlistArena&) = delete;
  ~PlistArena() { close(); }

  /// `slabOffset` is what the node must remember.
  void* allocate(std::size_t bytes, std::uint16_t& slabOffset) {
    const std::size_t rounded = (bytes + grain - 1) & ~(grain - 1);
    if (rounded > left_ || rounded < bytes) return allocateElsewhere(bytes, slabOffset);
    char* const memory = next_;
    next_ += rounded;
    left_ -= rounded;
    ++made_;
    slabOffset = static_cast<std::uint16_t>(static_cast<std::size_t>(memory - slab_) / grain);
    return memory;
  }

 private:
  static constexpr std::uint32_t filling = 1U << 30;
  static constexpr std::size_t largestNode = slabSize / 16;  // larger ones are allocated alone

  void* allocateElsewhere(std::size_t bytes, std::uint16_t& slabOffset);
  void close() noexcept;

  std::size_t expected_;
  char* slab_ = nullptr;
  char* next_ = nullptr;
  std::size_t left_ = 0;
  std::uint32_t made_ = 0;
};

/// What waits to be freed while values are dropped: containers, so that depth costs no stack, and nodes of one slab
/// that are counted out together.
struct Doomed {
  struct ContainerNode* containers = nullptr;
  Slab* slab = nullptr;
  std::uint32_t slabNodes = 0;
};

/// A string longer than the handle holds, or data. The bytes follow the node in the same allocation.
struct BytesNode : Node {
  std::size_t length = 0;
  char* bytes() noexcept { return reinterpret_cast<char*>(this + 1); }
};

static_assert(sizeof(BytesNode) == 16 && sizeof(std::size_t) == 8, "PlistValue reads the length and the bytes itself");

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
class PlistStorage {
 public:
  /// A data value of `length` bytes that the caller fills before the value is shared.
  static PlistValue allocateData(std::size_t length, char*& bytes);
  /// Cuts the unused end off a data value that nobody else holds yet.
  static void shrinkData(PlistValue& data, std::size_t length) noexcept;
  /// A string of any length.
  static PlistValue makeString(std::string_view text, PlistArena* arena = nullptr) {
    if (text.size() > inlineCapacity) return adopt(newBytes(text, arena), PlistValue::Tag::string);
    return shortString(text);
  }
  /// One that the handle holds, by two loads that may overlap. Requires: text.size() <= inlineCapacity.
  static PlistValue shortString(std::string_view text) noexcept {
    const char* bytes = text.data();
    const std::size_t length = text.size();
    std::uint64_t low = 0;
    std::uint64_t high = 0;
    if (length > 8) {
      std::memcpy(&low, bytes, 8);
      std::memcpy(&high, bytes + length - 8, 8);
      high >>= 8 * (16 - length);
    } else if (length >= 4) {
      std::uint32_t first = 0;
      std::uint32_t last = 0;
      std::memcpy(&first, bytes, 4);
      std::memcpy(&last, bytes + length - 4, 4);
      low = first | std::uint64_t{last} << (8 * (length - 4));
    } else {
      for (std::size_t i = 0; i < length; ++i) low |= std::uint64_t{static_cast<unsigned char>(bytes[i])} << (8 * i);
    }
    return shortString(low, high, length);
  }
  /// The same for a short string that stands in sixteen readable bytes. Requires: length <= inlineCapacity.
  static PlistValue makeShortString(const char* sixteenBytes, std::size_t length) {
    std::uint64_t low = 0;
    std::uint64_t high = 0;
    std::memcpy(&low, sixteenBytes, 8);
    std::memcpy(&high, sixteenBytes + 8, 8);
    low &= length >= 8 ? ~std::uint64_t{} : (std::uint64_t{1} << (8 * length)) - 1;
    high &= length <= 8 ? 0 : (std::uint64_t{1} << (8 * (length - 8))) - 1;
    return shortString(low, high, length);
  }

  enum class Keys : std::uint8_t { unchecked, knownDistinct };

  /// A container of exactly these members, which are moved from in either case; what they leave need not be destroyed.
  /// `makeDictionary` takes keys (strings all) and values in turn, and gives null when two keys are equal. When memory
  /// runs out the members stay the caller's.
  static PlistValue makeArray(PlistValue* members, std::size_t count, bool isMutable, PlistArena& arena);
  static PlistValue makeDictionary(PlistValue* keysAndValues, std::size_t count, bool isMutable, Keys keys,
                                   PlistArena& arena);
  /// As `PlistRows::add`.
  static PlistValue makeRow(std::span<const PlistValue> keys, std::span<const std::uint64_t> numbers,
                            std::uint64_t absent, PlistArena& arena);

  /// Another handle on a value that only this thread can reach, without an atomic step.
  static PlistValue shareUnpublished(const PlistValue& value) noexcept {
    PlistValue copy;
    copy.cell_ = value.cell_;
    if (copy.holdsNode()) ++copy.node()->references;
    return copy;
  }
  static void markPlainKeys(PlistValue& dictionaryValue) noexcept { dictionaryValue.node()->hasPlainKeys = true; }
  static bool hasPlainKeys(const PlistValue& dictionaryValue) noexcept { return dictionaryValue.node()->hasPlainKeys; }

  /// Text longer than the handle holds, or data, by its node; and one more handle on it, as `shareUnpublished`.
  static PlistValue makeBytes(std::string_view bytes, bool isData, PlistArena& arena, BytesNode*& made) {
    made = newBytes(bytes, &arena);
    return adopt(made, isData ? PlistValue::Tag::data : PlistValue::Tag::string);
  }
  static PlistValue shareUnpublished(BytesNode* node, bool isData) noexcept {
    ++node->references;
    return adopt(node, isData ? PlistValue::Tag::data : PlistValue::Tag::string);
  }

  /// A tree of new mutable containers.
  static PlistValue deepCopy(const PlistValue& value, bool sharesLeaves);

  static constexpr std::size_t inlineCapacity = PlistValue::inlineCapacity;

  /// What finds a key in any dictionary. Requires: `key` is a string.
  static std::uint64_t hashOf(const PlistValue& key) noexcept;
  /// A dictionary's value for a key whose hash is known, nullptr for other kinds.
  static const PlistValue* find(const PlistValue& dictionaryValue, const PlistValue& key, std::uint64_t hash) noexcept;
  /// As `PlistValue::set`, through any handle.
  static bool set(const PlistValue& dictionaryValue, const PlistValue& key, std::uint64_t hash, PlistValue value);
  /// What tells one container from another. Requires: a container.
  static const void* identity(const PlistValue& container) noexcept { return container.node(); }

 private:
  friend class ostrel::PlistValue;
  class DeepCopy;

  static PlistValue adopt(Node* node, PlistValue::Tag tag) noexcept {
    PlistValue value;
    value.cell_.bits = reinterpret_cast<std::uintptr_t>(node);
    value.cell_.tag = tag;
    return value;
  }
  static PlistValue shortString(std::uint64_t low, std::uint64_t high, std::size_t length) noexcept {
    PlistValue made;
    std::memcpy(static_cast<void*>(&made.cell_), &low, 8);
    std::memcpy(reinterpret_cast<char*>(&made.cell_) + 8, &high, 8);
    made.cell_.length = static_cast<std::uint8_t>(length);
    made.cell_.tag = PlistValue::Tag::inlineString;
    return made;
  }
  static BytesNode* newBytes(std::size_t length);
  static BytesNode* newBytes(std::string_view bytes, PlistArena* arena);
  static ArrayNode* newArray(std::size_t capacity, bool isMutable, PlistArena* arena = nullptr);
  static DictionaryNode* newDictionary(std::size_t capacity, bool isMutable, PlistArena* arena = nullptr);
  static ArrayNode* array(const PlistValue& value) noexcept;
  static DictionaryNode* dictionary(const PlistValue& value) noexcept;

  static void reserveOneMore(ArrayNode* node);
  static void reserveOneMore(DictionaryNode* node);
  /// False when two keys are equal; the index is then incomplete.
  static bool rebuildIndex(DictionaryNode* node);
  static constexpr std::size_t notFound = std::numeric_limits<std::size_t>::max();
  static std::size_t position(const DictionaryNode* node, std::string_view key) noexcept;
  static std::size_t position(const DictionaryNode* node, const PlistValue& key, std::uint64_t hash) noexcept;
  template <class Matches>
  static std::size_t positionWhere(const DictionaryNode* node, std::uint64_t hash, Matches matches) noexcept;
  static void appendEntry(DictionaryNode* node, PlistValue key, PlistValue value);

  /// Frees what nobody holds any more, and what only that held.
  static void destroy(Doomed& doomed) noexcept;
  static void dropMembers(ContainerNode* node, Doomed& doomed) noexcept;
  static void drop(PlistValue& member, Doomed& doomed) noexcept;
  static void freeNode(Node* node, Doomed& doomed) noexcept;
  static void freeContainer(ContainerNode* node, Doomed& doomed) noexcept;
};

}  // namespace ostrel::detail
