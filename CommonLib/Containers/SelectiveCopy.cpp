// Copying what key paths select into another tree.
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "Containers/Internal/NestedAccess.h"
#include "Containers/Internal/NestedWrite.h"
#include "Containers/PlistValue.h"

namespace ostrel {
namespace {

using detail::isContainer;
using detail::KeyIndex;

/// One application of a path. Members are copied down before anything is written, because the target may be part of
/// the source; depth costs no stack.
class SelectiveCopy {
 public:
  explicit SelectiveCopy(std::string_view path) {
    detail::ComponentScanner scanner(path, detail::pathSeparator);
    for (std::string_view component; scanner.next(component); endsEmpty_ = component.empty()) {
      // The rest of a path is joined and split again at each step, which drops empty components at its start.
      if (components_.empty() || !component.empty()) components_.emplace_back(component);
      ++split_;
    }
    endsEmpty_ = endsEmpty_ && split_ > 1;
  }

  /// `isPrivate`: nothing but the caller leads to the target.
  bool run(const PlistValue& source, const PlistValue& target, bool isPrivate) {
    walk(source, Target{target, isPrivate}, 0);
    while (!levels_.empty()) {
      Level& level = levels_.back();
      if (level.next == level.members.size()) {
        levels_.pop_back();
        continue;
      }
      const auto [key, value] = level.members[level.next++];
      const Target into = level.target;
      const std::size_t component = level.component;
      if (const auto below = take(level.source, key.stringValue(), value, into, component, level.index.get())) {
        walk(value, *below, component + 1);
      }
    }
    return found_;
  }

 private:
  struct Target {
    PlistValue container;
    bool isPrivate;
  };
  /// The members that a wildcard stands for.
  struct Level {
    PlistValue source;
    std::vector<std::pair<PlistValue, PlistValue>> members;
    Target target;
    std::size_t component;
    std::unique_ptr<KeyIndex> index;  // of a target array into which many members go
    std::size_t next = 0;
  };

  void walk(PlistValue source, Target target, std::size_t component) {
    while (component < components_.size() && (source.isDictionary() || source.isArrayOfDictionaries())) {
      const std::string& key = components_[component];
      if (key == "*") {
        return pushLevel(source, std::move(target), component);
      }
      PlistValue value = source.objectForKey(key);
      if (value.isNull()) return;
      auto below = take(source, key, value, target, component, nullptr);
      if (!below) return;
      source = std::move(value);
      target = std::move(*below);
      ++component;
    }
  }

  void pushLevel(const PlistValue& source, Target target, std::size_t component) {
    auto members = membersOf(source);
    const PlistValue& array = target.container;
    const bool isIndexed = members.size() >= KeyIndex::worthwhile && array.isArray() && array.isMutable();
    auto index = isIndexed ? std::make_unique<KeyIndex>(array) : nullptr;
    levels_.push_back({source, std::move(members), std::move(target), component, std::move(index)});
  }

  static std::vector<std::pair<PlistValue, PlistValue>> membersOf(const PlistValue& source) {
    std::vector<std::pair<PlistValue, PlistValue>> members;
    members.reserve(source.count());
    for (const PlistEntry& entry : source.entries()) members.emplace_back(entry.key, entry.value);
    for (const PlistValue& element : source.elements()) members.emplace_back(*detail::elementKey(element), element);
    return members;
  }

  /// Copies the value where the path ends here; otherwise gives the container in which the path goes on.
  std::optional<Target> take(const PlistValue& source, std::string_view key, const PlistValue& value,
                             const Target& into, std::size_t component, KeyIndex* index) {
    if (component + 1 == components_.size() && !endsEmpty_) {
      found_ = put(source, key, value, into, index) || found_;
      return std::nullopt;
    }
    if (!isContainer(value)) return std::nullopt;
    return descend(key, value, into, index);
  }

  bool put(const PlistValue& source, std::string_view key, const PlistValue& value, const Target& into,
           KeyIndex* index) const {
    if (!into.container.isMutable()) return false;
    if (into.container.isIdentical(source)) return true;  // it has the value already; an array's order stays
    if (!into.isPrivate && isContainer(value) && detail::ContainerSet(value).holds(into.container)) return false;
    PlistValue container = into.container;
    const auto change = [&] {
      if (container.isDictionary()) return container.set(key, value);
      detail::putObject(container, value, key, index);
      return true;  // also for an immutable element, which is not copied
    };
    // An array writes the key into the value.
    if (container.isArray() || key == "_id_") {
      return detail::changeKey(levels_, container.isArray() ? value : container, change);
    }
    return change();
  }

  static const PlistValue* findIn(const PlistValue& container, std::string_view key, const KeyIndex* index) {
    return index == nullptr ? detail::findObject(container, key) : index->find(key);
  }

  static std::optional<Target> descend(std::string_view key, const PlistValue& value, const Target& into,
                                       KeyIndex* index) {
    const PlistValue* existing = findIn(into.container, key, index);
    if (existing == nullptr) {
      const PlistValue made = value.isArray() ? PlistValue::mutableArray() : PlistValue::mutableDictionary();
      if (!hang(made, into.container, key, index)) return std::nullopt;
      // An array that holds other elements than keyed ones does not find it.
      if (into.container.isArray() && findIn(into.container, key, index) == nullptr) return std::nullopt;
      return Target{made, into.isPrivate};
    }
    // What only a private container holds is private too.
    return Target{*existing, into.isPrivate && existing->shareCount() == 1};
  }

  /// Where nothing is found under the key.
  static bool hang(const PlistValue& made, PlistValue container, std::string_view key, KeyIndex* index) {
    if (container.isDictionary()) return container.set(key, made);
    return container.isArray() && container.isMutable() && made.isDictionary() &&
           detail::appendObject(container, made, key, index);
  }

  std::vector<std::string> components_;
  std::size_t split_ = 0;
  bool endsEmpty_ = false;
  std::vector<Level> levels_;
  bool found_ = false;
};

}  // namespace

PlistValue PlistValue::nestedObjectForKey(std::string_view path) const {
  const PlistValue* found = detail::findNestedObject(*this, path);
  return found == nullptr ? PlistValue() : *found;
}

// NOLINTNEXTLINE(performance-unnecessary-value-param): a share of its own, for the caller's may be written over
bool PlistValue::objectForNestedKey(std::string_view path, PlistValue container) const {
  return SelectiveCopy(path).run(*this, container, false);
}

PlistValue PlistValue::dictionaryForKeys(const PlistValue& paths) const {
  PlistValue made = mutableDictionary();
  for (const PlistValue& path : paths.elements()) SelectiveCopy(path.stringView()).run(*this, made, true);
  return made;
}

}  // namespace ostrel
