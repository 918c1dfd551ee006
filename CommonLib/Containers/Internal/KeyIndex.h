// The elements of a keyed array by their keys, for many steps into one array. Not installed.
#pragma once

#include <cstddef>
#include <cstdint>
#include <set>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>
#include <vector>

#include "Containers/PlistValue.h"

namespace ostrel::detail {

/// Answers and changes an array as the operations by key do, each in logarithmic time instead of a walk over the array:
/// a client's list of many elements must not cost its square. Until this ends the array is changed through it alone,
/// nobody else reads it, and each change of an element's "_id_" is told to `rekey`.
class KeyIndex {
 public:
  /// From so many steps on, an index costs less than the walks that it saves.
  static constexpr std::size_t worthwhile = 64;

  /// Requires: a mutable array.
  explicit KeyIndex(const PlistValue& array);
  KeyIndex(const KeyIndex&) = delete;
  KeyIndex& operator=(const KeyIndex&) = delete;
  /// Takes the removed elements out of the array, in one pass.
  ~KeyIndex();

  /// `objectForKey:` without taking a share: the last match, nullptr when any element has no key.
  const PlistValue* find(std::string_view key) const;
  /// `removeObjectForKey:`: the first match.
  bool remove(std::string_view key);
  bool append(const PlistValue& element);
  /// After the "_id_" of a dictionary, perhaps an element, became another than `before` (null: no string).
  void rekey(const PlistValue& dictionary, const PlistValue& before);

 private:
  using Position = std::uint32_t;

  void add(const PlistValue& element, Position position);
  void enter(const PlistValue* key, Position position);

  PlistValue array_;
  std::set<std::pair<std::string, Position>> keys_;
  std::unordered_multimap<const void*, Position> places_;  // of dictionaries; one may be several elements
  std::size_t keyless_ = 0;
  std::vector<Position> removed_;  // still in the array: positions stay as they are
};

}  // namespace ostrel::detail
