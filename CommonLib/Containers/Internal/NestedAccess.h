// Steps along key paths that the nested operations share. Not installed.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>
#include <unordered_set>

#include "Containers/Internal/ComponentScanner.h"
#include "Containers/Internal/PlistStorage.h"
#include "Containers/PlistValue.h"

namespace ostrel::detail {

inline constexpr char pathSeparator = ':';

inline bool isContainer(const PlistValue& value) noexcept { return value.isDictionary() || value.isArray(); }

/// The key of an element of a keyed array, a string; nullptr when it has none.
const PlistValue* elementKey(const PlistValue& element) noexcept;

/// `objectForKey:` without taking a share; nullptr when there is nothing. Valid until the next write.
const PlistValue* findObject(const PlistValue& container, std::string_view key) noexcept;
const PlistValue* findObject(const PlistValue& container, const PlistValue& key, std::uint64_t hash) noexcept;

class KeyIndex;

/// `setObject:forKey:` of an array, through its index where it has one. Requires: the array is not within the value.
bool putObject(const PlistValue& array, const PlistValue& value, std::string_view key, KeyIndex* index = nullptr);
/// The same where `objectForKey:` finds nothing, so that nothing has to be removed. Requires: a mutable array, a
/// mutable dictionary, a string.
bool appendObject(const PlistValue& array, PlistValue value, const PlistValue& id, KeyIndex* index = nullptr);

/// `nestedObjectForKey:` in the same way. Gives `root` itself for an empty path.
const PlistValue* findNestedObject(const PlistValue& root, std::string_view path);

/// The containers within a value, itself included, that are still to be read. Whoever writes only into others meanwhile
/// neither makes a cycle nor changes what it reads.
class ContainerSet {
 public:
  explicit ContainerSet(const PlistValue& value);
  bool holds(const PlistValue& container) const {
    return !members_.empty() && members_.contains(PlistStorage::identity(container));
  }
  /// A part was stored and is not read any more: later steps may write into it. Not where containers hang in several
  /// places, for there it may be read again.
  void handOver(const PlistValue& part);

 private:
  std::unordered_set<const void*> members_;
  bool isTree_ = true;
};

}  // namespace ostrel::detail
