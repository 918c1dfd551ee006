// Key paths over trees whose parts hang in several places: whatever is set, merged and copied, nothing comes to stand
// inside itself, the prepared path does what the text does, and what was split joins again.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "Containers/KeyPath.h"
#include "PlistInvariants.h"

namespace {

using namespace ostrel;
using fuzz::require;

constexpr std::size_t mostOperations = 24;
constexpr std::size_t mostMembers = 500;  // counted at each place where a shared container hangs

class Input {
 public:
  Input(const std::uint8_t* bytes, std::size_t size) : left_(reinterpret_cast<const char*>(bytes), size) {}
  bool isEmpty() const { return left_.empty(); }
  std::size_t number(std::size_t limit) {
    if (left_.empty()) return 0;
    const auto byte = static_cast<unsigned char>(left_.front());
    left_.remove_prefix(1);
    return byte % limit;
  }
  /// Up to a line feed.
  std::string text() {
    const std::string_view line = left_.substr(0, left_.find('\n'));
    left_.remove_prefix(line.size() < left_.size() ? line.size() + 1 : line.size());
    return std::string(line.substr(0, 200));
  }
  std::string_view key() {
    constexpr std::string_view keys[] = {"a",   "b", "c", "_id_", "_id_", "_newid_", "_obsoleteid_",
                                         "a:b", "",  "*", "0",    "b\\",  "a\\:b",   "a key that no handle holds",
                                         ":a",  "d"};
    return keys[number(std::size(keys))];
  }

 private:
  std::string_view left_;
};

/// Values made so far; later ones may hold earlier ones, so that trees share their parts.
class Trees {
 public:
  explicit Trees(Input& input) : input_(input) {
    for (std::size_t i = 0; i < 4; ++i) pool_.push_back(make(4));
  }
  PlistValue& any() { return pool_[input_.number(pool_.size())]; }
  /// Walks over all of them.
  bool areSmall() const;

 private:
  PlistValue make(int depth) {
    const std::size_t kind = input_.number(8);
    if (kind < 2 && !pool_.empty()) return any();
    if (kind == 2 || depth == 0) return input_.number(2) == 0 ? PlistValue(input_.key()) : PlistValue(true);
    PlistValue made = kind < 5 ? PlistValue::mutableArray() : PlistValue::mutableDictionary();
    for (std::size_t left = input_.number(4); left > 0; --left) {
      if (made.isDictionary()) {
        made.set(input_.key(), make(depth - 1));
      } else if (input_.number(3) == 0) {
        made.append(make(depth - 1));
      } else {
        made.setObject(make(depth - 1), input_.key());
      }
    }
    if (input_.number(3) == 0 && made.isDictionary()) made.set("_id_", input_.key());
    return input_.number(8) == 0 ? made.immutableCopy() : made;
  }

  Input& input_;
  std::vector<PlistValue> pool_;
};

/// Members below a value, counted at each place; aborts at a cycle.
class Census {
 public:
  std::size_t members(const PlistValue& value) {
    if (!value.isDictionary() && !value.isArray()) return 1;
    const void* identity = value.isArray() ? static_cast<const void*>(value.elements().data())
                                           : static_cast<const void*>(value.entries().data());
    if (value.count() == 0) return 1;
    const auto [known, isNew] = counts_.try_emplace(identity, open);
    require(isNew || known->second != open, "no container stands inside itself");
    if (!isNew) return known->second;
    std::size_t count = 1;
    for (const PlistEntry& entry : value.entries()) count += members(entry.value);
    for (const PlistValue& element : value.elements()) count += members(element);
    return counts_[identity] = std::min(count, mostMembers + 1);
  }

 private:
  static constexpr std::size_t open = 0;
  std::map<const void*, std::size_t> counts_;
};

bool isSmall(const PlistValue& value) { return Census().members(value) <= mostMembers; }

bool Trees::areSmall() const { return std::ranges::all_of(pool_, isSmall); }

void checkText(const std::string& text) {
  const PlistValue path = text;
  const PlistValue components = path.componentsSeparatedByCharacter(':');
  require(components.isNull() || components.count() > 0, "a split is null or has components");
  require(KeyPath(text).count() == components.count(), "a prepared path has the components of its text");
  if (!components.isNull() && components.at(0).stringValue() != "") {
    const PlistValue joined = components.componentsJoinedByCharacter(':');
    require(joined.componentsSeparatedByCharacter(':') == components, "what was split joins again");
  }
  require(PlistValue(path.escapedStringForCharacter(':')).unescapedString() == text, "an escape can be taken back");
  (void)path.stringWithCompactedAndTrimmedWhiteSpace();
}

void checkReading(const PlistValue& root, const std::string& path) {
  const PlistValue found = root.nestedObjectForKey(path);
  require(KeyPath(path).get(root).isIdentical(found), "text and prepared path find the same");
  require(root.deepMutableCopy() == root, "a copy is equal");
  (void)isSmall(root.dictionaryForKeys(PlistValue::arrayOf({path, "*:" + path, path + ":*"})));
}

void checkPrepared(const PlistValue& root, const PlistValue& value, const std::string& path, bool replace) {
  PlistValue one = root.deepMutableCopy();
  PlistValue other = root.deepMutableCopy();
  const bool set = one.setNestedObject(value.deepMutableCopy(), path, replace);
  require(KeyPath(path).set(other, value.deepMutableCopy(), replace) == set, "text and prepared path answer alike");
  require(one == other, "text and prepared path write the same");
}

void operate(Input& input, Trees& trees) {
  PlistValue& root = trees.any();
  const PlistValue value = input.number(6) == 0 ? PlistValue() : trees.any();
  const std::string path =
      input.number(2) == 0 ? input.text() : std::string(input.key()) + ":" + std::string(input.key());
  const bool replace = input.number(2) == 0;
  checkText(path);
  checkReading(root, path);
  checkPrepared(root, value, path, replace);
  switch (input.number(8)) {
    case 0:
      root.removeNestedObjectForKey(path);
      break;
    case 1:
      root.updateWithDictionary(value);
      break;
    case 2:
      root.updateDictionary(value, path, replace);
      break;
    case 3:
      root.setObject(value, path);
      break;
    case 4:
      root.objectForNestedKey(path, value);
      break;
    case 5:
      root.objectForNestedKey("*:" + path, value);
      break;
    case 6:
      KeyPath(path).set(root, value, replace);
      break;
    default:
      root.setNestedObject(value, path, replace);
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
  Input input(bytes, size);
  Trees trees(input);
  for (std::size_t i = 0; i < mostOperations && trees.areSmall() && !input.isEmpty(); ++i) operate(input, trees);
  return 0;
}
