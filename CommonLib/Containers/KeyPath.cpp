#include "Containers/KeyPath.h"

#include "Containers/Internal/NestedAccess.h"
#include "Containers/Internal/NestedWrite.h"

namespace ostrel {

KeyPath::KeyPath(std::string_view path) {
  detail::ComponentScanner scanner(path, detail::pathSeparator);
  for (std::string_view component; scanner.next(component);) {
    PlistValue key = component;
    const std::uint64_t hash = detail::PlistStorage::hashOf(key);
    components_.push_back({std::move(key), hash});
  }
  while (parentStart_ + 1 < count() && components_[parentStart_].key.stringValue().empty()) ++parentStart_;
}

const PlistValue* KeyPath::walk(const PlistValue& root, std::size_t first, std::size_t end) const noexcept {
  const PlistValue* current = &root;
  for (std::size_t i = first; i < end && current != nullptr; ++i) {
    const auto& [key, hash] = components_[i];
    current = current->isDictionary() ? detail::PlistStorage::find(*current, key, hash)
                                      : detail::findObject(*current, key, hash);
  }
  return current;
}

const PlistValue* KeyPath::find(const PlistValue& root) const noexcept { return walk(root, 0, count()); }

bool KeyPath::set(const PlistValue& root, const PlistValue& value, bool replace) const {
  if (!detail::isMutableDictionary(root)) return false;
  const auto store = [&](const detail::ContainerSet* sources) {
    if (count() == 0) return false;
    const PlistValue* parent = walk(root, parentStart_, count() - 1);
    const Component& last = components_.back();
    return parent != nullptr && detail::store(*parent, {last.key.stringValue(), &last.key, last.hash}, value, sources);
  };
  if (!detail::isContainer(value)) return store(nullptr);
  detail::Merge merge(value);
  if (!replace && detail::isMergeable(value)) {
    if (const PlistValue* existing = find(root); existing != nullptr) return merge.into(*existing);
  }
  return store(&merge.sources());
}

}  // namespace ostrel
