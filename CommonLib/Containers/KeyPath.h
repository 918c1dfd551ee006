// A key path that was taken apart once, for paths that are used often.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>
#include <vector>

#include "Containers/Export.h"
#include "Containers/PlistValue.h"

namespace ostrel {

/// A prepared key path (docs/property-lists.md): does what the operations of PlistValue do with the path's text,
/// without splitting it and hashing its components at each use.
///
/// Threads: immutable, so one may be used from any thread; the values it is applied to have their own rules.
class OSTREL_EXPORT KeyPath {
 public:
  explicit KeyPath(std::string_view path);

  /// Number of components; 0 for an empty path, which stands for the root itself.
  std::size_t count() const noexcept { return components_.size(); }

  /// As `PlistValue::nestedObjectForKey`.
  PlistValue get(const PlistValue& root) const noexcept {
    const PlistValue* found = find(root);
    return found == nullptr ? PlistValue() : *found;
  }
  /// The same without taking a share, nullptr when there is nothing. Valid until the next write.
  const PlistValue* find(const PlistValue& root) const noexcept;

  /// As `PlistValue::setNestedObject` on the dictionary that `root` shares.
  bool set(const PlistValue& root, const PlistValue& value, bool replace = true) const;

 private:
  struct Component {
    PlistValue key;
    std::uint64_t hash;
  };
  const PlistValue* walk(const PlistValue& root, std::size_t first, std::size_t end) const noexcept;

  std::vector<Component> components_;
  std::size_t parentStart_ = 0;  // empty components before this one do not lead to the parent of a written value
};

}  // namespace ostrel
