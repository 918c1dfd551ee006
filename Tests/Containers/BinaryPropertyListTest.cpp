// Binary property lists, hostile ones first, and what holds for all codecs: round trips, linear time.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <ctime>
#include <functional>
#include <limits>
#include <random>
#include <string>
#include <vector>

#include "Containers/PropertyList.h"

namespace ostrel {
namespace {

using namespace std::string_literals;
using namespace std::string_view_literals;

std::string bigEndian(std::uint64_t number, std::size_t size = 8) {
  std::string text;
  for (std::size_t i = size; i-- > 0;) text += static_cast<char>(number >> (8 * i));
  return text;
}

struct Trailer {
  std::uint64_t root = 0;
  std::size_t offsetSize = 2;
  std::size_t referenceSize = 1;
};

/// A file of the given objects, in order.
std::string file(const std::vector<std::string>& objects, Trailer trailer = {}) {
  std::string made = "bplist00";
  std::string table;
  for (const std::string& object : objects) {
    table += bigEndian(made.size(), trailer.offsetSize);
    made += object;
  }
  const std::size_t tableAt = made.size();
  return made + table + std::string(6, '\0') + static_cast<char>(trailer.offsetSize) +
         static_cast<char>(trailer.referenceSize) + bigEndian(objects.size()) + bigEndian(trailer.root) +
         bigEndian(tableAt);
}

PlistValue read(const std::string& bytes) {
  PlistError error;
  PlistValue value = readPropertyList(bytes, PlistForm::immutableContainers, &error);
  EXPECT_EQ(value.isNull(), !error.message.empty());
  EXPECT_LE(error.offset, bytes.size());
  return value;
}

TEST(BinaryPropertyList, ReadsEveryFormOfEveryObject) {
  const std::pair<std::string, PlistValue> cases[] = {
      {"\x08"s, false},
      {"\x09"s, true},
      {"\x10\xFF"s, 255},
      {"\x11\xFF\xFF"s, 65535},
      {"\x12\xFF\xFF\xFF\xFF"s, 4294967295},
      {"\x13" + bigEndian(static_cast<std::uint64_t>(-5)), -5},
      {"\x14" + bigEndian(0) + bigEndian(UINT64_MAX), UINT64_MAX},
      {"\x14" + bigEndian(UINT64_MAX) + bigEndian(static_cast<std::uint64_t>(INT64_MIN)), INT64_MIN},
      {"\x22\x3F\xC0\x00\x00"s, 1.5},
      {"\x23" + bigEndian(0x3FF8000000000000), 1.5},
      {"\x33" + bigEndian(0), PlistDate{978307200}},
      {"\x40"s, PlistData{""}},
      {"\x43"
       "a\0b"s,
       PlistData{"a\0b"sv}},
      {"\x50"s, ""},
      {"\x5F\x10\x10"
       "sixteen bytes ..",
       "sixteen bytes .."},
      {"\x5F\x11\x00\x03"
       "abc"s,
       "abc"},
      {"\x5F\x13" + bigEndian(2) + "ab", "ab"},
      {"\x62\xD8\x3D\xDE\x00"s, "\xF0\x9F\x98\x80"},
      {"\x61\x00\xE9"s, "\xC3\xA9"},
      {"\xA0"s, PlistValue::arrayOf({})},
      {"\xD0"s, PlistValue::dictionaryOf({})},
  };
  for (const auto& [object, expected] : cases) {
    const PlistValue value = read(file({object}));
    EXPECT_EQ(value, expected);
    EXPECT_EQ(value.kind(), expected.kind());
  }
  const std::vector<std::string> record = {"\xD2\x01\x02\x03\x04"s,
                                           "\x51"
                                           "a",
                                           "\x51"
                                           "b",
                                           "\x10\x01"s, "\xA2\x03\x03"s};
  const PlistValue expected = PlistValue::dictionaryOf({{"a", 1}, {"b", PlistValue::arrayOf({1, 1})}});
  EXPECT_EQ(read(file(record)), expected);
  EXPECT_EQ(read(file(record, {.offsetSize = 8})), expected);
  EXPECT_EQ(read(file({"\xA1\x00\x01"s, "\x09"s}, {.referenceSize = 2})), PlistValue::arrayOf({true}));
  EXPECT_EQ(read(file({"\x09"s, "\xA1" + bigEndian(0)}, {.root = 1, .referenceSize = 8})), PlistValue::arrayOf({true}));
}

TEST(BinaryPropertyList, RefusesHostileObjects) {
  const std::vector<std::vector<std::string>> cases = {
      {"\x00"s},      // the null object
      {"\x0F"s},      // fill
      {"\x80\x01"s},  // a keyed archive's identifier
      {"\x70"s},
      {"\xC0"s},
      {"\x15" + std::string(32, '\0')},        // a number of 32 bytes
      {"\x14" + bigEndian(1) + bigEndian(0)},  // beyond 64 bits
      {"\x14" + bigEndian(UINT64_MAX) + bigEndian(0)},
      {"\x21\x00\x00"s},
      {"\x32" + std::string(4, '\0')},
      {"\x33" + bigEndian(0x7FF8000000000000)},  // no moment
      {"\x33" + bigEndian(0x7FF0000000000000)},
      {"\x13\x00"s},  // cut off
      {"\x52"
       "a"},
      {"\x63\x00"
       "a\x00"s},
      {"\x5F"s},
      {"\x5F\x10"s},
      {"\x5F\x20\x01"
       "a"s},  // a count that is no integer
      {"\x5F\x14" + std::string(16, '\0')},
      {"\x5F\x13" + bigEndian(UINT64_MAX)},
      {"\x6F\x13" + bigEndian(UINT64_MAX / 2 + 1)},
      {"\xAF\x13" + bigEndian(UINT64_MAX)},
      {"\xDF\x13" + bigEndian(UINT64_MAX / 2 + 1)},
      {"\x51\x80"s},  // not ASCII
      {"\x5F\x10\x14"
       "twenty bytes, one b\xE4"},
      {"\x61\xD8\x00"s},  // half a pair
      {"\x62\xDC\x00\xD8\x00"s},
      {"\xA1\x01"s},  // no such object
      {"\xA1\x00"s},  // itself
      {"\xA1\x01"s, "\xA1\x00"s},
      {"\xD1\x01\x00"s,
       "\x51"
       "a"},
      {"\xD1\x01\x01"s, "\x10\x01"s},  // a key that is no text
      {"\xD1\x01\x01"s, "\xA0"s},
      {"\xD2\x01\x01\x01\x01"s,
       "\x51"
       "a"},  // a key twice
      {"\xD2\x01\x02\x01\x01"s,
       "\x51"
       "a",
       "\x51"
       "a"},
  };
  for (std::size_t i = 0; i < cases.size(); ++i) {
    EXPECT_TRUE(read(file(cases[i])).isNull()) << i;
    std::vector<std::string> nested = cases[i];
    nested.push_back("\xA1\x00"s);
    EXPECT_TRUE(read(file(nested, {.root = nested.size() - 1})).isNull()) << i;
  }
}

TEST(BinaryPropertyList, ChecksEveryNumberOfItsTrailer) {
  const std::string good = file({"\xA1\x01"s, "\x09"s});
  ASSERT_FALSE(read(good).isNull());
  for (std::size_t length = 0; length < good.size(); ++length) EXPECT_TRUE(read(good.substr(0, length)).isNull());
  EXPECT_TRUE(read(good + "x").isNull());
  // No byte of the file may be changed into something that crashes, whatever the outcome.
  for (std::size_t at = 8; at < good.size(); ++at) {
    for (int byte = 0; byte < 256; ++byte) {
      std::string changed = good;
      changed[at] = static_cast<char>(byte);
      read(changed);
    }
  }
  const auto with = [&good](std::size_t fromEnd, std::uint64_t number) {
    std::string changed = good;
    return changed.replace(good.size() - fromEnd, 8, bigEndian(number));
  };
  for (const std::uint64_t number :
       {std::uint64_t{0}, std::uint64_t{3}, std::uint64_t{1} << 61, UINT64_MAX / 2 + 1, UINT64_MAX}) {
    EXPECT_TRUE(read(with(24, number)).isNull()) << "objects: " << number;
    EXPECT_EQ(read(with(16, number)).isNull(), number != 0) << "root: " << number;
    EXPECT_TRUE(read(with(8, number)).isNull()) << "table: " << number;
  }
}

/// Each level holds the next one twice: 2^60 members from a few bytes a level.
TEST(BinaryPropertyList, RefusesValuesThatSharingMakesHuge) {
  std::vector<std::string> levels;
  for (char level = 1; level <= 60; ++level) levels.push_back("\xA2"s + level + level);
  levels.push_back("\xA0"s);
  EXPECT_TRUE(read(file(levels)).isNull());

  std::string text = "\x5F\x12" + bigEndian(100'000, 4) + std::string(100'000, 't');
  std::string list = "\xAF\x12" + bigEndian(100'000, 4) + std::string(100'000, '\x01');
  EXPECT_TRUE(read(file({list, text}, {.offsetSize = 4})).isNull());
  // So are the keys of a dictionary that is used again and again.
  const std::string dictionaries = "\xAF\x12" + bigEndian(30'000, 4) + std::string(30'000, '\x02');
  EXPECT_TRUE(read(file({dictionaries, text, "\xD1\x01\x03"s, "\x09"s}, {.offsetSize = 4})).isNull());
  // Containers that are used twice are two containers, and small sharing is fine.
  PlistValue twice = readPropertyList(file({"\xA2\x01\x01"s, "\xA1\x02"s,
                                            "\x51"
                                            "a"}),
                                      PlistForm::mutableContainers);
  ASSERT_EQ(twice, PlistValue::arrayOf({PlistValue::arrayOf({"a"}), PlistValue::arrayOf({"a"})}));
  EXPECT_TRUE(twice.at(0).append("b"));
  EXPECT_EQ(twice.at(1).count(), 1U);
}

TEST(BinaryPropertyList, KeepsEveryKindOfValueApart) {
  const PlistValue value =
      PlistValue::arrayOf({1, 1.0, true, 0, 0.0, -0.0, false, "1", PlistData{"1"}, PlistDate{1}, INT64_MIN, INT64_MAX,
                           UINT64_MAX, -1, std::nan(""), HUGE_VAL, PlistDate{1313424505.625}});
  const PlistValue again = read(*writeBinaryPropertyList(value));
  ASSERT_EQ(again, value);
  for (std::size_t i = 0; i < value.count(); ++i) {
    EXPECT_EQ(again.at(i).kind(), value.at(i).kind()) << i;
    EXPECT_EQ(again.at(i).isReal(), value.at(i).isReal()) << i;
    EXPECT_EQ(std::signbit(again.at(i).doubleValue()), std::signbit(value.at(i).doubleValue())) << i;
  }
  EXPECT_EQ(writeBinaryPropertyList(PlistValue()), std::nullopt);
  EXPECT_EQ(writeBinaryPropertyList(PlistValue("\xFF")), std::nullopt);
  EXPECT_EQ(writeBinaryPropertyList(PlistDate{std::nan("")}), std::nullopt);
  EXPECT_EQ(read(*writeBinaryPropertyList(PlistValue("\0\x01"sv))), "\0\x01"sv);
}

TEST(BinaryPropertyList, StoresEqualLeavesOnceAndStillReadsWhatItWrote) {
  PlistValue list = PlistValue::mutableArray();
  const std::string shared(128, 's');
  for (int i = 0; i < 50'000; ++i) list.append(shared);
  const auto written = writeBinaryPropertyList(list);
  EXPECT_LT(written->size(), 4U * 50'000 + 1000);
  EXPECT_EQ(read(*written), list);
}

// All codecs.

class RandomTree {
 public:
  explicit RandomTree(std::uint64_t seed) : random_(seed) {}

  PlistValue value(int depth) {
    switch (random_() % (depth == 0 ? 8 : 11)) {
      case 0:
        return random_() % 2 == 0;
      case 1:
        return static_cast<std::int64_t>(random_() >> random_() % 64);
      case 2:
        return -static_cast<std::int64_t>(random_() >> (1 + random_() % 63));
      case 3:
        return random_();
      case 4:
        return std::ldexp(static_cast<double>(random_()), static_cast<int>(random_() % 400) - 200);
      case 5:  // a multiple of 2^-20 s, which both formats hold exactly
        return PlistDate{std::ldexp(static_cast<double>(random_() % (std::uint64_t{1} << 51)), -20) - 1e9};
      case 6:
        return PlistData{bytes()};
      case 7:
        return text();
      case 8: {
        PlistValue array = PlistValue::mutableArray();
        for (std::size_t i = random_() % 6; i > 0; --i) array.append(value(depth - 1));
        return array;
      }
      default: {
        PlistValue dictionary = PlistValue::mutableDictionary();
        for (std::size_t i = random_() % 20; i > 0; --i)
          dictionary.set(random_() % 2 == 0 ? "key " + std::to_string(random_() % 9) : text(), value(depth - 1));
        return dictionary;
      }
    }
  }

 private:
  std::string bytes() {
    std::string made(random_() % 200, '\0');
    for (char& byte : made) byte = static_cast<char>(random_());
    return made;
  }
  std::string text() {
    constexpr std::string_view pieces[] = {"a",
                                           "word ",
                                           "<",
                                           "&amp;",
                                           "]]>",
                                           "\r\n",
                                           "\t",
                                           "\xC3\xA9",
                                           "\xF0\x9F\x98\x80",
                                           "\"'",
                                           "a long run of plain characters"};
    std::string made;
    for (std::size_t i = random_() % 8; i > 0; --i) made += pieces[random_() % std::size(pieces)];
    return made;
  }

  std::mt19937_64 random_;
};

TEST(PropertyList, RandomTreesSurviveEveryRoundTrip) {
  for (std::uint64_t seed = 0; seed < 400; ++seed) {
    const PlistValue value = RandomTree(seed).value(4);
    const auto xml = writeXmlPropertyList(value);
    const auto binary = writeBinaryPropertyList(value);
    ASSERT_TRUE(xml && binary) << seed;
    const PlistValue fromXml = read(*xml);
    const PlistValue fromBinary = read(*binary);
    ASSERT_EQ(fromXml, value) << seed;
    ASSERT_EQ(fromBinary, value) << seed;
    ASSERT_EQ(writeXmlPropertyList(fromXml), xml) << seed;
    ASSERT_EQ(writeXmlPropertyList(fromBinary), xml) << seed;
  }
}

/// The processor's time of this thread: what else the machine does must not count.
double threadSeconds() {
  timespec time{};
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &time);
  return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) * 1e-9;
}

double secondsFor(const std::string& bytes) {
  double best = std::numeric_limits<double>::max();
  for (int i = 0; i < 3; ++i) {
    const double start = threadSeconds();
    const PlistValue value = readPropertyList(bytes);
    if (!value.isNull()) {
      EXPECT_TRUE(writeXmlPropertyList(value).has_value());
      EXPECT_TRUE(writeBinaryPropertyList(value).has_value());
    }
    best = std::min(best, threadSeconds() - start);
  }
  return best;
}

/// Sixteen times the input may take four times as long as sixteen times: a quadratic step would take 256 times.
TEST(PropertyList, TimeGrowsWithTheInputAndNoFaster) {
  const auto repeated = [](std::string_view before, std::string_view piece, std::string_view after, std::size_t times) {
    std::string made = "<plist>" + std::string(before);
    for (std::size_t i = 0; i < times; ++i) made += piece;
    return made + std::string(after) + "</plist>";
  };
  const auto keys = [](std::size_t count, std::string_view more) {
    std::string made = "<plist><dict>";
    for (std::size_t i = 0; i < count; ++i) made += "<key>" + std::to_string(i) + std::string(more) + "</key><true/>";
    return made + "</dict></plist>";
  };
  const auto binary = [](std::size_t count) {
    PlistValue list = PlistValue::mutableArray();
    for (std::size_t i = 0; i < count; ++i) list.append("a text of some length " + std::to_string(i));
    return *writeBinaryPropertyList(list);
  };
  const std::pair<const char*, std::function<std::string(std::size_t)>> kinds[] = {
      {"entities", [&](std::size_t n) { return repeated("<string>", "&amp;&#65;", "</string>", n); }},
      {"sections", [&](std::size_t n) { return repeated("<string>", "<![CDATA[]]]]>", "</string>", n); }},
      {"comments", [&](std::size_t n) { return repeated("<!--", "> - >", "--><true/>", n); }},
      {"opened elements", [&](std::size_t n) { return repeated("", "<array>", "", n); }},
      {"unclosed sections", [&](std::size_t n) { return repeated("<string>", "<![CDATA[", "", n); }},
      {"data that breaks off", [&](std::size_t n) { return repeated("<array>", "<data>Zm9v&#65;", "</array>", n); }},
      {"data in pieces",
       [&](std::size_t n) { return repeated("<array>", "<data>Zm9v<!-- --></data>", "</array>", n); }},
      {"digits", [&](std::size_t n) { return repeated("<real>1.", "1234567890", "</real>", n); }},
      {"keys", [&](std::size_t n) { return keys(n, ""); }},
      {"long keys", [&](std::size_t n) { return keys(n, " is longer than a handle"); }},
      {"binary", binary},
  };
  for (const auto& [name, make] : kinds) {
    constexpr std::size_t size = 4000;
    const double small = secondsFor(make(size));
    const double large = secondsFor(make(size * 16));
    EXPECT_LT(large, small * 64 + 0.02) << name;
  }
}

}  // namespace
}  // namespace ostrel
