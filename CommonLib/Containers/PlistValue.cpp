#include "Containers/PlistValue.h"

#include <sys/random.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <limits>
#include <memory>
#include <new>

#include "Containers/Internal/PlistStorage.h"
#include "Containers/Utf8.h"

namespace ostrel {

namespace detail {
namespace {

constexpr std::uint32_t smallDictionary = 12;  // up to here a scan beats the index
constexpr std::size_t notFound = std::numeric_limits<std::size_t>::max();
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

std::uint64_t hashOf(std::string_view text) noexcept {
  std::uint64_t hash = hashSeed() ^ text.size();
  const char* next = text.data();
  std::size_t left = text.size();
  for (; left > 8; next += 8, left -= 8) hash = mix(hash ^ word(next, 8), 0xA0761D6478BD642F);
  return mix(hash ^ word(next, left), 0xE7037ED1A0B428DB);
}

}  // namespace

// ---- slabs ----------------------------------------------------------------------------------------------------------

void* PlistArena::allocateElsewhere(std::size_t bytes, std::uint16_t& slabOffset) {
  if (bytes > largestNode) {
    slabOffset = 0;
    return detail::allocate(bytes);
  }
  close();
  const std::size_t size = std::clamp(expected_, std::size_t{512}, slabSize);
  const std::size_t fits = std::max(size & ~(grain - 1), grain + ((bytes + grain - 1) & ~(grain - 1)));
  slab_ = static_cast<char*>(detail::allocate(fits));
  new (slab_) Slab{filling};
  next_ = slab_ + grain;
  left_ = fits - grain;
  return allocate(bytes, slabOffset);
}

namespace {

void releaseSlabNodes(Slab* slab, std::uint32_t count) noexcept {
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

// ---- nodes ----------------------------------------------------------------------------------------------------------

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
  if (node->count > smallDictionary) return rebuildIndex(node) ? made : PlistValue();
  return keys == Keys::knownDistinct || keysAreDistinct(node->members, node->count) ? made : PlistValue();
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
    std::uint32_t slot = static_cast<std::uint32_t>(hashOf(node->members[i].keyText())) & node->indexMask;
    while (node->index[slot] != 0) {
      if (node->members[node->index[slot] - 1].key == node->members[i].key) return false;
      slot = (slot + 1) & node->indexMask;
    }
    node->index[slot] = i + 1;
  }
  return true;
}

std::size_t PlistStorage::position(const DictionaryNode* node, std::string_view key) noexcept {
  if (node->index != nullptr) {
    std::uint32_t slot = static_cast<std::uint32_t>(hashOf(key)) & node->indexMask;
    for (; node->index[slot] != 0; slot = (slot + 1) & node->indexMask) {
      if (node->members[node->index[slot] - 1].keyText() == key) return node->index[slot] - 1;
    }
    return notFound;
  }
  for (std::uint32_t i = 0; i < node->count; ++i) {
    if (node->members[i].keyText() == key) return i;
  }
  return notFound;
}

void PlistStorage::appendEntry(DictionaryNode* node, PlistValue key, PlistValue value) {
  reserveOneMore(node);
  new (node->members + node->count) PlistEntry{std::move(key), std::move(value)};
  ++node->count;
  if (node->index == nullptr || std::size_t{node->count} * 2 > std::size_t{node->indexMask} + 1) {
    rebuildIndex(node);
    return;
  }
  std::uint32_t slot = static_cast<std::uint32_t>(hashOf(node->members[node->count - 1].keyText())) & node->indexMask;
  while (node->index[slot] != 0) slot = (slot + 1) & node->indexMask;
  node->index[slot] = node->count;
}

// ---- the end of a value ---------------------------------------------------------------------------------------------

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

using detail::PlistStorage;

void PlistValue::releaseNode() noexcept {
  detail::Doomed doomed;
  PlistStorage::drop(*this, doomed);
  PlistStorage::destroy(doomed);
}

// ---- making values --------------------------------------------------------------------------------------------------

PlistValue::PlistValue(std::string_view text) : PlistValue(PlistStorage::makeString(text)) {}

PlistValue::PlistValue(PlistData data) {
  char* bytes = nullptr;
  *this = PlistStorage::allocateData(data.bytes.size(), bytes);
  if (!data.bytes.empty()) std::memcpy(bytes, data.bytes.data(), data.bytes.size());
}

PlistValue PlistValue::stringFromUTF8(std::string_view bytes) {
  return isValidUtf8(bytes) ? PlistValue(bytes) : PlistValue();
}

PlistValue PlistValue::mutableDictionary() {
  return PlistStorage::adopt(PlistStorage::newDictionary(0, true), Tag::dictionary);
}

PlistValue PlistValue::mutableArray() { return PlistStorage::adopt(PlistStorage::newArray(0, true), Tag::array); }

PlistValue PlistValue::mutableDictionaryOf(std::initializer_list<KeyValue> entries) {
  PlistValue made = mutableDictionary();
  for (const auto& [key, value] : entries) {
    if (value.isNull()) break;
    made.set(key, value);
  }
  return made;
}

PlistValue PlistValue::dictionaryOf(std::initializer_list<KeyValue> entries) {
  PlistValue made = mutableDictionaryOf(entries);
  made.node()->isMutable = false;
  return made;
}

PlistValue PlistValue::mutableArrayOf(std::initializer_list<PlistValue> elements) {
  PlistValue made = mutableArray();
  for (const PlistValue& element : elements) {
    if (!made.append(element)) break;
  }
  return made;
}

PlistValue PlistValue::arrayOf(std::initializer_list<PlistValue> elements) {
  PlistValue made = mutableArrayOf(elements);
  made.node()->isMutable = false;
  return made;
}

// ---- what it is -----------------------------------------------------------------------------------------------------

bool PlistValue::isMutable() const noexcept { return cell_.tag >= Tag::array && node()->isMutable; }

namespace {

/// The integer equal to a real, when there is one within 65 bits of sign and magnitude.
bool realEqualsInteger(double real, bool negative, std::uint64_t magnitude) noexcept {
  if (!(std::fabs(real) < 18446744073709551616.0) || real != std::trunc(real)) return false;
  return static_cast<std::uint64_t>(std::fabs(real)) == magnitude && (magnitude == 0 || (real < 0) == negative);
}

bool numbersEqual(const PlistValue& left, const PlistValue& right) noexcept {
  if (left.isReal() && right.isReal()) {
    const double a = left.doubleValue();
    const double b = right.doubleValue();
    return a == b || (std::isnan(a) && std::isnan(b));
  }
  if (left.isReal()) return numbersEqual(right, left);
  const bool negative = left.int64Value() < 0 && left.doubleValue() < 0;
  const std::uint64_t bits = left.uint64Value();
  if (right.isReal()) return realEqualsInteger(right.doubleValue(), negative, negative ? 0 - bits : bits);
  return bits == right.uint64Value() && negative == (right.int64Value() < 0 && right.doubleValue() < 0);
}

bool arraysEqual(const PlistValue& left, const PlistValue& right) noexcept {
  const auto a = left.elements();
  const auto b = right.elements();
  return std::equal(a.begin(), a.end(), b.begin(), b.end());
}

bool dictionariesEqual(const PlistValue& left, const PlistValue& right) noexcept {
  if (left.count() != right.count()) return false;
  return std::ranges::all_of(left.entries(), [&right](const PlistEntry& entry) {
    const PlistValue* other = right.find(entry.keyText());
    return other != nullptr && *other == entry.value;
  });
}

}  // namespace

bool operator==(const PlistValue& left, const PlistValue& right) noexcept {
  if (left.isIdentical(right)) return true;
  if (left.isNumber() && right.isNumber()) return numbersEqual(left, right);
  if (left.kind() != right.kind()) return false;
  switch (left.kind()) {
    case PlistValue::Kind::string:
      return left.stringValue() == right.stringValue();
    case PlistValue::Kind::data:
      return left.dataBytes() == right.dataBytes();
    case PlistValue::Kind::date:
      return left.dateValue() == right.dateValue();
    case PlistValue::Kind::array:
      return arraysEqual(left, right);
    case PlistValue::Kind::dictionary:
      return dictionariesEqual(left, right);
    default:
      return false;
  }
}

// ---- leaves ---------------------------------------------------------------------------------------------------------

std::int64_t PlistValue::int64Value() const noexcept {
  if (cell_.tag != Tag::real) return static_cast<std::int64_t>(uint64Value());
  const double real = realBits();
  if (std::isnan(real)) return 0;
  if (real >= 9223372036854775808.0) return std::numeric_limits<std::int64_t>::max();
  if (real < -9223372036854775808.0) return std::numeric_limits<std::int64_t>::min();
  return static_cast<std::int64_t>(real);
}

std::uint64_t PlistValue::uint64Value() const noexcept {
  if (isInteger() || isBoolean()) return cell_.bits;
  if (cell_.tag != Tag::real) return 0;
  const double real = realBits();
  if (!(real > 0)) return 0;
  if (real >= 18446744073709551616.0) return std::numeric_limits<std::uint64_t>::max();
  return static_cast<std::uint64_t>(real);
}

double PlistValue::doubleValue() const noexcept {
  switch (cell_.tag) {
    case Tag::real:
      return realBits();
    case Tag::integer:
      return static_cast<double>(static_cast<std::int64_t>(cell_.bits));
    case Tag::bigInteger:
    case Tag::boolean:
      return static_cast<double>(cell_.bits);
    default:
      return 0;
  }
}

bool PlistValue::boolValue() const noexcept {
  if (cell_.tag == Tag::real) return realBits() != 0;
  return (isInteger() || isBoolean()) && cell_.bits != 0;
}

PlistDate PlistValue::dateValue() const noexcept { return PlistDate{isDate() ? realBits() : 0}; }

// ---- containers -----------------------------------------------------------------------------------------------------

std::size_t PlistValue::count() const noexcept {
  return cell_.tag >= Tag::array ? static_cast<detail::ContainerNode*>(node())->count : 0;
}

std::span<const PlistEntry> PlistValue::entries() const noexcept {
  const auto* dictionary = PlistStorage::dictionary(*this);
  return dictionary == nullptr ? std::span<const PlistEntry>() : std::span(dictionary->members, dictionary->count);
}

std::span<const PlistValue> PlistValue::elements() const noexcept {
  const auto* array = PlistStorage::array(*this);
  return array == nullptr ? std::span<const PlistValue>() : std::span(array->members, array->count);
}

const PlistValue* PlistValue::find(std::string_view key) const noexcept {
  const auto* dictionary = PlistStorage::dictionary(*this);
  if (dictionary == nullptr) return nullptr;
  const std::size_t position = PlistStorage::position(dictionary, key);
  return position == detail::notFound ? nullptr : &dictionary->members[position].value;
}

bool PlistValue::set(std::string_view key, PlistValue value) {
  auto* dictionary = PlistStorage::dictionary(*this);
  if (dictionary == nullptr || !dictionary->isMutable || value.isNull() || value.isIdentical(*this)) return false;
  const std::size_t position = PlistStorage::position(dictionary, key);
  if (position == detail::notFound) {
    PlistStorage::appendEntry(dictionary, PlistValue(key), std::move(value));
  } else {
    dictionary->members[position].value = std::move(value);
  }
  return true;
}

bool PlistValue::remove(std::string_view key) {
  auto* dictionary = PlistStorage::dictionary(*this);
  if (dictionary == nullptr || !dictionary->isMutable) return false;
  const std::size_t position = PlistStorage::position(dictionary, key);
  if (position == detail::notFound) return false;
  PlistEntry* end = dictionary->members + dictionary->count;
  std::move(dictionary->members + position + 1, end, dictionary->members + position);
  (end - 1)->~PlistEntry();
  --dictionary->count;
  PlistStorage::rebuildIndex(dictionary);
  return true;
}

bool PlistValue::append(PlistValue value) { return insert(count(), std::move(value)); }

bool PlistValue::insert(std::size_t index, PlistValue value) {
  auto* array = PlistStorage::array(*this);
  if (array == nullptr || !array->isMutable || value.isNull() || value.isIdentical(*this)) return false;
  if (index > array->count) return false;
  PlistStorage::reserveOneMore(array);
  new (array->members + array->count) PlistValue(std::move(value));
  ++array->count;
  std::rotate(array->members + index, array->members + array->count - 1, array->members + array->count);
  return true;
}

bool PlistValue::replace(std::size_t index, PlistValue value) {
  auto* array = PlistStorage::array(*this);
  if (array == nullptr || !array->isMutable || value.isNull() || value.isIdentical(*this)) return false;
  if (index >= array->count) return false;
  array->members[index] = std::move(value);
  return true;
}

bool PlistValue::removeAt(std::size_t index) {
  auto* array = PlistStorage::array(*this);
  if (array == nullptr || !array->isMutable || index >= array->count) return false;
  PlistValue* end = array->members + array->count;
  std::move(array->members + index + 1, end, array->members + index);
  (end - 1)->~PlistValue();
  --array->count;
  return true;
}

std::size_t PlistValue::removeIdentical(const PlistValue& value) {
  auto* array = PlistStorage::array(*this);
  if (array == nullptr || !array->isMutable) return 0;
  const PlistValue wanted = value;  // `value` may be one of the elements
  PlistValue* end = array->members + array->count;
  PlistValue* kept = std::remove_if(array->members, end, [&](const PlistValue& e) { return e.isIdentical(wanted); });
  const auto removed = static_cast<std::size_t>(end - kept);
  std::destroy(kept, end);
  array->count -= static_cast<std::uint32_t>(removed);
  return removed;
}

bool PlistValue::clear() {
  if (!isMutable()) return false;
  auto* container = static_cast<detail::ContainerNode*>(node());
  detail::Doomed doomed;
  PlistStorage::dropMembers(container, doomed);
  PlistStorage::destroy(doomed);
  return true;
}

// ---- copies ---------------------------------------------------------------------------------------------------------

namespace {

enum class Leaves { shared, copied };

PlistValue copyLeaf(const PlistValue& value) {
  if (value.isString()) return {value.stringValue()};
  if (value.isData()) return PlistData{value.dataBytes()};
  return value;
}

PlistValue deepCopy(const PlistValue& value, Leaves leaves) {
  if (value.isDictionary()) {
    PlistValue copy = PlistValue::mutableDictionary();
    for (const PlistEntry& entry : value.entries()) copy.set(entry.keyText(), deepCopy(entry.value, leaves));
    return copy;
  }
  if (value.isArray()) {
    PlistValue copy = PlistValue::mutableArray();
    for (const PlistValue& element : value.elements()) copy.append(deepCopy(element, leaves));
    return copy;
  }
  return leaves == Leaves::shared ? value : copyLeaf(value);
}

}  // namespace

PlistValue PlistValue::mutableCopy() const {
  const std::size_t members = count();
  if (const auto* source = PlistStorage::array(*this)) {
    auto* copy = PlistStorage::newArray(members, true);
    std::uninitialized_copy_n(source->members, members, copy->members);
    copy->count = source->count;
    return PlistStorage::adopt(copy, Tag::array);
  }
  if (const auto* source = PlistStorage::dictionary(*this)) {
    auto* copy = PlistStorage::newDictionary(members, true);
    std::uninitialized_copy_n(source->members, members, copy->members);
    copy->count = source->count;
    PlistValue made = PlistStorage::adopt(copy, Tag::dictionary);
    PlistStorage::rebuildIndex(copy);
    return made;
  }
  return *this;
}

PlistValue PlistValue::immutableCopy() const {
  if (!isMutable()) return *this;
  PlistValue copy = mutableCopy();
  copy.node()->isMutable = false;
  return copy;
}

PlistValue PlistValue::deepMutableCopy() const { return deepCopy(*this, Leaves::copied); }
PlistValue PlistValue::deepMutableStructureCopy() const { return deepCopy(*this, Leaves::shared); }

}  // namespace ostrel
