#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "Containers/PlistValue.h"

namespace ostrel {
namespace {

using namespace std::string_view_literals;

PlistValue record(std::string_view id) { return PlistValue::mutableDictionaryOf({{"_id_", id}}); }
PlistValue listOf(std::initializer_list<PlistValue> elements) { return PlistValue::mutableArrayOf(elements); }
PlistValue dictionaryWith(std::string_view key, PlistValue value) {
  return PlistValue::mutableDictionaryOf({{key, std::move(value)}});
}

std::string keyed(const PlistValue& array) { return array.allKeys().componentsJoinedByCharacter(','); }

TEST(KeyedArray, IsOneOnlyWhenEveryElementHasAKey) {
  const struct {
    PlistValue array;
    bool isKeyed;
    std::string_view keys;
  } cases[] = {
      {listOf({}), false, ""},
      {listOf({record("a")}), true, "a"},
      {listOf({record("a"), record("")}), true, "a,"},
      {listOf({record("a"), PlistValue::mutableDictionary(), record("b")}), false, "a,b"},
      {listOf({record("a"), "b"}), false, "a"},
      {listOf({record("a"), dictionaryWith("_id_", 5)}), false, "a"},
      {listOf({record("a"), listOf({record("b")})}), false, "a"},
      {PlistValue("text"), false, ""},
  };
  for (const auto& [array, isKeyed, keys] : cases) {
    EXPECT_EQ(array.isArrayOfDictionaries(), isKeyed) << array.description();
    EXPECT_EQ(keyed(array), keys);
    EXPECT_EQ(array.objectForKey("a").isNull(), !isKeyed) << array.description();
    EXPECT_FALSE(array.allKeys().isMutable());
  }
  EXPECT_FALSE(record("a").isArrayOfDictionaries());
}

TEST(KeyedArray, FindsTheLastAndRemovesTheFirstOfOneKey) {
  PlistValue first = record("k");
  PlistValue last = record("k");
  PlistValue array = listOf({first, record("other"), last});
  EXPECT_TRUE(array.objectForKey("k").isIdentical(last));
  EXPECT_TRUE(array.objectForKey("K").isNull());
  EXPECT_TRUE(array.objectForKey(std::string_view()).isNull());
  EXPECT_TRUE(array.dictionaryRepresentation().get("k").isIdentical(last));
  EXPECT_TRUE(array.removeObjectForKey("k"));
  EXPECT_FALSE(array.removeIdentical(first) != 0);
  EXPECT_TRUE(array.objectForKey("k").isIdentical(last));
  EXPECT_FALSE(array.immutableCopy().removeObjectForKey("k"));
  EXPECT_FALSE(array.removeObjectForKey("missing"));
}

TEST(KeyedArray, ReplacingMovesToTheEndAndTakesOnlyMutableDictionaries) {
  PlistValue array = listOf({record("a"), record("b"), record("a")});
  PlistValue value = record("z");
  EXPECT_TRUE(array.setObject(value, "a"));
  EXPECT_EQ(keyed(array), "b,a,a");
  EXPECT_EQ(value.get("_id_"), "a");
  for (const PlistValue& refused : {PlistValue(), PlistValue("text"), record("a").immutableCopy(), listOf({})}) {
    EXPECT_FALSE(array.setObject(refused, "b"));
  }
  EXPECT_FALSE(array.setObject(record("x"), std::string_view()));
  EXPECT_EQ(keyed(array), "b,a,a");

  PlistValue mixed = listOf({record("a"), "text"});  // not keyed: nothing is removed
  EXPECT_TRUE(mixed.setObject(record("x"), "a"));
  EXPECT_EQ(mixed.count(), 3U);
}

TEST(KeyedArray, KeyMayLiveInTheElementThatGoes) {
  PlistValue array = listOf({record("short"), record("b")});
  EXPECT_TRUE(array.setObject(array.at(0), array.elements()[0].find("_id_")->stringValue()));
  EXPECT_EQ(keyed(array), "b,short");
  EXPECT_TRUE(array.setObject(array.elements()[0], array.elements()[1].find("_id_")->stringValue()));
  EXPECT_EQ(keyed(array), "short,short");  // the value stood in the array under another key, and stays there
}

TEST(KeyedArray, IntersectsByValue) {
  const PlistValue nested = listOf({PlistValue::dictionaryOf({{"a", 1}, {"b", listOf({2, "x"})}})});
  const PlistValue alike =
      listOf({"no", PlistValue::dictionaryOf({{"b", PlistValue::arrayOf({2.0, "x"})}, {"a", true}})});
  EXPECT_TRUE(nested.intersectsArray(alike));
  EXPECT_TRUE(listOf({1, "two"}).intersectsArray(listOf({"three", 1.0})));
  EXPECT_TRUE(listOf({-0.0}).intersectsArray(listOf({0})));
  EXPECT_FALSE(listOf({1, "two"}).intersectsArray(listOf({"1", 2})));
  EXPECT_FALSE(listOf({}).intersectsArray(listOf({})));
  EXPECT_FALSE(PlistValue("a").intersectsArray(listOf({"a"})));
}

const struct {
  std::string_view text;
  char separator;
  std::vector<std::string> components;  // none: null
} splits[] = {
    {"a:b", ':', {"a", "b"}},
    {"a:", ':', {"a", ""}},
    {":", ':', {"", ""}},
    {":a", ':', {"", "a"}},
    {"", ':', {}},
    {"a\\", ':', {}},
    {"x:a\\", ':', {"x"}},
    {"a:\\", ':', {"a"}},
    {"\\", ':', {}},
    {"\\\\", ':', {"\\"}},
    {"a\\:b:c", ':', {"a:b", "c"}},
    {"a\\\\:b", ':', {"a\\", "b"}},
    {"\\a\\b:\\:", ':', {"ab", ":"}},
    {"a,b\\,c:d", ',', {"a", "b,c:d"}},
    {"a\\\\b", '\\', {"a\\b"}},
    {"\xC3\xA4:\\\xC3\xA4", ':', {"\xC3\xA4", "\xC3\xA4"}},
    {"\xC3\xA4", '\xC3', {"\xC3\xA4"}},
};

TEST(StringComponents, SplitsAndUnescapes) {
  for (const auto& [text, separator, components] : splits) {
    const PlistValue split = PlistValue(text).componentsSeparatedByCharacter(separator);
    EXPECT_EQ(split.isNull(), components.empty()) << text;
    std::vector<std::string> got;
    for (const PlistValue& component : split.elements()) got.emplace_back(component.stringValue());
    EXPECT_EQ(got, components) << text;
  }
  EXPECT_TRUE(PlistValue(5).componentsSeparatedByCharacter(':').isNull());
}

TEST(StringComponents, JoinsWhatSplitsBack) {
  EXPECT_EQ(PlistValue::arrayOf({"a:b", "c"}).componentsJoinedByCharacter(':'), "a\\:b:c");
  EXPECT_EQ(PlistValue::arrayOf({"", "a"}).componentsJoinedByCharacter(':'), "a");
  EXPECT_EQ(PlistValue::arrayOf({"", "", "a", "", "b", ""}).componentsJoinedByCharacter(':'), "a::b:");
  EXPECT_EQ(PlistValue::arrayOf({"a\\b"}).componentsJoinedByCharacter('\\'), "a\\\\b");
  EXPECT_EQ(PlistValue("text").componentsJoinedByCharacter(':'), "");
}

TEST(StringComponents, EscapesAndUnescapes) {
  bool hasSpaces = true;
  EXPECT_EQ(PlistValue("a\\b\"c\t").escapedStringForCharacter('"', &hasSpaces), "a\\\\b\\\"c\t");
  EXPECT_FALSE(hasSpaces);
  EXPECT_EQ(PlistValue("a b").escapedStringForCharacter('"', &hasSpaces), "a b");
  EXPECT_TRUE(hasSpaces);
  EXPECT_EQ(PlistValue("a\\\\b\\:c\\").unescapedString(), "a\\b:c");
  EXPECT_EQ(PlistValue(7).unescapedString(), "");
}

TEST(StringComponents, CompactsWhiteSpace) {
  const struct {
    std::string_view text;
    std::string_view compacted;
  } cases[] = {
      {"  a \t\n b  ", "a b"},
      {"", ""},
      {" \r\n\v\f", ""},
      {"a\xC2\xA0\xE3\x80\x80"
       "b\xC2\x85",
       "a b"},
      {"a\xE2\x80\x8B"
       "b",
       "a\xE2\x80\x8B"
       "b"},  // a zero-width space is no white space
      {"a \0b"sv, "a"},
      {"\xFF a\xC2", "\xFF a\xC2"},
  };
  for (const auto& [text, compacted] : cases)
    EXPECT_EQ(PlistValue(text).stringWithCompactedAndTrimmedWhiteSpace(), compacted) << text;
}

}  // namespace
}  // namespace ostrel
