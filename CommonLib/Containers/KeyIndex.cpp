#include "Containers/Internal/KeyIndex.h"

#include <algorithm>
#include <limits>

#include "Containers/Internal/NestedAccess.h"

namespace ostrel::detail {

KeyIndex::KeyIndex(const PlistValue& array) : array_(array) {
  Position position = 0;
  for (const PlistValue& element : array.elements()) add(element, position++);
}

KeyIndex::~KeyIndex() {
  if (removed_.empty()) return;
  std::ranges::sort(removed_);
  auto removed = removed_.begin();
  std::size_t kept = *removed;
  for (std::size_t i = kept; i < array_.count(); ++i) {
    if (removed != removed_.end() && *removed == i) {
      ++removed;
    } else {
      array_.replace(kept++, array_.at(i));
    }
  }
  while (array_.count() > kept) array_.removeAt(array_.count() - 1);
}

void KeyIndex::add(const PlistValue& element, Position position) {
  if (element.isDictionary()) places_.emplace(PlistStorage::identity(element), position);
  enter(elementKey(element), position);
}

void KeyIndex::enter(const PlistValue* key, Position position) {
  if (key == nullptr) {
    ++keyless_;
  } else {
    keys_.emplace(key->stringValue(), position);
  }
}

const PlistValue* KeyIndex::find(std::string_view key) const {
  if (keyless_ != 0 || key.data() == nullptr) return nullptr;
  auto found = keys_.upper_bound({std::string(key), std::numeric_limits<Position>::max()});
  if (found == keys_.begin() || (--found)->first != key) return nullptr;
  return &array_.elements()[found->second];
}

bool KeyIndex::remove(std::string_view key) {
  if (keyless_ != 0 || key.data() == nullptr) return false;
  const auto found = keys_.lower_bound({std::string(key), 0});
  if (found == keys_.end() || found->first != key) return false;
  const Position position = found->second;
  removed_.push_back(position);
  keys_.erase(found);
  const auto places = places_.equal_range(PlistStorage::identity(array_.elements()[position]));
  places_.erase(std::find_if(places.first, places.second, [=](const auto& place) { return place.second == position; }));
  return true;
}

bool KeyIndex::append(const PlistValue& element) {
  if (!array_.append(element)) return false;
  add(element, static_cast<Position>(array_.count() - 1));
  return true;
}

void KeyIndex::rekey(const PlistValue& dictionary, const PlistValue& before) {
  const PlistValue* key = elementKey(dictionary);
  const auto places = places_.equal_range(PlistStorage::identity(dictionary));
  for (auto place = places.first; place != places.second; ++place) {
    if (key != nullptr && !keys_.emplace(key->stringValue(), place->second).second) continue;  // appended just now
    if (before.isNull()) {
      --keyless_;
    } else {
      keys_.erase({std::string(before.stringValue()), place->second});
    }
    if (key == nullptr) ++keyless_;
  }
}

}  // namespace ostrel::detail
