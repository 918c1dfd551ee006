// How values live on the heap: slabs, nodes, the index of a dictionary, the end of a value.
#include "Containers/Internal/PlistStorage.h"

#include <sys/random.h>

#include <algorithm>
#include <cstdlib>
#include <limits>
#include <new>
#include <utility>

namespace ostrel {

namespace detail {
namespace {

constexpr std::uint32_t smallDictionary = 12;  // up to here a scan beats the index
constexpr std::size_t maximumCount = std::numeric_limits<std::uint32_t>::max() / 4;

void* allocate(std::size_t bytes) {
  void* memory = std::malloc(bytes);
  if (memory == nullptr) throw std::bad_alloc();
  return memory;
}

/// A secret of this process in every hash: whoever sends keys cannot choose them to collide.
std::uint64_t hashSeed() noexcept {
  static const std::uint64_t seed = [] {
    std::uint64_t value = 0x9E3779B97F4A7C15;
    if (getrandom(&value, sizeof value, 0) != static_cast<ssize_t>(sizeof value)) {
      value ^= reinterpret_cast<std::uintptr_t>(&value);  // the randomised stack is the next best secret
    }
    return value;
  }();
  return seed;
}

std::uint64_t mix(std::uint64_t a, std::uint64_t b) noexcept {
  __extension__ using Wide = unsigned __int128;
  const Wide product = static_cast<Wide>(a) * b;
  return static_cast<std::uint64_t>(product) ^ static_cast<std::uint64_t>(product >> 64);
}

std::uint64_t word(const char* bytes, std::size_t count) noexcept {
  std::uint64_t value = 0;
  std::memcpy(&value, bytes, count);
  return value;
}

/// Of text that is too long for a handle.
std::uint64_t hashOfText(std::string_view text) noexcept {
  std::uint64_t hash = hashSeed() ^ text.size();
  const char* next = text.data();
  std::size_t left = text.size();
  for (; left > 8; next += 8, left -= 8) hash = mix(hash ^ word(next, 8), 0xA0761D6478BD642F);
  return mix(hash ^ word(next, left), 0xE7037ED1A0B428DB);
}

/// Of a handle that holds its own text: equal text is the same sixteen bytes.
std::uint64_t hashOfHandle(const PlistValue& key) noexcept {
  const char* bytes = reinterpret_cast<const char*>(&key);
  const std::uint64_t first = mix(hashSeed() ^ word(bytes, 8), 0xA0761D6478BD642F);
  return mix(first ^ word(bytes + 8, 8), 0xE7037ED1A0B428DB);
}

}  // namespace

// Slabs.

void* PlistArena::allocateElsewhere(std::size_t bytes, std::uint16_t& slabOffset) {
  if (bytes > largestNode) {
    slabOffset = 0;
    return detail::allocate(bytes);
  }
  close();
  const std::size_t size = std::clamp(expected_, std::size_t{512}, slabSize);
  if (expected_ < slabSize) expected_ *= 2;  // the guess was too low
  const std::size_t fits = std::max(size & ~(grain - 1), grain + ((bytes + grain - 1) & ~(grain - 1)));
  slab_ = static_cast<char*>(detail::allocate(fits));
  new (slab_) Slab{filling};
  next_ = slab_ + grain;
  left_ = fits - grain;
  return allocate(bytes, slabOffset);
}

namespace {

void releaseSlabNodes(Slab* slab, std::uint32_t count) noexcept {
  // NOLINTNEXTLINE(clang-analyzer-core.CallAndMessage): nodes of a slab have one; the analyzer assumes some have not
  if (slab->live.fetch_sub(count, std::memory_order_acq_rel) == count) std::free(slab);
}

}  // namespace

void PlistArena::close() noexcept {
  if (slab_ == nullptr) return;
  releaseSlabNodes(reinterpret_cast<Slab*>(slab_), filling - made_);
  slab_ = nullptr;
  left_ = 0;
  made_ = 0;
}

// Nodes.

namespace {

template <class NodeType>
NodeType* newNode(std::size_t bytes, PlistArena* arena) {
  std::uint16_t slabOffset = 0;
  void* memory = arena == nullptr ? allocate(bytes) : arena->allocate(bytes, slabOffset);
  auto* node = new (memory) NodeType;
  node->slabOffset = slabOffset;
  return node;
}

}  // namespace

BytesNode* PlistStorage::newBytes(std::size_t length) {
  if (length > std::numeric_limits<std::size_t>::max() - sizeof(BytesNode)) throw std::bad_alloc();
  auto* node = newNode<BytesNode>(sizeof(BytesNode) + length, nullptr);
  node->length = length;
  return node;
}

BytesNode* PlistStorage::newBytes(std::string_view bytes, PlistArena* arena) {
  auto* node = newNode<BytesNode>(sizeof(BytesNode) + bytes.size(), arena);
  node->length = bytes.size();
  if (!bytes.empty()) std::memcpy(node->bytes(), bytes.data(), bytes.size());
  return node;
}

ArrayNode* PlistStorage::newArray(std::size_t capacity, bool isMutable, PlistArena* arena) {
  if (capacity > maximumCount) throw std::bad_alloc();
  auto* node = newNode<ArrayNode>(sizeof(ArrayNode) + capacity * sizeof(PlistValue), arena);
  node->isMutable = isMutable;
  node->capacity = static_cast<std::uint32_t>(capacity);
  node->members = node->ownStorage();
  return node;
}

DictionaryNode* PlistStorage::newDictionary(std::size_t capacity, bool isMutable, PlistArena* arena) {
  if (capacity > maximumCount) throw std::bad_alloc();
  auto* node = newNode<DictionaryNode>(sizeof(DictionaryNode) + capacity * sizeof(PlistEntry), arena);
  node->isMutable = isMutable;
  node->isDictionary = true;
  node->capacity = static_cast<std::uint32_t>(capacity);
  node->members = node->ownStorage();
  return node;
}

ArrayNode* PlistStorage::array(const PlistValue& value) noexcept {
  return value.isArray() ? static_cast<ArrayNode*>(value.node()) : nullptr;
}

DictionaryNode* PlistStorage::dictionary(const PlistValue& value) noexcept {
  return value.isDictionary() ? static_cast<DictionaryNode*>(value.node()) : nullptr;
}

PlistValue PlistStorage::allocateData(std::size_t length, char*& bytes) {
  BytesNode* node = newBytes(length);
  bytes = node->bytes();
  return adopt(node, PlistValue::Tag::data);
}

void PlistStorage::shrinkData(PlistValue& data, std::size_t length) noexcept {
  auto* node = static_cast<BytesNode*>(data.node());
  const std::size_t unused = node->length - length;
  node->length = length;
  if (unused < length / 16) return;
  if (void* smaller = std::realloc(static_cast<void*>(node), sizeof(BytesNode) + length); smaller != nullptr) {
    data.cell_.bits = reinterpret_cast<std::uintptr_t>(smaller);
  }
}

PlistValue PlistStorage::makeArray(PlistValue* members, std::size_t count, bool isMutable, PlistArena& arena) {
  ArrayNode* node = newArray(count, isMutable, &arena);
  if (count != 0) std::memcpy(static_cast<void*>(node->members), static_cast<void*>(members), count * sizeof *members);
  node->count = static_cast<std::uint32_t>(count);
  return adopt(node, PlistValue::Tag::array);
}

namespace {

bool keysAreDistinct(const PlistEntry* members, std::uint32_t count) noexcept {
  for (std::uint32_t i = 1; i < count; ++i) {
    const std::string_view key = members[i].keyText();
    for (std::uint32_t j = 0; j < i; ++j) {
      if (members[j].keyText() == key) return false;
    }
  }
  return true;
}

}  // namespace

PlistValue PlistStorage::makeDictionary(PlistValue* keysAndValues, std::size_t count, bool isMutable, Keys keys,
                                        PlistArena& arena) {
  static_assert(sizeof(PlistEntry) == 2 * sizeof(PlistValue));
  DictionaryNode* node = newDictionary(count, isMutable, &arena);
  PlistValue made = adopt(node, PlistValue::Tag::dictionary);
  if (count != 0) {
    std::memcpy(static_cast<void*>(node->members), static_cast<void*>(keysAndValues), count * sizeof(PlistEntry));
  }
  node->count = static_cast<std::uint32_t>(count);
  if (node->count > smallDictionary) {
    try {
      return rebuildIndex(node) ? made : PlistValue();
    } catch (...) {
      node->count = 0;  // the members stay the caller's
      throw;
    }
  }
  return keys == Keys::knownDistinct || keysAreDistinct(node->members, node->count) ? made : PlistValue();
}

PlistValue PlistStorage::makeRow(std::span<const PlistValue> keys, std::span<const std::uint64_t> numbers,
                                 std::uint64_t absent, PlistArena& arena) {
  DictionaryNode* node = newDictionary(keys.size(), true, &arena);
  PlistValue made = adopt(node, PlistValue::Tag::dictionary);
  PlistEntry* next = node->members;
  for (std::size_t i = 0; i < keys.size(); ++i) {
    if (i == 0 || numbers[i] != absent) new (static_cast<void*>(next++)) PlistEntry{keys[i], numbers[i]};
  }
  node->count = static_cast<std::uint32_t>(next - node->members);
  if (node->count > smallDictionary) rebuildIndex(node);
  return made;
}

namespace {

/// Moves the members of a container to room for `capacity` of them. Handles may be moved as bytes: they hold no
/// pointer to themselves.
template <class Member, class ContainerNodeType>
void growTo(ContainerNodeType* node, std::size_t capacity) {
  if (capacity > maximumCount) throw std::bad_alloc();
  const std::size_t bytes = capacity * sizeof(Member);
  void* grown = nullptr;
  if (node->members == node->ownStorage()) {
    grown = allocate(bytes);
    std::memcpy(grown, static_cast<const void*>(node->members), node->count * sizeof(Member));
  } else {
    grown = std::realloc(static_cast<void*>(node->members), bytes);
    if (grown == nullptr) throw std::bad_alloc();
  }
  node->members = static_cast<Member*>(grown);
  node->capacity = static_cast<std::uint32_t>(capacity);
}

std::size_t grownCapacity(std::size_t capacity) noexcept { return capacity < 4 ? 4 : capacity + capacity / 2; }

}  // namespace

void PlistStorage::reserveOneMore(ArrayNode* node) {
  if (node->count == node->capacity) growTo<PlistValue>(node, grownCapacity(node->capacity));
}

void PlistStorage::reserveOneMore(DictionaryNode* node) {
  if (node->count == node->capacity) growTo<PlistEntry>(node, grownCapacity(node->capacity));
}

bool PlistStorage::rebuildIndex(DictionaryNode* node) {
  std::free(std::exchange(node->index, nullptr));
  if (node->count <= smallDictionary) return true;
  std::size_t slots = 32;
  while (slots < std::size_t{node->count} * 2) slots *= 2;
  node->index = static_cast<std::uint32_t*>(std::calloc(slots, sizeof(std::uint32_t)));
  if (node->index == nullptr) throw std::bad_alloc();
  node->indexMask = static_cast<std::uint32_t>(slots - 1);
  for (std::uint32_t i = 0; i < node->count; ++i) {
    std::uint32_t slot = static_cast<std::uint32_t>(hashOf(node->members[i].key)) & node->indexMask;
    while (node->index[slot] != 0) {
      if (node->members[node->index[slot] - 1].key == node->members[i].key) return false;
      slot = (slot + 1) & node->indexMask;
    }
    node->index[slot] = i + 1;
  }
  return true;
}

std::uint64_t PlistStorage::hashOf(const PlistValue& key) noexcept {
  return key.cell_.tag == PlistValue::Tag::inlineString ? hashOfHandle(key) : hashOfText(key.stringView());
}

template <class Matches>
std::size_t PlistStorage::positionWhere(const DictionaryNode* node, std::uint64_t hash, Matches matches) noexcept {
  std::uint32_t slot = static_cast<std::uint32_t>(hash) & node->indexMask;
  for (; node->index[slot] != 0; slot = (slot + 1) & node->indexMask) {
    if (matches(node->members[node->index[slot] - 1].key)) return node->index[slot] - 1;
  }
  return notFound;
}

namespace {

/// Most dictionaries are small and most keys fit a handle: this is the inner loop of every path.
std::size_t scan(const DictionaryNode* node, const PlistValue& key) noexcept {
  std::uint64_t wanted[2];
  static_assert(sizeof wanted == sizeof key);
  std::memcpy(wanted, static_cast<const void*>(&key), sizeof wanted);
  const PlistEntry* const end = node->members + node->count;
  for (const PlistEntry* member = node->members; member != end; ++member) {
    std::uint64_t words[2];
    std::memcpy(words, static_cast<const void*>(&member->key), sizeof words);
    if (words[0] == wanted[0] && words[1] == wanted[1]) return static_cast<std::size_t>(member - node->members);
  }
  return std::numeric_limits<std::size_t>::max();
}

/// Text that fits a handle is the same as another exactly when the handles are.
struct SameHandle {
  const PlistValue& key;
  bool operator()(const PlistValue& other) const noexcept { return other.isIdentical(key); }
};

struct SameLongText {
  std::string_view key;
  bool operator()(const PlistValue& other) const noexcept { return other.stringValue() == key; }
};

[[gnu::noinline]] std::size_t scan(const DictionaryNode* node, SameLongText matches) noexcept {  // rare
  for (std::uint32_t i = 0; i < node->count; ++i) {
    if (matches(node->members[i].key)) return i;
  }
  return std::numeric_limits<std::size_t>::max();
}

}  // namespace

std::size_t PlistStorage::position(const DictionaryNode* node, std::string_view key) noexcept {
  if (key.size() <= inlineCapacity) {
    const PlistValue handle = shortString(key);
    if (node->index == nullptr) return scan(node, handle);
    return positionWhere(node, hashOfHandle(handle), SameHandle{handle});
  }
  if (node->index == nullptr) return scan(node, SameLongText{key});
  return positionWhere(node, hashOfText(key), SameLongText{key});
}

std::size_t PlistStorage::position(const DictionaryNode* node, const PlistValue& key, std::uint64_t hash) noexcept {
  if (key.cell_.tag == PlistValue::Tag::inlineString) {
    return node->index == nullptr ? scan(node, key) : positionWhere(node, hash, SameHandle{key});
  }
  const SameLongText matches{key.dataView()};
  return node->index == nullptr ? scan(node, matches) : positionWhere(node, hash, matches);
}

const PlistValue* PlistStorage::find(const PlistValue& dictionaryValue, const PlistValue& key,
                                     std::uint64_t hash) noexcept {
  const DictionaryNode* node = dictionary(dictionaryValue);
  if (node == nullptr) return nullptr;
  const std::size_t found = position(node, key, hash);
  return found == notFound ? nullptr : &node->members[found].value;
}

bool PlistStorage::set(const PlistValue& dictionaryValue, const PlistValue& key, std::uint64_t hash, PlistValue value) {
  DictionaryNode* node = dictionary(dictionaryValue);
  if (node == nullptr || !node->isMutable || value.isNull() || value.isIdentical(dictionaryValue)) return false;
  const std::size_t found = position(node, key, hash);
  if (found == notFound) {
    appendEntry(node, key, std::move(value));
  } else {
    node->members[found].value = std::move(value);
  }
  return true;
}

void PlistStorage::appendEntry(DictionaryNode* node, PlistValue key, PlistValue value) {
  reserveOneMore(node);
  new (node->members + node->count) PlistEntry{std::move(key), std::move(value)};
  ++node->count;
  if (node->index == nullptr || std::size_t{node->count} * 2 > std::size_t{node->indexMask} + 1) {
    rebuildIndex(node);
    return;
  }
  std::uint32_t slot = static_cast<std::uint32_t>(hashOf(node->members[node->count - 1].key)) & node->indexMask;
  while (node->index[slot] != 0) slot = (slot + 1) & node->indexMask;
  node->index[slot] = node->count;
}

// The end of a value.

void PlistStorage::freeNode(Node* node, Doomed& doomed) noexcept {
  if (node->slabOffset == 0) {
    std::free(static_cast<void*>(node));
    return;
  }
  auto* slab = reinterpret_cast<Slab*>(reinterpret_cast<char*>(node) - node->slabOffset * PlistArena::grain);
  if (slab != doomed.slab) {
    if (doomed.slabNodes != 0) releaseSlabNodes(doomed.slab, doomed.slabNodes);
    doomed.slab = slab;
    doomed.slabNodes = 0;
  }
  ++doomed.slabNodes;
}

namespace {

/// True when this was the last share. A sole owner need not count: nobody else can take a share.
bool dropShare(Node* node) noexcept {
  const std::atomic_ref references(node->references);
  return references.load(std::memory_order_acquire) == 1 || references.fetch_sub(1, std::memory_order_acq_rel) == 1;
}

}  // namespace

/// Drops one share of a member: a leaf that nobody else holds is freed at once, a container joins the doomed.
void PlistStorage::drop(PlistValue& member, Doomed& doomed) noexcept {
  if (!member.holdsNode()) return;
  Node* node = member.node();
  if (!dropShare(node)) return;
  if (member.cell_.tag < PlistValue::Tag::array) {
    freeNode(node, doomed);
    return;
  }
  auto* container = static_cast<ContainerNode*>(node);
  container->nextDoomed = doomed.containers;
  doomed.containers = container;
}

void PlistStorage::dropMembers(ContainerNode* node, Doomed& doomed) noexcept {
  const std::uint32_t count = std::exchange(node->count, 0);
  if (node->isDictionary) {
    auto* dictionary = static_cast<DictionaryNode*>(node);
    for (std::uint32_t i = 0; i < count; ++i) {
      drop(dictionary->members[i].key, doomed);
      drop(dictionary->members[i].value, doomed);
    }
    std::free(std::exchange(dictionary->index, nullptr));
  } else {
    auto* array = static_cast<ArrayNode*>(node);
    for (std::uint32_t i = 0; i < count; ++i) drop(array->members[i], doomed);
  }
}

void PlistStorage::freeContainer(ContainerNode* node, Doomed& doomed) noexcept {
  if (node->isDictionary) {
    auto* dictionary = static_cast<DictionaryNode*>(node);
    if (dictionary->members != dictionary->ownStorage()) std::free(static_cast<void*>(dictionary->members));
  } else {
    auto* array = static_cast<ArrayNode*>(node);
    if (array->members != array->ownStorage()) std::free(static_cast<void*>(array->members));
  }
  freeNode(node, doomed);
}

void PlistStorage::destroy(Doomed& doomed) noexcept {
  while (doomed.containers != nullptr) {
    ContainerNode* node = doomed.containers;
    doomed.containers = node->nextDoomed;
    dropMembers(node, doomed);
    freeContainer(node, doomed);
  }
  if (doomed.slabNodes != 0) releaseSlabNodes(doomed.slab, doomed.slabNodes);
}

}  // namespace detail

void PlistValue::releaseNode() noexcept {
  detail::Doomed doomed;
  detail::PlistStorage::drop(*this, doomed);
  detail::PlistStorage::destroy(doomed);
}

}  // namespace ostrel
