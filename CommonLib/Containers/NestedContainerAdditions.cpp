// Arrays of dictionaries that are addressed by key, and what arrays and dictionaries answer alike.
#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <unordered_set>
#include <utility>
#include <vector>

#include "Containers/Internal/NestedAccess.h"
#include "Containers/PlistValue.h"
#include "Containers/PropertyList.h"

namespace ostrel {

namespace detail {
namespace {

struct KnownKey {
  explicit KnownKey(std::string_view text) : key(text), hash(PlistStorage::hashOf(key)) {}
  PlistValue key;
  std::uint64_t hash;
};

const KnownKey& idKey() noexcept {
  static const KnownKey id("_id_");
  return id;
}

/// The last element whose key `matches`; nullptr when any element has no key.
template <class Matches>
const PlistValue* lastMatch(const PlistValue& array, Matches matches) noexcept {
  const PlistValue* found = nullptr;
  for (const PlistValue& element : array.elements()) {
    const PlistValue* key = elementKey(element);
    if (key == nullptr) return nullptr;
    if (matches(*key)) found = &element;
  }
  return found;
}

}  // namespace

const PlistValue* elementKey(const PlistValue& element) noexcept {
  const PlistValue* key = PlistStorage::find(element, idKey().key, idKey().hash);
  return key != nullptr && key->isString() ? key : nullptr;
}

const PlistValue* findObject(const PlistValue& container, std::string_view key) noexcept {
  if (container.isDictionary()) return container.find(key);
  if (!container.isArray() || key.data() == nullptr) return nullptr;
  return lastMatch(container, [key](const PlistValue& other) { return other.stringValue() == key; });
}

const PlistValue* findObject(const PlistValue& container, const PlistValue& key, std::uint64_t hash) noexcept {
  if (container.isDictionary()) return PlistStorage::find(container, key, hash);
  if (!container.isArray()) return nullptr;
  if (key.stringValue().size() > PlistStorage::inlineCapacity) return findObject(container, key.stringValue());
  return lastMatch(container, [&key](const PlistValue& other) { return other.isIdentical(key); });
}

const PlistValue* findNestedObject(const PlistValue& root, std::string_view path) {
  const PlistValue* current = &root;
  ComponentScanner scanner(path, pathSeparator);
  for (std::string_view component; current != nullptr && scanner.next(component);) {
    current = findObject(*current, component);
  }
  return current;
}

namespace {

/// Calls `enters` for the value and what is below it: containers for which it is true are walked through.
template <class Enters>
void walkContainers(const PlistValue& value, Enters enters) {
  std::vector<const PlistValue*> open;
  const auto visit = [&](const PlistValue& member) {
    if (isContainer(member) && enters(PlistStorage::identity(member))) open.push_back(&member);
  };
  for (visit(value); !open.empty();) {
    const PlistValue& container = *open.back();
    open.pop_back();
    for (const PlistEntry& entry : container.entries()) visit(entry.value);
    for (const PlistValue& element : container.elements()) visit(element);
  }
}

}  // namespace

ContainerSet::ContainerSet(const PlistValue& value) {
  walkContainers(value, [this](const void* container) {
    const bool isNew = members_.insert(container).second;
    isTree_ = isTree_ && isNew;
    return isNew;
  });
}

void ContainerSet::handOver(const PlistValue& part) {
  if (isTree_) walkContainers(part, [this](const void* container) { return members_.erase(container) != 0; });
}

}  // namespace detail

bool PlistValue::isArrayOfDictionaries() const noexcept {
  const auto hasKey = [](const PlistValue& element) { return detail::elementKey(element) != nullptr; };
  return count() != 0 && isArray() && std::ranges::all_of(elements(), hasKey);
}

PlistValue PlistValue::objectForKey(std::string_view key) const noexcept {
  const PlistValue* found = detail::findObject(*this, key);
  return found == nullptr ? PlistValue() : *found;
}

PlistValue PlistValue::allKeys() const {
  PlistValue keys = mutableArray();
  for (const PlistEntry& entry : entries()) keys.append(entry.key);
  for (const PlistValue& element : elements()) {
    if (const PlistValue* key = detail::elementKey(element); key != nullptr) keys.append(*key);
  }
  return keys.immutableCopy();
}

PlistValue PlistValue::allValues() const {
  if (isArray()) return *this;
  PlistValue values = mutableArray();
  for (const PlistEntry& entry : entries()) values.append(entry.value);
  return values.immutableCopy();
}

PlistValue PlistValue::dictionaryRepresentation() const {
  if (isDictionary()) return immutableCopy();
  PlistValue made = mutableDictionary();
  for (const PlistValue& element : elements()) {
    if (const PlistValue* key = detail::elementKey(element); key != nullptr) made.set(key->stringView(), element);
  }
  return made.immutableCopy();
}

namespace {

struct Hash {
  std::size_t operator()(const PlistValue* value) const { return of(*value, 0); }

 private:
  /// Equal values have equal hashes; nobody outside can choose values that collide.
  static std::uint64_t of(const PlistValue& value, std::size_t depth) {
    switch (value.kind()) {
      case PlistValue::Kind::string:
        return detail::PlistStorage::hashOf(value);
      case PlistValue::Kind::data:
        return detail::PlistStorage::hashOf(PlistValue(value.dataBytes()));
      case PlistValue::Kind::number:
      case PlistValue::Kind::boolean:
        return ofReal(value.doubleValue());
      case PlistValue::Kind::date:
        return ofReal(value.dateValue().secondsSince1970);
      default:
        return depth < maximumPlistDepth ? ofMembers(value, depth + 1) : value.count();
    }
  }
  static std::uint64_t ofReal(double real) {
    if (real == 0) real = 0;  // both zeros are equal
    char bytes[sizeof real];
    std::memcpy(bytes, &real, sizeof real);
    return std::isnan(real) ? 1 : detail::PlistStorage::hashOf(PlistValue(std::string_view(bytes, sizeof bytes)));
  }
  static std::uint64_t ofMembers(const PlistValue& container, std::size_t depth) {
    std::uint64_t hash = container.count();
    // A sum, because the order of keys does not matter.
    for (const PlistEntry& entry : container.entries()) {
      hash += mixed(detail::PlistStorage::hashOf(entry.key) ^ mixed(of(entry.value, depth)));
    }
    for (const PlistValue& element : container.elements()) hash = mixed(hash) + of(element, depth);
    return hash;
  }
  static std::uint64_t mixed(std::uint64_t hash) { return (hash ^ hash >> 29) * 0x9E3779B97F4A7C15; }
};

struct Equal {
  bool operator()(const PlistValue* left, const PlistValue* right) const { return *left == *right; }
};

}  // namespace

bool PlistValue::intersectsArray(const PlistValue& other) const {
  std::unordered_set<const PlistValue*, Hash, Equal> known;
  for (const PlistValue& element : elements()) known.insert(&element);
  const auto isKnown = [&known](const PlistValue& element) { return known.contains(&element); };
  return !known.empty() && std::ranges::any_of(other.elements(), isKnown);
}

bool PlistValue::removeObjectForKey(std::string_view key) {
  if (isDictionary()) return remove(key);
  if (!isMutable() || key.data() == nullptr || !isArrayOfDictionaries()) return false;
  const auto all = elements();
  const auto found = std::ranges::find_if(
      all, [key](const PlistValue& element) { return detail::elementKey(element)->stringValue() == key; });
  return found != all.end() && removeAt(static_cast<std::size_t>(found - all.begin()));
}

}  // namespace ostrel
