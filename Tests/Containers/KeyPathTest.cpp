#include "Containers/KeyPath.h"

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>
#include <string>
#include <vector>

namespace ostrel {
namespace {

/// A mutable tree from JSON; keys keep their order, and a dictionary with the member "!" is immutable.
PlistValue tree(const nlohmann::ordered_json& json) {
  if (json.is_string()) return json.get<std::string>();
  if (json.is_boolean()) return json.get<bool>();
  if (json.is_number_integer()) return json.get<std::int64_t>();
  if (json.is_null()) return nullptr;
  PlistValue made = json.is_array() ? PlistValue::mutableArray() : PlistValue::mutableDictionary();
  if (json.is_array()) {
    for (const auto& element : json) made.append(tree(element));
    return made;
  }
  for (const auto& [key, value] : json.items()) {
    if (key != "!") made.set(key, tree(value));
  }
  return json.contains("!") ? made.immutableCopy() : made;
}
PlistValue tree(const char* text) { return tree(nlohmann::ordered_json::parse(text)); }

std::string text(const PlistValue& value) {
  std::string line = value.description();
  std::erase_if(line, [](char c) { return c == ' ' || c == '\n'; });
  return line;
}

TEST(KeyPath, ReadsNestedValues) {
  const PlistValue root =
      tree(R"({"a": {"b": 1, "": {"c": 2}}, "s": "x", "": {"e": 3}, "*": {"k": 4}, "x:y": 5, "z\\": 6,
      "l": [{"_id_": "k1"}, {"_id_": "k2", "v": 3}, {"_id_": "a longer key than a handle holds", "v": 7}],
      "plain": [1, 2], "mixed": [{"_id_": "k1"}, {}], "a longer key than a handle holds": {"v": 8}})");
  const struct {
    const char* path;
    const char* value;  // as JSON
  } cases[] = {
      {"a:b", "1"},
      {"s:b", "null"},
      {"missing:b", "null"},
      {"l:k2", R"({"_id_": "k2", "v": 3})"},
      {"l:k2:v", "3"},
      {"l:a longer key than a handle holds:v", "7"},
      {"a longer key than a handle holds:v", "8"},
      {"a longer key than a handle does hold:v", "null"},
      {"l:0", "null"},
      {"plain:0", "null"},
      {"mixed:k1", "null"},
      {"a::c", "2"},
      {":e", "3"},
      {"*:k", "4"},
      {"x\\:y", "5"},
      {"z\\\\", "6"},
      {"a:b\\", R"({"b": 1, "": {"c": 2}})"},
      {"a:b:", "null"},
  };
  for (const auto& [path, value] : cases) {
    EXPECT_EQ(root.nestedObjectForKey(path), tree(value)) << path;
    EXPECT_EQ(KeyPath(path).get(root), tree(value)) << path;
  }
  for (const char* path : {"", "\\"}) {
    EXPECT_TRUE(root.nestedObjectForKey(path).isIdentical(root));
    EXPECT_TRUE(KeyPath(path).get(root).isIdentical(root));
  }
  EXPECT_TRUE(root.nestedObjectForKey(std::string_view()).isIdentical(root));
}

constexpr bool replace = true;
constexpr bool merge = false;

const struct {
  const char* before;
  const char* path;
  const char* value;
  bool replaces;
  bool succeeds;
  const char* after;
} writes[] = {
    // Plain sets.
    {R"({})", "a", "1", merge, true, R"({"a": 1})"},
    {R"({"a": 1})", "a", "null", merge, true, R"({})"},
    {R"({"a": 1})", "b", "null", merge, true, R"({"a": 1})"},
    {R"({})", "missing:child", "1", merge, false, R"({})"},
    {R"({"a": "x"})", "a:b", "1", merge, false, R"({"a": "x"})"},
    {R"({"a": 1})", "", "1", merge, false, R"({"a": 1})"},
    {R"({"a": 1})", "b\\", "1", replace, false, R"({"a": 1})"},
    {R"({"a": {"!": 1, "b": 1}})", "a:b", "2", replace, false, R"({"a": {"b": 1}})"},
    {R"({"p": {"y": 2}})", "p", R"({"x": 1})", merge, true, R"({"p": {"y": 2, "x": 1}})"},
    {R"({"p": {"y": 2}})", "p", R"({"x": 1})", replace, true, R"({"p": {"x": 1}})"},
    {R"({"p:q": {}})", "p\\:q:r\\\\", "1", merge, true, R"({"p:q": {"r\\": 1}})"},
    // Empty components before the last vanish at the start only.
    {R"({"": {}})", ":x", "1", merge, true, R"({"": {}, "x": 1})"},
    {R"({"": {}, "a": {"": {}}})", "::x", "1", merge, true, R"({"": {}, "a": {"": {}}, "x": 1})"},
    {R"({"a": {"": {}}})", "a::x", "1", merge, true, R"({"a": {"": {"x": 1}}})"},
    {R"({"a": {}})", "a:", "1", merge, true, R"({"a": {"": 1}})"},
    // Indexes of plain arrays.
    {R"({"l": [0, 1, 2, 3, 4]})", "l:5", "9", merge, false, R"({"l": [0, 1, 2, 3, 4]})"},
    {R"({"l": [0, 1]})", "l:-1", "9", merge, false, R"({"l": [0, 1]})"},
    {R"({"l": [0, 1]})", "l:99999999999999999999", "9", merge, false, R"({"l": [0, 1]})"},
    {R"({"l": [0, 1]})", "l:0", "null", merge, true, R"({"l": [1]})"},
    {R"({"l": [0, 1]})", "l: +1x", "9", merge, true, R"({"l": [0, 9]})"},
    {R"({"l": [0, 1]})", "l:word", "9", merge, true, R"({"l": [9, 1]})"},
    {R"({"l": []})", "l:0", "9", merge, false, R"({"l": []})"},
    {R"({"l": [0]})", "l", "[1, 2]", merge, true, R"({"l": [1, 2]})"},
    // Keyed arrays.
    {R"({"l": [{"_id_": "a"}]})", "l:b", R"({"v": 1})", merge, true,
     R"({"l": [{"_id_": "a"}, {"v": 1, "_id_": "b"}]})"},
    {R"({"l": [{"_id_": "a"}, {"_id_": "b"}]})", "l:a", R"({"v": 1})", replace, true,
     R"({"l": [{"_id_": "b"}, {"v": 1, "_id_": "a"}]})"},
    {R"({"l": [{"_id_": "a", "w": 2}]})", "l:a", R"({"v": 1})", merge, true,
     R"({"l": [{"_id_": "a", "w": 2, "v": 1}]})"},
    {R"({"l": [{"_id_": "a"}]})", "l:a", "5", merge, true, R"({"l": [{"_id_": "a"}]})"},
    {R"({"l": [{"_id_": "a"}]})", "l:a", "null", merge, true, R"({"l": [{"_id_": "a"}]})"},
    {R"({"l": [{"_id_": "a"}]})", "l:b", R"({"!": 1, "v": 1})", merge, true, R"({"l": [{"_id_": "a"}]})"},
    {R"({"l": [{"_id_": "a"}]})", "l:a:v", "1", merge, true, R"({"l": [{"_id_": "a", "v": 1}]})"},
    // Merges of dictionaries.
    {R"({"p": "text"})", "p", R"({"x": 1})", merge, false, R"({"p": "text"})"},
    {R"({"p": {"!": 1}})", "p", R"({"x": 1})", merge, false, R"({"p": {}})"},
    {R"({"p": {"!": 1}})", "p", R"({})", merge, false, R"({"p": {}})"},
    {R"({"p": {}})", "p", R"({"x": 1, "no:where": 2, "y": 3})", merge, false, R"({"p": {"x": 1}})"},
    {R"({"p": {"q": {}}})", "p", R"({"q:r": 1, "q": {"s": 2}})", merge, true, R"({"p": {"q": {"r": 1, "s": 2}}})"},
    {R"({"p": {"q": 1}})", "", R"({"p": {"r": 2}})", merge, true, R"({"p": {"q": 1, "r": 2}})"},
    // Merges of keyed arrays.
    {R"({"l": [{"_id_": "a", "v": 1}]})", "l", R"([{"_id_": "b", "_newid_": true, "w": 2}, {"_id_": "a", "v": 3}])",
     merge, true, R"({"l": [{"_id_": "a", "v": 3}, {"_id_": "b", "w": 2}]})"},
    {R"({"l": [{"_id_": "a"}]})", "l", R"([{"_id_": "missing"}, {"_id_": "a"}])", merge, true,
     R"({"l": [{"_id_": "a"}]})"},
    {R"({"l": [{"_id_": "a"}]})", "l", R"([{"_id_": "a", "v": 1}, {"_id_": "missing"}])", merge, false,
     R"({"l": [{"_id_": "a", "v": 1}]})"},
    {R"({"l": []})", "l", R"([{"_id_": "a", "_newid_": 1}])", merge, true, R"({"l": [{"_id_": "a"}]})"},
    {R"({"l": [1]})", "l", R"([{"_id_": "a", "_newid_": true}])", merge, false, R"({"l": [1]})"},
    {R"({"l": {}})", "l", R"([{"_id_": "a"}])", merge, false, R"({"l": {}})"},
    {R"({"l": [1]})", "l", R"([{"_id_": "a"}])", replace, true, R"({"l": [{"_id_": "a"}]})"},
    {R"({"l": [1]})", "l", "[]", merge, true, R"({"l": []})"},
};

TEST(KeyPath, SetsMergesAndRemoves) {
  for (const auto& [before, path, value, replaces, succeeds, after] : writes) {
    PlistValue root = tree(before);
    EXPECT_EQ(root.setNestedObject(tree(value), path, replaces), succeeds) << before << " " << path << " " << value;
    EXPECT_EQ(text(root), text(tree(after))) << path << " " << value;
    PlistValue prepared = tree(before);
    EXPECT_EQ(KeyPath(path).set(prepared, tree(value), replaces), succeeds) << before << " " << path << " " << value;
    EXPECT_EQ(text(prepared), text(tree(after))) << path << " " << value;
  }
  PlistValue immutable = tree(R"({"a": {}})").immutableCopy();
  EXPECT_FALSE(immutable.setNestedObject(1, "a:b", replace));
  EXPECT_FALSE(KeyPath("a:b").set(immutable, 1));
}

TEST(KeyPath, StoresValuesWithoutCopyingThem) {
  PlistValue root = tree(R"({"p": {}, "l": [{"_id_": "a"}]})");
  PlistValue value = tree(R"({"inner": {"x": 1}})");
  EXPECT_TRUE(root.setNestedObject(value, "p", merge));
  EXPECT_TRUE(root.nestedObjectForKey("p:inner").isIdentical(value.get("inner")));
  EXPECT_FALSE(root.get("p").isIdentical(value));
  EXPECT_TRUE(root.setNestedObject(value, "l:b", merge));
  EXPECT_TRUE(root.nestedObjectForKey("l:b").isIdentical(value));
}

TEST(KeyPath, UpdatesElementsByTheirMarkers) {
  const struct {
    const char* before;
    const char* key;
    const char* update;
    bool succeeds;
    const char* after;
  } cases[] = {
      {"[]", "n", R"({"_id_": "n", "_newid_": true, "v": 1})", true, R"([{"_id_": "n", "v": 1}])"},
      {R"([{"_id_": "n"}])", "n", R"({"_obsoleteid_": true, "_newid_": true})", true, "[]"},
      {"[]", "n", R"({"_obsoleteid_": true})", false, "[]"},
      {"[]", "n", R"({"_obsoleteid_": true, "_newid_": true})", true, R"([{"_obsoleteid_": true, "_id_": "n"}])"},
      {R"([{"_id_": "n"}])", "n", R"({"_newid_": true, "_obsoleteid_": false, "_id_": "m"})", true,
       R"([{"_id_": "m", "_newid_": true, "_obsoleteid_": false}])"},
      {R"([{"!": 1, "_id_": "n"}])", "n", R"({"v": 1})", false, R"([{"_id_": "n"}])"},
      {R"([{}])", "n", R"({"_newid_": true})", true, R"([{}, {"_id_": "n"}])"},
      {R"([{"_id_": "n", "d": {"x": 1}}])", "n", R"({"d": {"y": 2}})", true,
       R"([{"_id_": "n", "d": {"x": 1, "y": 2}}])"},
      {"[]", "n", "null", false, "[]"},
      {"[]", "n", R"("text")", false, "[]"},
  };
  for (const auto& [before, key, update, succeeds, after] : cases) {
    PlistValue array = tree(before);
    EXPECT_EQ(array.updateDictionary(tree(update), key, merge), succeeds) << update;
    EXPECT_EQ(text(array), text(tree(after))) << update;
  }
  PlistValue array = tree(R"([{"_id_": "n", "d": {"x": 1}}])");
  EXPECT_TRUE(array.updateDictionary(tree(R"({"d": {"y": 2}})"), "n", replace));
  EXPECT_EQ(array, tree(R"([{"_id_": "n", "d": {"y": 2}}])"));
  EXPECT_FALSE(array.updateDictionary(tree(R"({"_newid_": true})"), std::string_view(), merge));
  EXPECT_FALSE(array.immutableCopy().updateDictionary(tree(R"({"_newid_": true})"), "x", merge));

  PlistValue root = tree(R"({"a": 1})");
  EXPECT_TRUE(root.updateWithDictionary(nullptr));
  EXPECT_FALSE(root.updateWithDictionary("text"));
  EXPECT_FALSE(root.updateWithDictionary(tree(R"({"b": 2, "x:y": 3, "c": 4})")));
  EXPECT_EQ(root, tree(R"({"a": 1, "b": 2})"));

  // What one member put there, the next may change.
  EXPECT_TRUE(root.updateWithDictionary(tree(R"({"n": {"x": 1, "l": [{"_id_": "k"}]}, "n:y": 2, "n:x": 3,
      "n:l": [{"_id_": "m", "_newid_": true, "d": {}}], "n:l:m:d:z": 4, "n:l:k": 5, "n:l:m:e": {}})")));
  EXPECT_EQ(root.get("n"), tree(R"({"x": 3, "y": 2, "l": [{"_id_": "k"}, {"_id_": "m", "d": {"z": 4}, "e": {}}]})"));
}

std::string number(std::size_t i) { return std::to_string(i); }

TEST(KeyPath, ManyElementsMergeAsOneByOne) {
  // Keys that repeat, are made again after they were removed, and become others while the list is read.
  constexpr const char* renames[] = {R"("v")", R"("::_id_")", R"("\\_id_")"};
  for (std::size_t seed = 0; seed < 300; ++seed) {
    std::size_t state = seed;
    const auto random = [&state](std::size_t limit) { return (state = state * 69069 + 12345) / 65536 % limit; };
    const auto key = [&] { return R"({"_id_": "k)" + number(random(40)) + "\""; };
    std::string before = key() + "}";
    std::string updates = before;
    for (std::size_t i = 0; i < 50; ++i) before += "," + key() + "}";
    for (std::size_t i = 0; i < 150; ++i) {
      updates += "," + key() + (random(2) == 0 ? R"(, "_newid_": true)" : "");
      if (random(3) == 0) updates += R"(, "_obsoleteid_": true)";
      const std::string value = random(90) == 0 ? "1" : "\"k" + number(random(50)) + "\"";
      updates += std::string(", ") + renames[random(std::size(renames))] + ": " + value + "}";
    }
    PlistValue many = tree(("{\"l\": [" + before + "]}").c_str());
    PlistValue single = many.deepMutableCopy().get("l");
    const PlistValue list = tree(("[" + updates + "]").c_str());
    bool last = false;
    for (const PlistValue& update : list.elements()) {
      last = single.updateDictionary(update, update.get("_id_").stringValue(), merge);
    }
    EXPECT_EQ(many.setNestedObject(tree(("[" + updates + "]").c_str()), "l", merge), last) << seed;
    EXPECT_EQ(many.get("l"), single) << seed;
  }
}

TEST(KeyPath, ManyElementsDoNotCostTheirSquare) {
  constexpr std::size_t count = 30'000;  // whose square is a minute
  PlistValue fresh = PlistValue::mutableArray();
  PlistValue obsolete = PlistValue::mutableArray();
  for (std::size_t i = 0; i < count; ++i) {
    const std::string key = number(i * 7919 % count);
    fresh.append(
        PlistValue::mutableDictionaryOf({{"_id_", key}, {"_newid_", true}, {"d", PlistValue::mutableArray()}}));
    if (i % 2 == 0) obsolete.append(PlistValue::mutableDictionaryOf({{"_id_", key}, {"_obsoleteid_", true}}));
  }
  PlistValue root = PlistValue::mutableDictionaryOf({{"l", PlistValue::mutableArray()}});
  EXPECT_TRUE(root.setNestedObject(fresh, "l", merge));
  EXPECT_TRUE(root.setNestedObject(fresh, "l", merge));
  EXPECT_EQ(root.get("l").count(), count);
  const PlistValue copy = root.dictionaryForKeys(tree(R"(["l:*:d", "l:*:_id_"])"));
  EXPECT_EQ(copy.get("l").count(), count);
  EXPECT_TRUE(root.get("l").objectForNestedKey("*", copy.get("l")));  // each takes the place of its copy
  EXPECT_EQ(copy.get("l"), root.get("l"));
  EXPECT_TRUE(root.setNestedObject(obsolete, "l", merge));
  EXPECT_EQ(root.get("l").count(), count / 2);
  EXPECT_EQ(root.get("l").at(1).get("_id_"), fresh.at(3).get("_id_"));
}

TEST(KeyPath, RemovesAtAPathThatIsSplitTwice) {
  const struct {
    const char* before;
    const char* path;
    const char* after;
  } cases[] = {
      {R"({"a": {"b": 1, "c": 2}})", "a:b", R"({"a": {"c": 2}})"},
      {R"({"a": 1})", "b:c", R"({"a": 1})"},
      {R"({"a": 1})", "", R"({"a": 1})"},
      {R"({"a:b": 1})", "a\\:b", R"({})"},
      {R"({"l": [{"_id_": "k", "n": 1}, {"_id_": "k", "n": 2}]})", "l:k", R"({"l": [{"_id_": "k", "n": 2}]})"},
      {R"({"l": [1, 2]})", "l:0", R"({"l": [1, 2]})"},
      {R"({"p:q": {"x": 1}, "p": {"q": {"x": 2}}})", "p\\:q:x", R"({"p:q": {"x": 1}, "p": {"q": {}}})"},
      {R"({"p\\": {"x": 1}, "x": 2})", "p\\\\:x", R"({"p\\": {"x": 1}})"},
      {R"({"": {"x": 1}, "x": 2})", ":x", R"({"": {"x": 1}})"},
      {R"({"": {"": {"x": 1}}})", "::x", R"({"": {"": {}}})"},
      {R"({"a": {"!": 1, "b": 1}})", "a:b", R"({"a": {"b": 1}})"},
  };
  for (const auto& [before, path, after] : cases) {
    PlistValue root = tree(before);
    root.removeNestedObjectForKey(path);
    EXPECT_EQ(text(root), text(tree(after))) << path;
  }
}

TEST(KeyPath, CopiesWhatPathsSelect) {
  const PlistValue root = tree(R"({"u1": {"name": "a", "x": 1}, "u2": {"name": "b"}, "n": 5, "deep": {"p": {"q": 1}},
      "l": [{"_id_": "k1", "v": 1, "d": {"w": 2}}, {"_id_": "k2", "v": 3}], "plain": [1], "": {"e": 1}})");
  const struct {
    const char* paths;
    const char* copy;
  } cases[] = {
      {R"(["*:name"])", R"({"u1": {"name": "a"}, "u2": {"name": "b"}, "deep": {}, "l": [], "plain": [], "": {}})"},
      {R"(["u1:x", "n", "missing", "n:x", "u2:missing"])", R"({"u1": {"x": 1}, "n": 5, "u2": {}})"},
      {R"(["l:k2:v"])", R"({"l": [{"_id_": "k2", "v": 3}]})"},
      {R"(["l:*:v"])", R"({"l": [{"_id_": "k1", "v": 1}, {"_id_": "k2", "v": 3}]})"},
      {R"(["l:k1:d:w", "l:k1:v"])", R"({"l": [{"_id_": "k1", "d": {"w": 2}, "v": 1}]})"},
      {R"(["deep:*:*"])", R"({"deep": {"p": {"q": 1}}})"},
      {R"(["plain:*", "plain:0"])", R"({"plain": []})"},
      {R"(["deep::p::q"])", R"({"deep": {"p": {"q": 1}}})"},  // empty components of the rest vanish
      {R"([":e"])", R"({"": {"e": 1}})"},
      {R"(["deep:", "u1:x:"])", R"({"deep": {}, "u1": {}})"},
      {R"(["", 5])", R"({})"},
  };
  for (const auto& [paths, copy] : cases) {
    const PlistValue made = root.dictionaryForKeys(tree(paths));
    EXPECT_EQ(text(made), text(tree(copy))) << paths;
    EXPECT_TRUE(made.isMutable());
  }
  PlistValue target = PlistValue::mutableDictionary();
  EXPECT_TRUE(root.objectForNestedKey("deep:p", target));
  EXPECT_TRUE(target.nestedObjectForKey("deep:p").isIdentical(root.nestedObjectForKey("deep:p")));
  EXPECT_FALSE(root.objectForNestedKey("*:missing", PlistValue::mutableDictionary()));
  EXPECT_FALSE(root.get("plain").objectForNestedKey("*", PlistValue::mutableDictionary()));
  EXPECT_FALSE(root.objectForNestedKey("n", PlistValue::dictionaryOf({})));
  EXPECT_TRUE(root.get("l").objectForNestedKey("*:v", target));
  EXPECT_EQ(target.nestedObjectForKey("k2:v"), 3);

  // An array takes mutable dictionaries only; others are passed over, though they count as found.
  PlistValue array = PlistValue::mutableArray();
  EXPECT_TRUE(tree(R"([{"!": 1, "_id_": "k"}])").objectForNestedKey("k", array));
  EXPECT_EQ(array.count(), 0U);
  // One with other elements too does not find what was just put into it.
  PlistValue mixed = tree("[5]");
  EXPECT_FALSE(root.get("l").objectForNestedKey("k1:v", mixed));
  EXPECT_EQ(mixed, tree(R"([5, {"_id_": "k1"}])"));
}

TEST(KeyPath, NothingComesToStandInsideItself) {
  const auto fresh = [] { return tree(R"({"a": {"b": {"c": {}}}, "l": [{"_id_": "k", "sub": []}], "leaf": 1})"); };
  PlistValue root = fresh();
  for (const char* path : {"x", "a", "a:b", "a:b:c", "a:b:c:d", "l:k", "l:new", "l:k:sub", "l:k:x"}) {
    EXPECT_FALSE(root.setNestedObject(root, path, replace)) << path;
    EXPECT_FALSE(KeyPath(path).set(root, root)) << path;
  }
  EXPECT_FALSE(root.setNestedObject(root.get("a"), "a:b:c", replace));
  EXPECT_FALSE(root.setNestedObject(tree(R"({"wrapped": 1})"), "wrapped:no", replace));
  PlistValue wrapper = PlistValue::mutableDictionaryOf({{"w", PlistValue::arrayOf({root.get("a")})}});
  EXPECT_FALSE(root.setNestedObject(wrapper, "a:b:c:d", replace));
  PlistValue list = root.get("l");
  EXPECT_FALSE(list.setObject(root, "root"));
  EXPECT_FALSE(list.updateDictionary(PlistValue::mutableDictionaryOf({{"_newid_", true}, {"x", list}}), "n", merge));
  PlistValue inner = root.nestedObjectForKey("a:b:c");
  EXPECT_FALSE(root.objectForNestedKey("a", inner));
  EXPECT_EQ(root, fresh());
}

TEST(KeyPath, ReadsAndWritesTheSameTree) {
  const char* json =
      R"({"a": {"x": 1}, "b": {"a": {"y": 2}, "b": {"z": 1}}, "l": [{"_id_": "k", "v": 1}, {"_id_": "m"}]})";
  PlistValue root = tree(json);
  EXPECT_TRUE(root.updateWithDictionary(root));
  EXPECT_TRUE(root.setNestedObject(root.get("l"), "l", merge));
  EXPECT_TRUE(root.objectForNestedKey("*", root));
  EXPECT_TRUE(root.objectForNestedKey("l:*", root));
  EXPECT_EQ(text(root), text(tree(json)));  // and the list keeps its order

  PlistValue marked = tree(R"({"l": [{"_id_": "k", "_obsoleteid_": true}]})");
  EXPECT_TRUE(marked.setNestedObject(marked.get("l"), "l", merge));
  EXPECT_EQ(marked.get("l").count(), 1U);

  // A part of the tree merged into the tree: what is read is never written to.
  EXPECT_FALSE(root.updateWithDictionary(root.get("b")));  // its "b" would have to go into itself
  EXPECT_EQ(root.nestedObjectForKey("a:y"), 2);
  EXPECT_EQ(root.get("b"), tree(json).get("b"));

  // The value's own handle is one that is written over.
  EXPECT_TRUE(root.setNestedObject(*root.find("a"), "a", replace));
  EXPECT_TRUE(root.setNestedObject(*root.get("b").find("a"), "b", replace));
  EXPECT_EQ(root.get("b"), tree(R"({"y": 2})"));

  // So is the path.
  root.set("p", "p");
  EXPECT_TRUE(root.setNestedObject("a much longer text than before", root.find("p")->stringValue(), replace));
  EXPECT_EQ(root.get("p"), "a much longer text than before");

  // The target hangs in the source.
  PlistValue source = tree(R"({"a": {"v": 1}, "t": {}})");
  EXPECT_TRUE(source.objectForNestedKey("*:v", source.get("t")));
  EXPECT_EQ(text(source), text(tree(R"({"a": {"v": 1}, "t": {"a": {"v": 1}, "t": {}}})")));

  // A selection that was shared before is not reordered by the next path.
  EXPECT_TRUE(root.dictionaryForKeys(tree(R"(["l", "l:k"])")).get("l").isIdentical(root.get("l")));
  EXPECT_EQ(root.get("l"), tree(json).get("l"));
}

TEST(KeyPath, DepthCostsNoStack) {
  constexpr int depth = 200'000;
  const auto nest = [](const char* leaf) {
    PlistValue value = PlistValue::mutableDictionaryOf({{leaf, 1}});
    for (int i = 0; i < depth; ++i) {
      value = i % 2 == 0 ? PlistValue::mutableDictionaryOf({{"_id_", "k"}, {"d", value}})
                         : PlistValue::mutableDictionaryOf({{"_id_", "k"}, {"d", PlistValue::mutableArrayOf({value})}});
    }
    return value;
  };
  PlistValue root = nest("x");
  EXPECT_TRUE(root.updateWithDictionary(nest("y")));
  std::string path;
  for (int i = depth - 1; i >= 0; --i) path += i % 2 == 0 ? "d:" : "d:k:";
  EXPECT_EQ(root.nestedObjectForKey(path + "y"), 1);
  EXPECT_EQ(KeyPath(path + "x").get(root), 1);
  EXPECT_EQ(root.dictionaryForKeys(PlistValue::arrayOf({path + "x"})).nestedObjectForKey(path + "x"), 1);
  EXPECT_TRUE(root.setNestedObject(2, path + "y", replace));
  root.removeNestedObjectForKey(path + "x");
  EXPECT_EQ(root.nestedObjectForKey(path), PlistValue());
  EXPECT_EQ(root.nestedObjectForKey(path.substr(0, path.size() - 1)).count(), 1U);
}

}  // namespace
}  // namespace ostrel
