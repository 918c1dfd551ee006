// Storing one value in a tree, and merging a tree into another. Not installed.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <string_view>
#include <vector>

#include "Containers/Internal/KeyIndex.h"
#include "Containers/Internal/NestedAccess.h"
#include "Containers/PlistValue.h"

namespace ostrel::detail {

inline bool isMutableDictionary(const PlistValue& value) noexcept { return value.isDictionary() && value.isMutable(); }

/// What is merged into an existing value instead of taking its place.
inline bool isMergeable(const PlistValue& value) noexcept {
  return value.isDictionary() || value.isArrayOfDictionaries();
}

/// The last component of a path: its text, and its key with its hash where they are known.
struct LastComponent {
  std::string_view text;
  const PlistValue* key = nullptr;
  std::uint64_t hash = 0;
};

/// Stores a value in a mutable container, or removes what is there for a null value: the last step of
/// `setNestedObject:forKey:replace:`. Containers of `sources` are not written to.
bool store(const PlistValue& parent, const LastComponent& last, const PlistValue& value, const ContainerSet* sources);

/// The whole of that plain set: the parent is found by the path's text.
bool storeNested(const PlistValue& root, std::string_view path, const PlistValue& value, const ContainerSet* sources);

/// For several indexes at a time: runs `change`, then tells them what became of the "_id_" of a dictionary.
template <class Frames, class Change>
bool changeKey(const Frames& frames, const PlistValue& dictionary, Change change) {
  // The caller's handle may be one that is written over.
  // NOLINTNEXTLINE(performance-unnecessary-copy-initialization): so a share of its own
  const PlistValue changed = dictionary;
  const PlistValue* key = elementKey(changed);
  const PlistValue before = key == nullptr ? PlistValue() : *key;
  const bool result = change();
  key = elementKey(changed);
  if (before == (key == nullptr ? PlistValue() : *key)) return result;
  for (const auto& frame : frames) {
    if (frame.index) frame.index->rekey(changed, before);
  }
  return result;
}

/// Merges one value into others. The value's own containers are not written to, wherever else they hang, until they
/// have been stored: so what is read does not change meanwhile, the walk ends, and no container comes to stand inside
/// itself. Depth costs no stack.
class Merge {
 public:
  /// Requires: `source` is a container.
  explicit Merge(const PlistValue& source) : source_(source), sources_(source) {}

  const ContainerSet& sources() const noexcept { return sources_; }

  /// `setNestedObject:forKey:replace:` with the source as the value.
  bool setNested(const PlistValue& root, std::string_view path, bool replace);
  /// The same where something exists at the path already. Requires: the source is mergeable.
  bool into(const PlistValue& existing);
  /// `updateDictionary:forKey:replace:` with the source as the update.
  bool update(const PlistValue& array, std::string_view key, bool replace);
  /// `updateWithDictionary:`.
  bool updateAll(const PlistValue& dictionary);

 private:
  /// A dictionary's entries on their way into a dictionary, or a keyed array's elements on their way into an array.
  struct Frame {
    PlistValue target;
    std::span<const PlistEntry> entries;
    std::span<const PlistValue> elements;
    bool isArray;
    bool replace;
    std::unique_ptr<KeyIndex> index = nullptr;  // of a target into which many elements go
    std::size_t next = 0;
  };

  // Each either decides `result_` or pushes the frame that will.
  void setOne(const PlistValue& root, const PlistValue& value, std::string_view path, bool replace);
  void mergeOne(const PlistValue& existing, const PlistValue& value);
  void updateOne(const PlistValue& array, const PlistValue& update, std::string_view key, bool replace,
                 KeyIndex* index);
  void pushEntries(const PlistValue& target, const PlistValue& value, bool replace);
  bool storeOne(const PlistValue& root, std::string_view path, const PlistValue& value);
  bool create(const PlistValue& array, const PlistValue& update, std::string_view key, KeyIndex* index);
  bool remove(const PlistValue& array, std::string_view key, KeyIndex* index) const;
  bool run();
  void step();

  const PlistValue source_;  // a share of its own: the caller's handle may be one that is written over
  ContainerSet sources_;
  std::vector<Frame> frames_;
  bool result_ = true;
};

}  // namespace ostrel::detail
