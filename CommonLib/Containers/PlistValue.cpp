#include "Containers/PlistValue.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <memory>
#include <new>
#include <vector>

#include "Containers/Internal/PlistStorage.h"
#include "Containers/PropertyList.h"
#include "Containers/Utf8.h"

namespace ostrel {

using detail::PlistStorage;

// Making values.

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

// What it is.

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

/// Nothing bounds the depth of a value that a program builds: containers too deep for the call stack are put off.
class Comparison {
 public:
  bool areEqual(const PlistValue& left, const PlistValue& right) {
    if (!alike(left, right, 0)) return false;
    while (!putOff_.empty()) {
      const auto [a, b] = putOff_.back();
      putOff_.pop_back();
      if (!membersAlike(*a, *b, 0)) return false;
    }
    return true;
  }

 private:
  bool alike(const PlistValue& left, const PlistValue& right, std::size_t depth) {
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
      case PlistValue::Kind::dictionary:
        if (left.count() != right.count()) return false;
        if (depth < maximumPlistDepth) return membersAlike(left, right, depth + 1);
        putOff_.emplace_back(&left, &right);
        return true;
      default:
        return false;
    }
  }

  bool membersAlike(const PlistValue& left, const PlistValue& right, std::size_t depth) {
    const auto sameElement = [&](const PlistValue& a, const PlistValue& b) { return alike(a, b, depth); };
    const auto sameEntry = [&](const PlistEntry& entry) {
      const PlistValue* other = right.find(entry.keyText());
      return other != nullptr && alike(entry.value, *other, depth);
    };
    return std::ranges::equal(left.elements(), right.elements(), sameElement) &&
           std::ranges::all_of(left.entries(), sameEntry);
  }

  std::vector<std::pair<const PlistValue*, const PlistValue*>> putOff_;
};

}  // namespace

bool operator==(const PlistValue& left, const PlistValue& right) { return Comparison().areEqual(left, right); }

// Leaves.

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

// Containers.

std::size_t PlistValue::count() const noexcept {
  return cell_.tag >= Tag::array ? static_cast<detail::ContainerNode*>(node())->count : 0;
}

std::span<const PlistEntry> PlistValue::entries() const& noexcept {
  const auto* dictionary = PlistStorage::dictionary(*this);
  return dictionary == nullptr ? std::span<const PlistEntry>() : std::span(dictionary->members, dictionary->count);
}

std::span<const PlistValue> PlistValue::elements() const& noexcept {
  const auto* array = PlistStorage::array(*this);
  return array == nullptr ? std::span<const PlistValue>() : std::span(array->members, array->count);
}

const PlistValue* PlistValue::find(std::string_view key) const noexcept {
  const auto* dictionary = PlistStorage::dictionary(*this);
  if (dictionary == nullptr) return nullptr;
  const std::size_t position = PlistStorage::position(dictionary, key);
  return position == PlistStorage::notFound ? nullptr : &dictionary->members[position].value;
}

bool PlistValue::set(std::string_view key, PlistValue value) {
  auto* dictionary = PlistStorage::dictionary(*this);
  if (dictionary == nullptr || !dictionary->isMutable || value.isNull() || value.isIdentical(*this)) return false;
  const std::size_t position = PlistStorage::position(dictionary, key);
  if (position == PlistStorage::notFound) {
    PlistStorage::appendEntry(dictionary, PlistValue(key), std::move(value));
  } else {
    dictionary->members[position].value = std::move(value);
  }
  return true;
}

std::span<char> PlistValue::changeData(std::string_view key) {
  auto* dictionary = PlistStorage::dictionary(*this);
  const PlistValue* found = find(key);
  if (found == nullptr || !found->isData() || !dictionary->isMutable) return {};
  if (found->shareCount() != 1) set(key, PlistData{found->dataBytes()});
  auto* bytes = static_cast<detail::BytesNode*>(find(key)->node());
  return {bytes->bytes(), bytes->length};
}

bool PlistValue::remove(std::string_view key) {
  auto* dictionary = PlistStorage::dictionary(*this);
  if (dictionary == nullptr || !dictionary->isMutable) return false;
  const std::size_t position = PlistStorage::position(dictionary, key);
  if (position == PlistStorage::notFound) return false;
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

// Copies.

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

}  // namespace ostrel
