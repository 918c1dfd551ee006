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

/// `setObject:forKey:` of an array. Requires: the array is not within the value.
bool putObject(const PlistValue& array, const PlistValue& value, std::string_view key);
/// The same where `objectForKey:` finds nothing, so that nothing has to be removed. Requires: a mutable array, a
/// mutable dictionary, a string.
bool appendObject(const PlistValue& array, PlistValue value, const PlistValue& id);

/// `nestedObjectForKey:` in the same way. Gives `root` itself for an empty path.
const PlistValue* findNestedObject(const PlistValue& root, std::string_view path);

/// Every container within a value, itself included. Whoever writes only into others while reading that value neither
/// makes a cycle nor changes what it reads.
class ContainerSet {
 public:
  explicit ContainerSet(const PlistValue& value);
  bool holds(const PlistValue& container) const {
    return !members_.empty() && members_.contains(PlistStorage::identity(container));
  }

 private:
  std::unordered_set<const void*> members_;
};

}  // namespace ostrel::detail
