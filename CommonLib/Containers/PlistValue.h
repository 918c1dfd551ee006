// PlistValue: the one value type of requests, responses, contexts, configuration and directory results.
#pragma once

#include <atomic>
#include <concepts>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <initializer_list>
#include <span>
#include <string>
#include <string_view>
#include <utility>

#include "Containers/Export.h"

namespace ostrel {

class PlistValue;
class PlistKeyEnumerator;

namespace detail {
struct Node;
class PlistStorage;
}  // namespace detail

/// A moment: seconds since 1970-01-01T00:00:00Z with a fraction, negative before it. Never NaN in a parsed value.
struct PlistDate {
  double secondsSince1970 = 0;
  friend bool operator==(PlistDate, PlistDate) = default;
};

/// Bytes to be copied into a data value; distinguishes data from text when a value is made.
struct PlistData {
  std::string_view bytes;
};

struct PlistEntry;

/// A handle on a property-list value: null, dictionary, array, string, number, boolean, date or data.
///
/// Copying a handle shares the value: a change made to a mutable container through one handle is seen through all.
/// A default-constructed handle is null and answers every question harmlessly (zero, empty, null); so does any
/// handle asked for something that its kind does not have. Nothing here throws except std::bad_alloc.
///
/// Dictionaries keep the order in which keys were first set. Leaves are immutable. Writes to an immutable container
/// are refused (false) and change nothing; code that writes tests `isMutable` first where the difference matters.
///
/// Threads: the reference count is atomic, so distinct handles to one value may be copied and dropped on any thread.
/// Reading one container from several threads is safe while nobody writes to it; writers need a lock of their own.
/// One handle object must not be assigned on one thread while another reads it.
///
/// Containers may be nested to any depth: nothing here uses the stack for it. The readers and writers have a bound.
///
/// Requires: a container is never put inside itself, directly or through others (direct insertion is refused;
/// a longer cycle is the caller's fault, is never freed and must not be described, compared or copied).
class OSTREL_EXPORT PlistValue {
 public:
  enum class Kind : std::uint8_t { null, dictionary, array, string, number, boolean, date, data };
  using KeyValue = std::pair<std::string_view, PlistValue>;

  // Making values.

  constexpr PlistValue() noexcept = default;
  constexpr PlistValue(std::nullptr_t) noexcept {}
  PlistValue(const PlistValue& other) noexcept : cell_(other.cell_) { retain(); }
  PlistValue(PlistValue&& other) noexcept : cell_(std::exchange(other.cell_, Cell{})) {}
  PlistValue& operator=(const PlistValue& other) noexcept {
    PlistValue copy(other);
    swap(copy);
    return *this;
  }
  PlistValue& operator=(PlistValue&& other) noexcept {
    PlistValue taken(std::move(other));
    swap(taken);
    return *this;
  }
  ~PlistValue() { release(); }
  void swap(PlistValue& other) noexcept { std::swap(cell_, other.cell_); }

  /// A string. The bytes should be UTF-8: text from outside goes through `stringFromUTF8`. A value that holds
  /// anything else can be carried and compared, and is refused by the writers.
  PlistValue(std::string_view text);
  PlistValue(const std::string& text) : PlistValue(std::string_view(text)) {}
  /// A string, or null for a null pointer.
  PlistValue(const char* text) : PlistValue(text == nullptr ? PlistValue() : PlistValue(std::string_view(text))) {}
  /// Only a genuine bool makes a boolean: pointers and integers never turn into one.
  template <std::same_as<bool> Bool>
  constexpr PlistValue(Bool value) noexcept : cell_{value ? 1U : 0U, 0, 0, 0, Tag::boolean} {}
  template <std::signed_integral Integer>
  constexpr PlistValue(Integer value) noexcept
      : cell_{static_cast<std::uint64_t>(static_cast<std::int64_t>(value)), 0, 0, 0, Tag::integer} {}
  template <std::unsigned_integral Integer>
  requires(!std::same_as<Integer, bool>) constexpr PlistValue(Integer value) noexcept
      : cell_{value, 0, 0, 0, static_cast<std::uint64_t>(value) > INT64_MAX ? Tag::bigInteger : Tag::integer} {}
  template <std::floating_point Real>
  PlistValue(Real value) noexcept : cell_{bitsOf(static_cast<double>(value)), 0, 0, 0, Tag::real} {}
  PlistValue(PlistDate date) noexcept : cell_{bitsOf(date.secondsSince1970), 0, 0, 0, Tag::date} {}
  PlistValue(PlistData data);

  /// The string, or null when the bytes are not valid UTF-8 (RFC 3629: no overlong forms, no surrogates).
  static PlistValue stringFromUTF8(std::string_view bytes);

  /// An empty mutable container.
  static PlistValue mutableDictionary();
  static PlistValue mutableArray();
  /// A container filled from the list, which ends at the first null value: what follows it is left out. Several
  /// responses and markers are defined by this rule. A repeated key keeps its first place and its last value.
  static PlistValue dictionaryOf(std::initializer_list<KeyValue> entries);
  static PlistValue mutableDictionaryOf(std::initializer_list<KeyValue> entries);
  static PlistValue arrayOf(std::initializer_list<PlistValue> elements);
  static PlistValue mutableArrayOf(std::initializer_list<PlistValue> elements);

  // What it is.

  Kind kind() const noexcept {
    constexpr Kind kinds[] = {Kind::null,   Kind::boolean, Kind::number, Kind::number, Kind::number,    Kind::date,
                              Kind::string, Kind::string,  Kind::data,   Kind::array,  Kind::dictionary};
    return kinds[static_cast<std::size_t>(cell_.tag)];
  }
  bool isNull() const noexcept { return cell_.tag == Tag::null; }
  bool isDictionary() const noexcept { return cell_.tag == Tag::dictionary; }
  bool isArray() const noexcept { return cell_.tag == Tag::array; }
  bool isString() const noexcept { return cell_.tag == Tag::inlineString || cell_.tag == Tag::string; }
  /// True for numbers and for booleans: a boolean also answers as the number 0 or 1.
  bool isNumber() const noexcept { return isInteger() || cell_.tag == Tag::real || isBoolean(); }
  bool isBoolean() const noexcept { return cell_.tag == Tag::boolean; }
  /// True for a number without a fraction part of its own, signed or unsigned (not for booleans or reals).
  bool isInteger() const noexcept { return cell_.tag == Tag::integer || cell_.tag == Tag::bigInteger; }
  bool isReal() const noexcept { return cell_.tag == Tag::real; }
  bool isDate() const noexcept { return cell_.tag == Tag::date; }
  bool isData() const noexcept { return cell_.tag == Tag::data; }
  /// True for a dictionary or array that accepts writes.
  bool isMutable() const noexcept;

  /// Same object: the same container, or the same shared leaf. Small leaves live in the handle and are identical
  /// when they are equal.
  bool isIdentical(const PlistValue& other) const noexcept {
    return std::memcmp(&cell_, &other.cell_, sizeof cell_) == 0;
  }
  /// How many handles share the value, this one included; 1 for what lives in the handle. 1 is a lasting answer, since
  /// nobody else can take a share; other threads may copy and drop their handles after any other.
  std::uint32_t shareCount() const noexcept {
    if (!holdsNode()) return 1;
    return std::atomic_ref(*reinterpret_cast<std::uint32_t*>(cell_.bits)).load(std::memory_order_acquire);
  }
  /// Equality by value. Key order does not matter; mutability does not matter; numbers and booleans compare by
  /// numeric value across integer and real; NaN equals NaN.
  OSTREL_EXPORT friend bool operator==(const PlistValue& left, const PlistValue& right);

  // Leaves.

  /// The text of a string, "" for other kinds. The view lives as long as this handle; asked of a temporary, the
  /// answer is a copy, because short strings live inside the handle.
  std::string_view stringValue() const& noexcept;
  std::string stringValue() && { return std::string(std::as_const(*this).stringView()); }
  /// The bytes of a data value, empty for other kinds; lifetime as for `stringValue`.
  std::string_view dataBytes() const& noexcept { return dataView(); }
  std::string dataBytes() && { return std::string(dataView()); }

  /// Numbers and booleans; 0 for other kinds. An integer outside the asked range wraps modulo 2^64; a real is
  /// truncated towards zero and clamped to the range; NaN gives 0.
  std::int64_t int64Value() const noexcept;
  std::uint64_t uint64Value() const noexcept;
  double doubleValue() const noexcept;
  /// True for a boolean true and for any number other than zero (NaN included).
  bool boolValue() const noexcept;
  /// The moment of a date, the zero date for other kinds.
  PlistDate dateValue() const noexcept;

  // Containers.

  /// Number of entries or elements, 0 for leaves.
  std::size_t count() const noexcept;

  /// Dictionary: the value for `key`, or null. Constant time when large.
  PlistValue get(std::string_view key) const noexcept {
    const PlistValue* found = find(key);
    return found == nullptr ? PlistValue() : *found;
  }
  /// Dictionary: the value for `key` without taking a share of it, or nullptr. Valid until the next write.
  const PlistValue* find(std::string_view key) const noexcept;
  bool contains(std::string_view key) const noexcept { return find(key) != nullptr; }
  /// Dictionary: sets `key`, keeping its place when it is there already. False, and nothing changed, when this is
  /// not a mutable dictionary, the value is null or the value is this dictionary itself.
  bool set(std::string_view key, PlistValue value);
  /// Dictionary: the bytes of the data value under `key`, to be changed in place. Other handles on that value keep
  /// what they have: while there are any, the dictionary first gets a copy of its own. Empty, and nothing changed, when
  /// this is no mutable dictionary or the value is no data. Valid until the dictionary is written to or the value is
  /// shared again.
  std::span<char> changeData(std::string_view key);
  /// Dictionary: true when `key` was there and is gone. Linear in the count: the others keep their order.
  bool remove(std::string_view key);
  /// Dictionary: its entries in order, empty for other kinds. Valid until the next write, and as long as the value: a
  /// temporary handle may be the last one on it, so it is not asked.
  std::span<const PlistEntry> entries() const& noexcept;
  std::span<const PlistEntry> entries() const&& = delete;

  /// Array: the element, or null past the end.
  PlistValue at(std::size_t index) const noexcept {
    return index < elements().size() ? elements()[index] : PlistValue();
  }
  /// Array: its elements in order, empty for other kinds. As `entries`.
  std::span<const PlistValue> elements() const& noexcept;
  std::span<const PlistValue> elements() const&& = delete;
  /// Array writes: false, and nothing changed, when this is not a mutable array, the value is null or this array
  /// itself, or the index is out of range (`insert` allows the end).
  bool append(PlistValue value);
  bool insert(std::size_t index, PlistValue value);
  bool replace(std::size_t index, PlistValue value);
  bool removeAt(std::size_t index);
  /// Array: removes every element identical to `value` (see `isIdentical`); returns how many.
  std::size_t removeIdentical(const PlistValue& value);

  /// Dictionary or array: removes everything. False when immutable or a leaf.
  bool clear();

  // NestedContainerAdditions: keyed arrays.
  //
  // A keyed array has at least one element, every element is a dictionary, and every one holds a string "_id_", its
  // key. Keys are compared byte by byte. These operations take a dictionary or an array alike, so that code that walks
  // a path need not ask which it holds. A null key is a view without data (`std::string_view()`, or the
  // `stringValue` of what is no string) and differs from the empty key.

  /// `isArrayOfDictionaries`: true for a keyed array.
  bool isArrayOfDictionaries() const noexcept;
  /// `objectForKey:`. Dictionary: as `get`. Array: the last element with that key; null when the key is null or any
  /// element is no dictionary or has no key, even behind a match.
  PlistValue objectForKey(std::string_view key) const noexcept;
  /// `allKeys`: an immutable array of a dictionary's keys, or of the keys of those elements that have one.
  PlistValue allKeys() const;
  /// `allValues`: an immutable array of a dictionary's values; an array is its own answer.
  PlistValue allValues() const;
  /// `keyEnumerator`: walks over what `allKeys` answers now.
  PlistKeyEnumerator keyEnumerator() const;
  /// `dictionaryRepresentation`: an immutable dictionary from key to element of those elements that have a key; the
  /// later of two with one key. Elements are shared. A dictionary gives an immutable copy of itself.
  PlistValue dictionaryRepresentation() const;
  /// `intersectsArray:`: whether two arrays have an equal element.
  bool intersectsArray(const PlistValue& other) const;
  /// `setObject:forKey:`. Dictionary: as `set`. Mutable array: takes only mutable dictionaries. Removes the element
  /// with that key as `removeObjectForKey` does, writes the key into the value's "_id_" and appends the value. False,
  /// and nothing changed, for any other value, for a null key, and when this container is within the value.
  bool setObject(const PlistValue& value, std::string_view key);
  /// `removeObjectForKey:`. Dictionary: as `remove`. Mutable keyed array: removes the first element with that key.
  bool removeObjectForKey(std::string_view key);
  /// `updateDictionary:forKey:replace:` on a mutable array: creates, merges or removes the element with that key, as
  /// the markers "_newid_" and "_obsoleteid_" in `update` ask (docs/property-lists.md). False for a null key or
  /// update, for an element that is missing and not asked for, and when a member could not be merged.
  bool updateDictionary(const PlistValue& update, std::string_view key, bool replace);

  // NestedContainerAdditions: key paths, such as "users:ada:name" (docs/property-lists.md; KeyPath.h for paths that
  // are used often). Values are shared, not copied. Missing containers on the way are never made. What would put a
  // container inside itself is refused. A path or key may be text of the very containers that are changed.

  /// `nestedObjectForKey:`: the value at the path, or null. An empty path is this value itself; "*" is a plain key.
  PlistValue nestedObjectForKey(std::string_view path) const;
  /// `objectForNestedKey:intoContainer:`: copies every value that the path selects into a mutable container, rebuilding
  /// the path's containers there; "*" selects every key. True when anything was copied. False on a plain array.
  bool objectForNestedKey(std::string_view path, PlistValue container) const;
  /// `dictionaryForKeys:`: a new mutable dictionary of what the paths (an array of strings) select in this dictionary.
  PlistValue dictionaryForKeys(const PlistValue& paths) const;
  /// `setNestedObject:forKey:replace:` on a mutable dictionary: sets the value at the path, a null value removes it.
  /// With `replace` false, a dictionary or keyed array is merged into what is there. False when the path is empty, its
  /// parent is missing or immutable, an index is out of range, or a member could not be merged; what was merged
  /// before stays. Merging a keyed array answers as its last element does.
  bool setNestedObject(const PlistValue& value, std::string_view path, bool replace);
  /// `removeNestedObjectForKey:` on a mutable dictionary. The path of the parent is split twice, its escapes being gone
  /// the second time: that is meant.
  void removeNestedObjectForKey(std::string_view path);
  /// `updateWithDictionary:` on a mutable dictionary: merges each member, its key taken as a path, until one fails.
  /// True for null.
  bool updateWithDictionary(const PlistValue& update);

  // Copies (DeepMutableCopyAdditions).

  /// One level: a new container of the asked mutability over the same members. A leaf or null gives itself.
  /// `immutableCopy` of an immutable container shares it.
  PlistValue immutableCopy() const;
  PlistValue mutableCopy() const;
  /// `deepMutableCopy`, `deepMutableCopyWithZone:` (there is one zone). Containers at every level are new and mutable,
  /// and leaves are copied too: nothing is shared.
  PlistValue deepMutableCopy() const;
  /// Containers at every level are new and mutable; every leaf is shared.
  PlistValue deepMutableStructureCopy() const;

  // StringComponentAdditions: text of components. A character is an ASCII one; any other occurs nowhere. A backslash
  // makes the character after it literal. Other kinds than the one named answer null or "".

  /// `componentsSeparatedByCharacter:` on a string: an immutable array of its components, their backslashes removed.
  /// Null for the empty string. A backslash that ends the string swallows the last component; null when none is left.
  PlistValue componentsSeparatedByCharacter(char separator) const;
  /// `componentsJoinedByCharacter:` on an array of strings: the inverse. Empty components at the start leave no
  /// separator behind: that is meant. An element that is no string gives its description.
  std::string componentsJoinedByCharacter(char separator) const;
  /// `escapedStringForCharacter:hasSpaces:`: the string with a backslash before every backslash and every
  /// `character`. `hasSpaces`, when given, tells whether it holds a space (no other white space counts).
  std::string escapedStringForCharacter(char character, bool* hasSpaces = nullptr) const;
  /// `unescapedString`: each backslash removed, the character after it kept as it stands.
  std::string unescapedString() const;
  /// `stringWithCompactedAndTrimmedWhiteSpace`: every run of white space and line ends (Unicode's) one space, none at
  /// either end. Ends at the first NUL.
  std::string stringWithCompactedAndTrimmedWhiteSpace() const;

  // Text.

  /// The text form that "%@" prints: a string as it is, null as "(null)", booleans as 1 and 0, reals as the
  /// integer that they equal or by their shortest exact digits, dates as "2011-08-15 16:08:25 +0000", data as
  /// "<0a1bff>", containers in braces or parentheses, a member a line. Keys are sorted by bytes, so equal trees print
  /// alike. Indentation ends at the sixteenth level, and a container below `maximumPlistDepth` others is printed as
  /// "{...}" or "(...)". Strings are printed as the bytes that they are, in containers with their controls escaped.
  std::string description() const;

 private:
  friend class detail::PlistStorage;

  enum class Tag : std::uint8_t {
    null,
    boolean,
    integer,
    bigInteger,
    real,
    date,
    inlineString,
    string,
    data,
    array,
    dictionary  // from here on `bits` is an owned Node pointer
  };

  // 16 bytes. A string of at most 14 bytes lives in the handle: its text fills bytes 0 to 13 (unused ones zero, so
  // that handles compare as two words), its length is byte 14.
  struct Cell {
    std::uint64_t bits = 0;
    std::uint32_t more = 0;
    std::uint16_t rest = 0;
    std::uint8_t length = 0;
    Tag tag = Tag::null;
  };
  static constexpr std::size_t inlineCapacity = 14;

  static std::uint64_t bitsOf(double value) noexcept {
    std::uint64_t bits = 0;
    std::memcpy(&bits, &value, sizeof bits);
    return bits;
  }
  double realBits() const noexcept {
    double value = 0;
    std::memcpy(&value, &cell_.bits, sizeof value);
    return value;
  }

  // NOLINTNEXTLINE(clang-analyzer-core.UndefinedBinaryOperatorResult): it loses track of cells made in raw storage
  bool holdsNode() const noexcept { return cell_.tag >= Tag::string; }
  detail::Node* node() const noexcept { return reinterpret_cast<detail::Node*>(cell_.bits); }
  void retain() const noexcept {
    if (holdsNode())
      std::atomic_ref(*reinterpret_cast<std::uint32_t*>(cell_.bits)).fetch_add(1, std::memory_order_relaxed);
  }
  void release() noexcept {
    if (holdsNode()) releaseNode();
  }
  void releaseNode() noexcept;
  std::string_view stringView() const noexcept;
  std::string_view dataView() const noexcept;

  Cell cell_;
};
static_assert(sizeof(PlistValue) == 16);

/// One member of a dictionary. `key` is always a string.
struct PlistEntry {
  PlistValue key;
  PlistValue value;
  std::string_view keyText() const noexcept { return key.stringValue(); }
};

/// Walks over the keys of a container as they were when it was asked for.
class OSTREL_EXPORT PlistKeyEnumerator {
 public:
  explicit PlistKeyEnumerator(PlistValue keys) noexcept : keys_(std::move(keys)) {}
  /// `nextObject`: the next key; null after the last.
  PlistValue nextObject() noexcept { return keys_.at(next_++); }

 private:
  PlistValue keys_;
  std::size_t next_ = 0;
};
inline PlistKeyEnumerator PlistValue::keyEnumerator() const { return PlistKeyEnumerator(allKeys()); }

// A node of bytes is 16 bytes, of which the last 8 are the length, and then the bytes.
inline std::string_view PlistValue::dataView() const noexcept {
  if (cell_.tag != Tag::data && cell_.tag != Tag::string) return {};
  const char* node = reinterpret_cast<const char*>(cell_.bits);  // NOLINT
  std::size_t length = 0;
  std::memcpy(&length, node + 8, sizeof length);
  return {node + 16, length};
}
inline std::string_view PlistValue::stringView() const noexcept {
  if (cell_.tag == Tag::inlineString) return {reinterpret_cast<const char*>(&cell_), cell_.length};
  return cell_.tag == Tag::string ? dataView() : std::string_view();
}
inline std::string_view PlistValue::stringValue() const& noexcept { return stringView(); }

}  // namespace ostrel
