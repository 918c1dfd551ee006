// Setting, merging and removing values in nested containers.
#include "Containers/Internal/NestedWrite.h"

#include <string>
#include <utility>

#include "Containers/LeadingInteger.h"

namespace ostrel {

namespace detail {
namespace {

/// Handles are const where only what they share is changed.
PlistValue& writable(const PlistValue& container) noexcept {
  return const_cast<PlistValue&>(container);  // NOLINT(cppcoreguidelines-pro-type-const-cast): see above
}

bool storeInArray(const PlistValue& array, std::string_view last, const PlistValue& value) {
  if (array.isArrayOfDictionaries()) {
    putObject(array, value, last);
    return true;  // also for a value that is no mutable dictionary, and was ignored
  }
  const auto index = static_cast<std::uint64_t>(leadingInteger(last).value_or(0));
  if (index >= array.count()) return false;
  return value.isNull() ? writable(array).removeAt(index) : writable(array).replace(index, value);
}

bool marks(const PlistValue& update, std::string_view marker) noexcept {
  const PlistValue* mark = update.find(marker);
  return mark != nullptr && mark->boolValue();
}

/// The parent of the value at a path, and the last component, which lives as long as the scanner; nullptr where there
/// is none.
const PlistValue* findParent(const PlistValue& root, ComponentScanner& path, std::string_view& last) {
  if (!isMutableDictionary(root) || !path.next(last)) return nullptr;
  const PlistValue* parent = &root;
  bool isAtStart = true;  // empty components there vanish when the parent's path is joined
  for (std::string_view component; parent != nullptr && path.next(component); last = component) {
    isAtStart = isAtStart && last.empty();
    if (!isAtStart) parent = findObject(*parent, last);
  }
  return parent;
}

}  // namespace

bool putObject(const PlistValue& array, const PlistValue& value, std::string_view key, KeyIndex* index) {
  if (!array.isArray() || !array.isMutable() || !isMutableDictionary(value) || key.data() == nullptr) return false;
  // Value and key may live in the element that is removed.
  PlistValue taken = value;
  const PlistValue id = key;
  if (index == nullptr) {
    writable(array).removeObjectForKey(id.stringValue());
  } else {
    index->remove(id.stringValue());
  }
  return appendObject(array, std::move(taken), id, index);
}

bool appendObject(const PlistValue& array, PlistValue value, const PlistValue& id, KeyIndex* index) {
  const PlistValue* known = elementKey(value);
  if (known == nullptr || *known != id) value.set("_id_", id);
  return index == nullptr ? writable(array).append(std::move(value)) : index->append(value);
}

bool store(const PlistValue& parent, const LastComponent& last, const PlistValue& value, const ContainerSet* sources) {
  if (!parent.isMutable() || (sources != nullptr && sources->holds(parent))) return false;
  if (parent.isArray()) return storeInArray(parent, last.text, value);
  if (value.isNull()) {
    writable(parent).remove(last.text);
    return true;
  }
  if (last.key != nullptr) return PlistStorage::set(parent, *last.key, last.hash, value);
  return writable(parent).set(last.text, value);
}

bool storeNested(const PlistValue& root, std::string_view path, const PlistValue& value, const ContainerSet* sources) {
  ComponentScanner scanner(path, pathSeparator);
  std::string_view last;
  const PlistValue* parent = findParent(root, scanner, last);
  return parent != nullptr && store(*parent, {last}, value, sources);
}

bool Merge::setNested(const PlistValue& root, std::string_view path, bool replace) {
  setOne(root, source_, path, replace);
  return run();
}

bool Merge::into(const PlistValue& existing) {
  mergeOne(existing, source_);
  return run();
}

bool Merge::update(const PlistValue& array, std::string_view key, bool replace) {
  updateOne(array, source_, key, replace, nullptr);
  return run();
}

bool Merge::updateAll(const PlistValue& dictionary) {
  pushEntries(dictionary, source_, false);
  return run();
}

bool Merge::run() {
  while (!frames_.empty()) step();
  return result_;
}

void Merge::step() {
  Frame& frame = frames_.back();
  if (frame.isArray) {
    // All elements take part; the answer is the last one's.
    if (frame.next == frame.elements.size()) return frames_.pop_back();
    const PlistValue& update = frame.elements[frame.next++];
    return updateOne(frame.target, update, elementKey(update)->stringValue(), false, frame.index.get());
  }
  if (!result_ || frame.next == frame.entries.size()) return frames_.pop_back();
  const PlistEntry& entry = frame.entries[frame.next++];
  setOne(frame.target, entry.value, entry.keyText(), frame.replace);
}

void Merge::setOne(const PlistValue& root, const PlistValue& value, std::string_view path, bool replace) {
  if (!isMutableDictionary(root)) {
    result_ = false;
    return;
  }
  if (!replace && isMergeable(value)) {
    if (const PlistValue* existing = findNestedObject(root, path); existing != nullptr) {
      return mergeOne(*existing, value);
    }
  }
  result_ = storeOne(root, path, value);
}

bool Merge::storeOne(const PlistValue& root, std::string_view path, const PlistValue& value) {
  ComponentScanner scanner(path, pathSeparator);
  std::string_view last;
  const PlistValue* parent = findParent(root, scanner, last);
  if (parent == nullptr) return false;
  const auto change = [&] { return store(*parent, {last}, value, &sources_); };
  // An array writes the key into the value.
  const bool isStored =
      parent->isArray() || last == "_id_" ? changeKey(frames_, parent->isArray() ? value : *parent, change) : change();
  if (isStored && !frames_.empty()) sources_.handOver(value);
  return isStored;
}

void Merge::mergeOne(const PlistValue& existing, const PlistValue& value) {
  result_ = existing.isMutable() && existing.kind() == value.kind();
  if (!result_ || existing.isIdentical(value)) return;
  if (value.isDictionary()) return pushEntries(existing, value, false);
  result_ = existing.count() == 0 || existing.isArrayOfDictionaries();
  if (!result_) return;
  frames_.push_back({existing, {}, value.elements(), true, false});
  if (value.count() >= KeyIndex::worthwhile) frames_.back().index = std::make_unique<KeyIndex>(existing);
}

void Merge::pushEntries(const PlistValue& target, const PlistValue& value, bool replace) {
  result_ = true;
  if (!target.isIdentical(value)) frames_.push_back({target, value.entries(), {}, false, replace});
}

void Merge::updateOne(const PlistValue& array, const PlistValue& update, std::string_view key, bool replace,
                      KeyIndex* index) {
  result_ = false;
  if (!array.isArray() || !array.isMutable() || !update.isDictionary() || key.data() == nullptr) return;
  const PlistValue* existing = index == nullptr ? findObject(array, key) : index->find(key);
  if (existing == nullptr) {
    result_ = marks(update, "_newid_") && create(array, update, key, index);
  } else if (marks(update, "_obsoleteid_")) {
    result_ = remove(array, key, index);
  } else {
    pushEntries(*existing, update, replace);
  }
}

bool Merge::create(const PlistValue& array, const PlistValue& update, std::string_view key, KeyIndex* index) {
  if (sources_.holds(array)) return false;
  PlistValue made = update.mutableCopy();
  made.remove("_newid_");
  if (!appendObject(array, made, key, index)) return false;
  for (const PlistEntry& entry : made.entries()) sources_.handOver(entry.value);
  return true;
}

bool Merge::remove(const PlistValue& array, std::string_view key, KeyIndex* index) const {
  if (sources_.holds(array)) return false;
  return index == nullptr ? writable(array).removeObjectForKey(key) : index->remove(key);
}

}  // namespace detail

bool PlistValue::setObject(const PlistValue& value, std::string_view key) {
  if (detail::ContainerSet(value).holds(*this)) return false;
  return isDictionary() ? set(key, value) : detail::putObject(*this, value, key);
}

bool PlistValue::updateDictionary(const PlistValue& update, std::string_view key, bool replace) {
  return update.isDictionary() && detail::Merge(update).update(*this, key, replace);
}

bool PlistValue::setNestedObject(const PlistValue& value, std::string_view path, bool replace) {
  if (!detail::isContainer(value)) return detail::storeNested(*this, path, value, nullptr);
  return detail::Merge(value).setNested(*this, path, replace);
}

bool PlistValue::updateWithDictionary(const PlistValue& update) {
  if (!update.isDictionary()) return update.isNull();
  return detail::Merge(update).updateAll(*this);
}

void PlistValue::removeNestedObjectForKey(std::string_view path) {
  if (!detail::isMutableDictionary(*this) || count() == 0) return;
  detail::ComponentScanner scanner(path, detail::pathSeparator);
  std::string_view component;
  if (!scanner.next(component)) return;
  std::string last(component);
  std::string parentPath;
  bool hasParent = false;
  for (; scanner.next(component); last = component) {
    if (std::exchange(hasParent, true)) parentPath += detail::pathSeparator;
    parentPath += last;  // not escaped again
  }
  const PlistValue* parent = hasParent ? detail::findNestedObject(*this, parentPath) : this;
  if (parent != nullptr) detail::writable(*parent).removeObjectForKey(last);
}

}  // namespace ostrel
