#include "Containers/PlistValue.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <thread>
#include <vector>

namespace ostrel {
namespace {

using namespace std::string_view_literals;

TEST(PlistValue, NullAnswersEveryQuestionHarmlessly) {
  PlistValue null;
  EXPECT_TRUE(null.isNull());
  EXPECT_TRUE(null.get("key").isNull());
  EXPECT_TRUE(null.at(3).isNull());
  EXPECT_EQ(null.count(), 0U);
  EXPECT_EQ(null.stringValue(), "");
  EXPECT_FALSE(null.set("key", 1));
  EXPECT_FALSE(null.append(1));
  EXPECT_FALSE(null.clear());
  EXPECT_EQ(null.deepMutableCopy(), null);
  EXPECT_TRUE(PlistValue(static_cast<const char*>(nullptr)).isNull());
}

TEST(PlistValue, PointersAndIntegersNeverBecomeBooleans) {
  EXPECT_TRUE(PlistValue("text").isString());
  EXPECT_TRUE(PlistValue(1).isInteger());
  EXPECT_FALSE(PlistValue(1).isBoolean());
  EXPECT_TRUE(PlistValue(true).isBoolean());
  EXPECT_TRUE(PlistValue(true).isNumber());
  EXPECT_EQ(PlistValue(true).int64Value(), 1);
}

TEST(PlistValue, StringsOnBothSidesOfTheInlineLimitBehaveAlike) {
  for (std::size_t length = 0; length < 40; ++length) {
    const std::string text(length, 'x');
    PlistValue value(text);
    const PlistValue copy = value;
    EXPECT_EQ(copy.stringValue(), text);
    EXPECT_EQ(copy, PlistValue(text));
    EXPECT_FALSE(copy == PlistValue(text + "y"));
    value = PlistValue();
    EXPECT_EQ(copy.stringValue(), text);
  }
  EXPECT_EQ(PlistValue("a\0b"sv).stringValue(), "a\0b"sv);
  EXPECT_FALSE(PlistValue("a\0"sv) == PlistValue("a"));
}

TEST(PlistValue, ShortStringOfATemporaryOutlivesIt) {
  const auto make = [] { return PlistValue("short"); };
  const std::string text = make().stringValue();
  EXPECT_EQ(text, "short");
}

TEST(PlistValue, NumbersCompareByValueAcrossTheirForms) {
  const auto maximum = std::numeric_limits<std::uint64_t>::max();
  EXPECT_EQ(PlistValue(1), PlistValue(1.0));
  EXPECT_EQ(PlistValue(true), PlistValue(1));
  EXPECT_EQ(PlistValue(0), PlistValue(-0.0));
  EXPECT_EQ(PlistValue(std::nan("")), PlistValue(std::nan("1")));
  EXPECT_EQ(PlistValue(INT64_MIN), PlistValue(-9223372036854775808.0));
  EXPECT_FALSE(PlistValue(maximum) == PlistValue(-1));
  EXPECT_FALSE(PlistValue(maximum) == PlistValue(18446744073709551616.0));
  EXPECT_FALSE(PlistValue(9007199254740993) == PlistValue(9007199254740992.0));
  EXPECT_FALSE(PlistValue("1") == PlistValue(1));
  EXPECT_EQ(PlistValue(maximum).uint64Value(), maximum);
  EXPECT_EQ(PlistValue(1e300).int64Value(), INT64_MAX);
  EXPECT_EQ(PlistValue(-1e300).uint64Value(), 0U);
  EXPECT_EQ(PlistValue(std::nan("")).int64Value(), 0);
}

TEST(PlistValue, SharesWritesThroughEveryHandleAndRefusesThemWhenImmutable) {
  PlistValue first = PlistValue::mutableDictionary();
  PlistValue second = first;
  EXPECT_TRUE(second.set("key", "value"));
  EXPECT_EQ(first.get("key").stringValue(), "value");

  PlistValue frozen = first.immutableCopy();
  EXPECT_FALSE(frozen.set("key", "other"));
  EXPECT_FALSE(frozen.remove("key"));
  EXPECT_TRUE(frozen.immutableCopy().isIdentical(frozen));
  EXPECT_TRUE(first.set("key", "changed"));
  EXPECT_EQ(frozen.get("key").stringValue(), "value");

  EXPECT_FALSE(first.set("self", first));
  EXPECT_FALSE(first.set("null", PlistValue()));
  EXPECT_EQ(first.count(), 1U);
}

TEST(PlistValue, BuilderStopsAtTheFirstNull) {
  const PlistValue built = PlistValue::dictionaryOf({{"a", 1}, {"b", PlistValue()}, {"c", 3}});
  EXPECT_EQ(built, PlistValue::dictionaryOf({{"a", 1}}));
  EXPECT_FALSE(built.isMutable());
  EXPECT_EQ(PlistValue::arrayOf({1, PlistValue(), 3}).count(), 1U);
}

TEST(PlistValue, DictionariesKeepOrderAndFindEveryKeyThroughGrowthAndRemoval) {
  PlistValue dictionary = PlistValue::mutableDictionary();
  for (int i = 0; i < 1000; ++i) EXPECT_TRUE(dictionary.set("key " + std::to_string(i), i));
  EXPECT_TRUE(dictionary.set("key 0", -1));
  for (int i = 1; i < 1000; i += 2) EXPECT_TRUE(dictionary.remove("key " + std::to_string(i)));
  EXPECT_FALSE(dictionary.remove("key 1"));
  ASSERT_EQ(dictionary.count(), 500U);
  int expected = 0;
  for (const PlistEntry& entry : dictionary.entries()) {
    EXPECT_EQ(entry.keyText(), "key " + std::to_string(expected));
    EXPECT_EQ(dictionary.get(entry.keyText()), entry.value);
    expected += 2;
  }
  EXPECT_TRUE(dictionary.get("key 501").isNull());
  EXPECT_EQ(dictionary, dictionary.deepMutableCopy());
  EXPECT_TRUE(dictionary.clear());
  EXPECT_TRUE(dictionary.set("again", 1));
  EXPECT_EQ(dictionary.count(), 1U);
}

TEST(PlistValue, ArraysInsertReplaceAndRemoveByIdentity) {
  const PlistValue marker = PlistValue::mutableDictionary();
  PlistValue array = PlistValue::mutableArrayOf({1, 2});
  EXPECT_TRUE(array.insert(0, marker));
  EXPECT_TRUE(array.append(PlistValue::mutableDictionary()));
  EXPECT_TRUE(array.append(marker));
  EXPECT_FALSE(array.insert(99, 1));
  EXPECT_FALSE(array.append(array));
  EXPECT_EQ(array.removeIdentical(marker), 2U);
  EXPECT_EQ(array, PlistValue::arrayOf({1, 2, PlistValue::mutableDictionary()}));
  EXPECT_TRUE(array.replace(0, "zero"));
  EXPECT_TRUE(array.removeAt(1));
  EXPECT_EQ(array, PlistValue::arrayOf({"zero", PlistValue::mutableDictionary()}));
}

TEST(PlistValue, DeepCopiesShareNothingOrOnlyLeaves) {
  const std::string longText(100, 't');
  const PlistValue original = PlistValue::dictionaryOf({{"list", PlistValue::arrayOf({PlistValue(longText)})}});
  PlistValue copy = original.deepMutableCopy();
  PlistValue structure = original.deepMutableStructureCopy();
  EXPECT_EQ(copy, original);
  EXPECT_TRUE(copy.get("list").isMutable());
  EXPECT_FALSE(copy.get("list").at(0).isIdentical(original.get("list").at(0)));
  EXPECT_TRUE(structure.get("list").at(0).isIdentical(original.get("list").at(0)));
  EXPECT_TRUE(structure.get("list").append(1));
  EXPECT_EQ(original.get("list").count(), 1U);
}

/// A program may nest deeper than any reader lets a document: a module that wraps what it kept at every request.
TEST(PlistValue, TakesAnyDepthWithoutExhaustingTheStack) {
  const auto nested = [](int depth) {
    PlistValue root = PlistValue::mutableArrayOf({"core"});
    for (int i = 0; i < depth; ++i) {
      root = i % 2 == 0 ? PlistValue::mutableArrayOf({root}) : PlistValue::mutableDictionaryOf({{"k", root}});
    }
    return root;
  };
  constexpr int depth = 200'000;
  PlistValue root = nested(depth);
  EXPECT_EQ(root, nested(depth));
  EXPECT_FALSE(root == nested(depth + 2));
  EXPECT_EQ(root.deepMutableCopy(), root);
  EXPECT_EQ(root.deepMutableStructureCopy(), root);
  EXPECT_NE(root.description().find("{...}"), std::string::npos);
  EXPECT_TRUE(root.clear());
}

TEST(PlistValue, DescribesEqualTreesAlikeAndKeepsLogLinesWhole) {
  const PlistValue a =
      PlistValue::dictionaryOf({{"x", PlistValue::arrayOf({1, 2.5, true})}, {"b", PlistData{"\x0A\x1B\xFF"}}});
  const PlistValue b =
      PlistValue::dictionaryOf({{"b", PlistData{"\x0A\x1B\xFF"}}, {"x", PlistValue::arrayOf({1, 2.5, true})}});
  EXPECT_EQ(a.description(), b.description());
  EXPECT_EQ(a.description(), "{\n    b = <0a1bff>;\n    x = (\n        1,\n        2.5,\n        1\n    );\n}");
  EXPECT_EQ(PlistValue(PlistDate{1313424505}).description(), "2011-08-15 16:08:25 +0000");
  EXPECT_EQ(PlistValue(PlistDate{-1}).description(), "1969-12-31 23:59:59 +0000");
  EXPECT_EQ(PlistValue(0.1).description(), "0.1");
  const std::pair<double, PlistValue> equals[] = {
      {1e5, 100000},        {-1e6, -1000000}, {-0.0, 0},  {1e19, 10000000000000000000U},
      {-0x1p63, INT64_MIN}, {1, true},        {-NAN, NAN}};
  for (const auto& [real, other] : equals) {
    ASSERT_EQ(PlistValue(real), other);
    EXPECT_EQ(PlistValue(real).description(), other.description());
  }
  EXPECT_EQ(PlistValue(-1e20).description(), "-1e+20");
  EXPECT_EQ(PlistValue(UINT64_MAX).description(), "18446744073709551615");
  EXPECT_EQ(PlistValue(INT64_MIN).description(), "-9223372036854775808");
  EXPECT_EQ(PlistValue::arrayOf({"a\n\"b\\\x01\u009b\u00e9\xC2"}).description(),
            "(\n    \"a\\n\\\"b\\\\\\001\\302\\233\u00e9\xC2\"\n)");
}

TEST(PlistValue, CountsSharesAcrossThreads) {
  PlistValue shared = PlistValue::arrayOf({PlistValue(std::string(50, 's'))});
  {
    std::vector<std::jthread> threads;
    for (int t = 0; t < 4; ++t) {
      threads.emplace_back([shared] {
        for (int i = 0; i < 10000; ++i) {
          const PlistValue copy = shared;
          const PlistValue element = copy.at(0);
          EXPECT_EQ(element.stringValue().size(), 50U);
        }
      });
    }
  }
  EXPECT_EQ(shared.at(0).stringValue(), std::string(50, 's'));
}

TEST(PlistValue, TakesOnlyValidUtf8FromOutside) {
  for (const auto bad : {"\x80"sv, "\xC0\xAF"sv, "\xE0\x80\x80"sv, "\xED\xA0\x80"sv, "\xF4\x90\x80\x80"sv,
                         "\xF0\x9F\x98"sv, "abcdefgh\xFF"sv}) {
    EXPECT_TRUE(PlistValue::stringFromUTF8(bad).isNull());
  }
  for (const auto good : {""sv, "plain"sv, "\xC3\xA9"sv, "\xEF\xBB\xBF"sv, "\xF0\x9F\x98\x80 eight or more bytes"sv}) {
    EXPECT_EQ(PlistValue::stringFromUTF8(good).stringValue(), good);
  }
}

}  // namespace
}  // namespace ostrel
