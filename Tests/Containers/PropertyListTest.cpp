// What the readers of property lists take and refuse, and what the writers write.
#include "Containers/PropertyList.h"

#include <gtest/gtest.h>

#include <bit>
#include <cmath>
#include <limits>
#include <string>
#include <thread>
#include <vector>

#include "Containers/CalendarDate.h"

namespace ostrel {
namespace {

using namespace std::string_literals;
using namespace std::string_view_literals;

std::string plist(std::string_view body) { return "<plist version=\"1.0\">" + std::string(body) + "</plist>"; }

PlistValue read(std::string_view body) { return readPropertyList(plist(body)); }

std::string utf16(std::string_view ascii, bool bigEndian) {
  std::string wide = bigEndian ? "\xFE\xFF"s : "\xFF\xFE"s;
  for (const char c : ascii) wide += bigEndian ? std::string{'\0', c} : std::string{c, '\0'};
  return wide;
}

/// Equal, and with the same sign of zero.
void expectSameReal(const PlistValue& value, double expected) {
  ASSERT_TRUE(value.isReal());
  EXPECT_EQ(std::bit_cast<std::uint64_t>(value.doubleValue()), std::bit_cast<std::uint64_t>(expected));
}

// What peers get wrong.

struct Case {
  std::string_view body;
  PlistValue expected;  // null: refused
};

class PeersGetWrong : public ::testing::TestWithParam<Case> {};

TEST_P(PeersGetWrong, OursDoesNot) {
  const auto& [body, expected] = GetParam();
  PlistError error;
  const PlistValue value = readPropertyList(plist(body), PlistForm::immutableContainers, &error);
  EXPECT_EQ(value, expected) << body << ": " << error.message;
  EXPECT_EQ(value.kind(), expected.kind());
  EXPECT_EQ(error.message.empty(), !expected.isNull());
}

const PlistValue refused;
PlistValue moment(double seconds) { return PlistDate{seconds}; }
PlistValue bytes(std::string_view text) { return PlistData{text}; }

INSTANTIATE_TEST_SUITE_P(Numbers, PeersGetWrong,
                         ::testing::ValuesIn(std::vector<Case>{
                             {"<integer>9223372036854775807</integer>", INT64_MAX},
                             {"<integer>-9223372036854775808</integer>", INT64_MIN},
                             {"<integer>18446744073709551615</integer>", UINT64_MAX},
                             {"<integer>18446744073709551616</integer>", refused},
                             {"<integer>-9223372036854775809</integer>", refused},
                             {"<integer>99999999999999999999999999</integer>", refused},
                             {"<integer>010</integer>", 10},
                             {"<integer> \n+7\t</integer>", 7},
                             {"<integer>&#49;<!-- one -->2</integer>", 12},
                             {"<integer>-0</integer>", 0},
                             {"<integer></integer>", refused},
                             {"<integer/>", refused},
                             {"<integer>text</integer>", refused},
                             {"<integer>12px</integer>", refused},
                             {"<integer>1 2</integer>", refused},
                             {"<integer>1.0</integer>", refused},
                             {"<integer>0x10</integer>", refused},
                             {"<integer>--1</integer>", refused},
                             {"<integer>+-1</integer>", refused},
                             {"<real>0.1</real>", 0.1},
                             {"<real>1e22</real>", 1e22},
                             {"<real>-.5</real>", -0.5},
                             {"<real>1,5</real>", refused},
                             {"<real>1e999</real>", refused},
                             {"<real>0x1p3</real>", refused},
                             {"<real></real>", refused},
                             {"<real>nan(1)</real>", refused},
                             {"<real>NaN</real>", std::numeric_limits<double>::quiet_NaN()},
                             {"<real>+Infinity</real>", std::numeric_limits<double>::infinity()},
                             {"<real>-inf</real>", -std::numeric_limits<double>::infinity()},
                             {"<real>--inf</real>", refused},
                         }));

INSTANTIATE_TEST_SUITE_P(Dates, PeersGetWrong,
                         ::testing::ValuesIn(std::vector<Case>{
                             {"<date>2011-08-15T16:08:25Z</date>", moment(1313424505)},
                             {"<date>2011-08-15T16:08:25.5Z</date>", moment(1313424505.5)},
                             {"<date>1969-12-31T23:59:59.25Z</date>", moment(-0.75)},
                             {"<date>1901-01-01T00:00:00Z</date>", moment(-2177452800)},
                             {"<date>2040-02-29T00:00:00Z</date>", moment(2214086400)},
                             {"<date>9999-12-31T23:59:59Z</date>", moment(253402300799)},
                             {"<date>9999-12-31T23:59:59.9999999Z</date>", refused},
                             {"<date>2011-02-29T00:00:00Z</date>", refused},
                             {"<date>2011-13-01T00:00:00Z</date>", refused},
                             {"<date>2011-00-10T00:00:00Z</date>", refused},
                             {"<date>2011-01-01T24:00:00Z</date>", refused},
                             {"<date>2011-01-01T00:00:60Z</date>", refused},
                             {"<date>0000-01-01T00:00:00Z</date>", refused},
                             {"<date>2011-01-01T00:00:00</date>", refused},
                             {"<date>2011-01-01T00:00:00.Z</date>", refused},
                             {"<date>2011-01-01T00:00:00+01:00</date>", refused},
                             {"<date>2011-1-01T00:00:00Z</date>", refused},
                             {"<date>+011-01-01T00:00:00Z</date>", refused},
                             {"<date></date>", refused},
                         }));

INSTANTIATE_TEST_SUITE_P(Data, PeersGetWrong,
                         ::testing::ValuesIn(std::vector<Case>{
                             {"<data>Zm9v\n\tYg==\n</data>", bytes("foob")},
                             {"<data> Z m 9 v Y m E = </data>", bytes("fooba")},
                             {"<data>Zm9<![CDATA[v]]>Yg&#61;=</data>", bytes("foob")},
                             {"<data>Zg&#61;=</data>", bytes("f")},
                             {"<data>Zm9v&#33;</data>", refused},
                             {"<data/>", bytes("")},
                             {"<data> \n</data>", bytes("")},
                             {"<data>Zg</data>", refused},
                             {"<data>Zg=</data>", refused},
                             {"<data>Zg===</data>", refused},
                             {"<data>Zm9v=</data>", refused},
                             {"<data>Zg==Zg==</data>", refused},
                             {"<data>Zh==</data>", refused},
                             {"<data>Zm9v!</data>", refused},
                             {"<data>Zm9v<string/></data>", refused},
                         }));

INSTANTIATE_TEST_SUITE_P(Text, PeersGetWrong,
                         ::testing::ValuesIn(std::vector<Case>{
                             {"<string>a\r\nb\rc&#13;d</string>", "a\nb\nc\rd"},
                             {"<string>&lt;&gt;&amp;&quot;&apos;</string>", "<>&\"'"},
                             {"<string>&#x1F600;&#233;</string>", "\xF0\x9F\x98\x80\xC3\xA9"},
                             {"<string><![CDATA[<a>&amp;]] >\r\n]]>]]<!-- x -->&gt;<?pi?></string>",
                              "<a>&amp;]] >\n]]>"},
                             {"<string> kept \n</string>", " kept \n"},
                             {"<string/>", ""},
                             {"<string></string >", ""},
                             {"<string >exactly14bytes</string>", "exactly14bytes"},
                             {"<string>exactly 15 byte</string>", "exactly 15 byte"},
                             {"<string>\x7F</string>", "\x7F"},
                             {"<string>a]]>b</string>", refused},
                             {"<string>\x01</string>", refused},
                             {"<string>a long enough text with a control \x1F in it</string>", refused},
                             {"<string>\xC3</string>", refused},
                             {"<string>\xC0\xAF</string>", refused},
                             {"<string>\xED\xA0\x80</string>", refused},
                             {"<string>\xEF\xBF\xBE</string>", refused},
                             {"<string>&#0;</string>", refused},
                             {"<string>&#x1F;</string>", refused},
                             {"<string>&#xD800;</string>", refused},
                             {"<string>&#xFFFF;</string>", refused},
                             {"<string>&#x110000;</string>", refused},
                             {"<string>&#99999999999999999999;</string>", refused},
                             {"<string>&#;</string>", refused},
                             {"<string>&#x;</string>", refused},
                             {"<string>&#12a;</string>", refused},
                             {"<string>&nbsp;</string>", refused},
                             {"<string>&unknown;</string>", refused},
                             {"<string>& </string>", refused},
                             {"<string>&amp</string>", refused},
                             {"<string>a<b/>c</string>", refused},
                             {"<string>a</strin>", refused},
                             {"<string>a</stringy>", refused},
                             {"<string>a", refused},
                             {"<string><![CDATA[a]]</string>", refused},
                             {"<string><!-- a -- b --></string>", refused},
                             {"<string><!-- a ---></string>", refused},
                             {"<string><?xml version=\"1.0\"?></string>", refused},
                         }));

INSTANTIATE_TEST_SUITE_P(Structure, PeersGetWrong,
                         ::testing::ValuesIn(std::vector<Case>{
                             {"<dict/>", PlistValue::dictionaryOf({})},
                             {"<dict></dict>", PlistValue::dictionaryOf({})},
                             {"<array />", PlistValue::arrayOf({})},
                             {"<array>\n<!-- none --></array\n>", PlistValue::arrayOf({})},
                             {"<dict><key/><true/><key>b</key><false></false></dict>",
                              PlistValue::dictionaryOf({{"", true}, {"b", false}})},
                             {"<true>\n</true>", refused},
                             {"<dict><key>a</key></dict>", refused},
                             {"<dict><key>a</key><key>b</key><true/></dict>", refused},
                             {"<dict><true/></dict>", refused},
                             {"<dict><key>a</key><true/><false/></dict>", refused},
                             {"<dict><key>a</key><true/><key>a</key><true/></dict>", refused},
                             {"<dict><key>a</key><true/><key>&#97;</key><true/></dict>", refused},
                             {"<dict>text<key>a</key><true/></dict>", refused},
                             {"<array>&#32;</array>", refused},
                             {"<array><![CDATA[ ]]></array>", refused},
                             {"<array><key>a</key></array>", refused},
                             {"<key>a</key>", refused},
                             {"<array><true/></dict>", refused},
                             {"<array><null/></array>", refused},
                             {"<array><Array/></array>", refused},
                             {"<array id=\"1\"/>", refused},
                             {"<array><!DOCTYPE plist></array>", refused},
                             {"<true/><true/>", refused},
                             {"<true/>text", refused},
                             {"<array>", refused},
                             {"</array>", refused},
                             {"", refused},
                         }));

// Whole documents.

TEST(XmlPropertyList, TakesEveryEncodingThatItNamesAndNoOther) {
  const std::string wide = "<?xml version='1.0' encoding='UTF-16'?><plist><string>text</string></plist>";
  for (const auto& good :
       {"<plist><string>text</string></plist>"s, "\xEF\xBB\xBF<plist><string>text</string></plist>"s,
        "<?xml version=\"1.0\"?><plist><string>text</string></plist>"s,
        "<?xml version=\"1.0\" encoding=\"utf-8\" standalone=\"no\" ?>\n<plist><string>text</string></plist>\n"s,
        "<?xml version='1.0' encoding='US-ASCII'?><plist><string>text</string></plist>"s, utf16(wide, true),
        utf16(wide, false), utf16("<plist><string>text</string></plist>", false)}) {
    EXPECT_EQ(readPropertyList(good), "text") << good;
  }
  for (const auto& bad :
       {"<?xml version='1.0' encoding='UTF-16'?><plist><true/></plist>"s,
        "<?xml version='1.0' encoding='ISO-8859-1'?><plist><true/></plist>"s,
        "<?xml version='1.0' encoding='US-ASCII'?><plist><string>\xC3\xA9</string></plist>"s,
        utf16("<?xml version='1.0' encoding='UTF-8'?><plist><true/></plist>", true),
        utf16("<?xml version='1.0' encoding='UTF-16LE'?><plist><true/></plist>", true),
        utf16("<plist><true/></plist>", true) + "x", utf16("<plist><true/></plist>", true).substr(2),
        "<?xml encoding='UTF-8'?><plist><true/></plist>"s, "<?xml version='1.1'?><plist><true/></plist>"s,
        "<?xml version='1.0' standalone='no' encoding='UTF-8'?><plist><true/></plist>"s,
        " <?xml version='1.0'?><plist><true/></plist>"s, "\xFE\xFF\xD8\x00"s}) {
    EXPECT_TRUE(readPropertyList(bad).isNull()) << bad;
  }
  const std::string pair = "\xFF\xFE"s + utf16("<plist><string>", false).substr(2) + "\x3D\xD8\x00\xDE"s +
                           utf16("</string></plist>", false).substr(2);
  EXPECT_EQ(readPropertyList(pair), "\xF0\x9F\x98\x80");
}

TEST(XmlPropertyList, PassesOverDocumentTypesAndRefusesEntities) {
  for (const auto good :
       {"<!DOCTYPE plist PUBLIC \"-//Apple//DTD PLIST 1.0//EN\" \"http://www.apple.com/DTDs/PropertyList-1.0.dtd\">"sv,
        "<!DOCTYPE plist>"sv, "<!-- a --><?b c?>\n<!DOCTYPE plist SYSTEM 'file:///etc/passwd' >"sv,
        "<!DOCTYPE plist SYSTEM 'http://host/?a=1&b=<2>'>"sv,
        "<!DOCTYPE plist [<!ATTLIST a b CDATA '&lt;\">]>'><!NOTATION n PUBLIC \"'%[\">]>"sv,
        "<!DOCTYPE plist [<!ELEMENT plist (a|b)*><!ATTLIST plist v CDATA '>'><!-- x --><?y?> ] >"sv}) {
    EXPECT_EQ(readPropertyList(std::string(good) + "<plist><true/></plist>"), true) << good;
  }
  for (const auto bad :
       {"<!DOCTYPE plist [<!ENTITY a 'b'>]>"sv, "<!DOCTYPE plist [<!ENTITY % a SYSTEM 'b'> %a;]>"sv,
        "<!DOCTYPE plist [%a;]>"sv, "<!DOCTYPE plist [<![INCLUDE[]]>]>"sv, "<!DOCTYPE plist"sv, "<!DOCTYPE>"sv,
        "<!DOCTYPE plist PUBLIC 'a'>"sv, "<!DOCTYPE plist><!DOCTYPE plist>"sv, "<!DOCTYPE plist [<!ELEMENT a"sv,
        "<!doctype plist>"sv, "text"sv, "<!ELEMENT a ANY>"sv, "<!-- a"sv, "<?xml?>"sv}) {
    EXPECT_TRUE(readPropertyList(std::string(bad) + "<plist><true/></plist>").isNull()) << bad;
  }
}

TEST(XmlPropertyList, WantsOnePlistElementAndNothingAfterIt) {
  EXPECT_EQ(readPropertyList("<plist version='0.9'><true/></plist>"), true);
  EXPECT_EQ(readPropertyList("<plist\n>\n<true/></plist>\n<!-- end --><?end?>"), true);
  for (const auto bad : {""sv,
                         " "sv,
                         "<true/>"sv,
                         "<dict/>"sv,
                         "<plist/>"sv,
                         "<plist></plist>"sv,
                         "<plist><true/>"sv,
                         "<plist><true/></plist"sv,
                         "<plist><true/></plist>x"sv,
                         "<plist><true/></plist><plist><true/></plist>"sv,
                         "<plist a='b'><true/></plist>"sv,
                         "<plist version='1' version='1'><true/></plist>"sv,
                         "<plist version=1><true/></plist>"sv,
                         "<plist version='<'><true/></plist>"sv,
                         "<plistx><true/></plistx>"sv,
                         "<plist><true/></plist>\0"sv,
                         "<"sv,
                         "</"sv,
                         "<plist>&#32;<true/></plist>"sv,
                         "bplist00"sv,
                         "\0"sv}) {
    EXPECT_TRUE(readPropertyList(bad).isNull()) << bad;
  }
}

TEST(XmlPropertyList, RefusesEveryPrefixOfADocument) {
  const std::string whole = plist(
      "<dict><key>a&amp;</key><array><integer>1</integer><data>Zm9v</data></array>"
      "<key>b</key><date>2011-08-15T16:08:25Z</date></dict>");
  ASSERT_FALSE(readPropertyList(whole).isNull());
  for (std::size_t length = 0; length < whole.size(); ++length)
    EXPECT_TRUE(readPropertyList(whole.substr(0, length)).isNull()) << length;
}

TEST(XmlPropertyList, SaysWhereTheFaultIs) {
  struct Fault {
    std::string document;
    std::size_t offset, line, column;
  };
  for (const auto& [document, offset, line, column] :
       {Fault{"<plist>\n<array>\r\n\t<bad/>\r</array></plist>", 18, 3, 2}, Fault{"<plist>\r\r&</plist>", 9, 3, 1},
        Fault{"\xEF\xBB\xBF<plist>\nx", 11, 2, 1}, Fault{utf16("<plist>\nx", true), 18, 2, 1},
        Fault{"<plist><string>\xC3\xA9\x01</string></plist>", 17, 1, 18}, Fault{"", 0, 1, 1},
        Fault{
            "<plist><dict><key>a</key><dict><key>a</key><true/></dict>\n<key>b</key><true/>\n <key>&#97;</key><true/>\n"
            "</dict></plist>",
            79, 3, 2}}) {
    PlistError error;
    EXPECT_TRUE(readPropertyList(document, PlistForm::immutableContainers, &error).isNull());
    EXPECT_FALSE(error.message.empty());
    EXPECT_EQ(error.offset, offset) << error.message;
    EXPECT_EQ(error.line, line) << error.message;
    EXPECT_EQ(error.column, column) << error.message;
  }
}

TEST(XmlPropertyList, BoundsDepthInsteadOfCrashing) {
  const auto nested = [](std::size_t depth) {
    std::string text;
    for (std::size_t i = 0; i < depth; ++i) text += i % 2 == 0 ? "<array>" : "<dict><key>k</key>";
    if (depth % 2 == 0) text += "<true/>";
    for (std::size_t i = depth; i-- > 0;) text += i % 2 == 0 ? "</array>" : "</dict>";
    return text;
  };
  const PlistValue deepest = read(nested(maximumPlistDepth));
  ASSERT_FALSE(deepest.isNull());
  EXPECT_EQ(readPropertyList(*writeXmlPropertyList(deepest)), deepest);
  EXPECT_EQ(readPropertyList(*writeBinaryPropertyList(deepest)), deepest);
  EXPECT_TRUE(read(nested(maximumPlistDepth + 1)).isNull());
  EXPECT_TRUE(read(nested(1'000'000)).isNull());
  const PlistValue tooDeep = PlistValue::arrayOf({deepest});
  EXPECT_EQ(writeXmlPropertyList(tooDeep), std::nullopt);
  EXPECT_EQ(writeBinaryPropertyList(tooDeep), std::nullopt);
}

/// Indentation alone would make a hundred megabytes of this.
TEST(XmlPropertyList, WritesAndDescribesDeepDocumentsAboutAsLongAsTheyAre) {
  PlistValue list = PlistValue::mutableArray();
  for (int i = 0; i < 100'000; ++i) list.append(true);
  for (std::size_t depth = 2; depth < maximumPlistDepth; ++depth) list = PlistValue::arrayOf({list});
  const auto written = writeXmlPropertyList(list);
  EXPECT_LT(written->size(), 3'000'000U);
  EXPECT_EQ(readPropertyList(*written), list);
  EXPECT_LT(list.description().size(), 8'000'000U);
}

/// Keys of a record are compared with those of the record before: records that differ from it in every way.
TEST(XmlPropertyList, ReadsRecordsThatResembleTheOneBeforeOnlyInPart) {
  const std::string_view records[] = {
      "<key>name</key><string>a</string><key>a long key of this "
      "record</key><array><dict><key>id</key><true/></dict></array>",
      "<key>name</key><string>b</string><key>a long key of this "
      "record</key><array><dict><key>id</key><true/></dict></array>",
      "<key>a long key of this record</key><string>c</string><key>name</key><true/>",
      "<key>name</key><true/><key>name and more</key><true/>",
      "<key>nam</key><true/>",
      "<key>name&lt;</key><true/>",
      "<key>name</key><dict><key>name</key><true/></dict><key>b&lt;/key></key><true/>",
      "",
      "<key>b&lt;/key></key><true/>",
      "<key>name</key><true/><key>x</key><true/><key>y</key><true/>",
      "<key>y</key><true/><key>x</key><true/>",
  };
  std::string all;
  PlistValue expected = PlistValue::mutableArray();
  for (const std::string_view first : records) {
    for (const std::string_view second : records) {
      for (const std::string_view record : {first, second}) {
        all += "<dict>" + std::string(record) + "</dict>";
        expected.append(read("<dict>" + std::string(record) + "</dict>"));
      }
    }
  }
  EXPECT_EQ(read("<array>" + all + "</array>"), expected);
  // What the model's key would allow as bytes is not allowed as markup.
  EXPECT_TRUE(
      read("<array><dict><key>b&lt;/key></key><true/></dict><dict><key>b</key></key><true/></dict></array>").isNull());
  EXPECT_TRUE(read("<array><dict><key>a</key><true/><key>b</key><true/></dict>"
                   "<dict><key>b</key><true/><key>a</key><true/><key>b</key><true/></dict></array>")
                  .isNull());
}

TEST(XmlPropertyList, GivesContainersTheAskedForm) {
  const std::string document = plist("<dict><key>list</key><array><dict/></array></dict>");
  PlistValue changeable = readPropertyList(document, PlistForm::mutableContainers);
  ASSERT_TRUE(changeable.get("list").at(0).isMutable());
  for (int i = 0; i < 100; ++i) EXPECT_TRUE(changeable.get("list").at(0).set("key " + std::to_string(i), i));
  EXPECT_TRUE(changeable.set("list 2", changeable.get("list")));
  EXPECT_TRUE(changeable.remove("list"));
  EXPECT_EQ(changeable.get("list 2").at(0).get("key 99"), 99);
  EXPECT_FALSE(readPropertyList(document).get("list").at(0).isMutable());
}

TEST(XmlPropertyList, LeavesOutliveTheirDocument) {
  PlistValue kept;
  PlistValue list;
  {
    std::string body = "<array>";
    for (int i = 0; i < 5000; ++i)
      body += "<dict><key>a key that is not short</key><string>text number " + std::to_string(i) + "</string></dict>";
    const PlistValue document = read(body + "</array>");
    kept = document.at(4000).get("a key that is not short");
    list = document.at(17);
  }
  EXPECT_EQ(kept, "text number 4000");
  EXPECT_EQ(list.get("a key that is not short"), "text number 17");
}

/// Each thread drops its part of what one document put side by side in memory.
TEST(XmlPropertyList, ValuesOfOneDocumentMayBeDroppedOnAnyThread) {
  std::string body = "<array>";
  for (int i = 0; i < 5000; ++i)
    body += "<dict><key>a key that is not short</key><string>text number " + std::to_string(i) + "</string></dict>";
  std::vector<std::vector<PlistValue>> parts(4);
  {
    const PlistValue document = read(body + "</array>");
    ASSERT_EQ(document.count(), 5000U);
    for (std::size_t i = 0; i < document.count(); ++i)
      parts[i % 4].push_back(i % 3 == 0 ? document.at(i) : document.at(i).get("a key that is not short"));
  }
  std::vector<std::jthread> threads;
  for (auto& part : parts) threads.emplace_back([mine = std::move(part)]() mutable { mine.clear(); });
}

// Writing.

TEST(XmlPropertyList, WritesTheStandardLayout) {
  const PlistValue value = PlistValue::dictionaryOf(
      {{"text", "a<b>&\"'\r\n\xC3\xA9"},
       {"empty", ""},
       {"numbers", PlistValue::arrayOf({-1, UINT64_MAX, 0.1, -0.0, 1e300, std::nan(""), -HUGE_VAL, true, false})},
       {"dates", PlistValue::arrayOf({moment(1313424505), moment(-0.75)})},
       {"data", bytes(std::string(60, 'x'))},
       {"none", PlistValue::arrayOf({PlistValue::dictionaryOf({}), PlistValue::arrayOf({})})}});
  EXPECT_EQ(*writeXmlPropertyList(value),
            "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
            "<!DOCTYPE plist PUBLIC \"-//Apple//DTD PLIST 1.0//EN\" "
            "\"http://www.apple.com/DTDs/PropertyList-1.0.dtd\">\n"
            "<plist version=\"1.0\">\n"
            "<dict>\n"
            "\t<key>text</key>\n\t<string>a&lt;b&gt;&amp;\"'&#13;\n\xC3\xA9</string>\n"
            "\t<key>empty</key>\n\t<string></string>\n"
            "\t<key>numbers</key>\n\t<array>\n\t\t<integer>-1</integer>\n\t\t<integer>18446744073709551615</integer>\n"
            "\t\t<real>0.1</real>\n\t\t<real>-0</real>\n\t\t<real>1e+300</real>\n\t\t<real>nan</real>\n"
            "\t\t<real>-infinity</real>\n\t\t<true/>\n\t\t<false/>\n\t</array>\n"
            "\t<key>dates</key>\n\t<array>\n\t\t<date>2011-08-15T16:08:25Z</date>\n"
            "\t\t<date>1969-12-31T23:59:59.25Z</date>\n\t</array>\n"
            "\t<key>data</key>\n\t<data>\n"
            "\teHh4eHh4eHh4eHh4eHh4eHh4eHh4eHh4eHh4eHh4eHh4eHh4eHh4eHh4eHh4eHh4eHh4\n\teHh4eHh4eHh4\n\t</data>\n"
            "\t<key>none</key>\n\t<array>\n\t\t<dict/>\n\t\t<array/>\n\t</array>\n"
            "</dict>\n"
            "</plist>\n");
}

TEST(XmlPropertyList, RefusesToWriteWhatXmlCannotCarry) {
  for (const PlistValue& bad : {PlistValue(), PlistValue("\x01"), PlistValue("\0"sv), PlistValue("\xFF"),
                                PlistValue("a long text that ends in half a character \xC3"),
                                PlistValue("\xEF\xBF\xBF"), moment(1e12), moment(-1e12), moment(std::nan(""))}) {
    EXPECT_EQ(writeXmlPropertyList(bad), std::nullopt);
    EXPECT_EQ(writeXmlPropertyList(PlistValue::dictionaryOf({{"a", PlistValue::arrayOf({"", bad})}})).has_value(),
              bad.isNull());
  }
  EXPECT_EQ(writeXmlPropertyList(PlistValue::dictionaryOf({{"\x02", 1}})), std::nullopt);
}

TEST(PropertyList, CalendarFieldsOfEveryMomentNameAMoment) {
  for (const double seconds : {-1e-20, -0.25, 0.75, -62135596800.0, 253402300799.75}) {
    const auto fields = calendarDate(PlistDate{seconds});
    ASSERT_TRUE(fields && fields->fraction < 1) << seconds;
    EXPECT_NEAR(momentOf(*fields).value_or(PlistDate{}).secondsSince1970, seconds, 1e-15);
  }
  for (const double none : {std::nan(""), HUGE_VAL, -62135596800.5, 253402300800.0})
    EXPECT_FALSE(calendarDate(PlistDate{none}));
}

TEST(PropertyList, DatesAndRealsComeBackToTheLastBit) {
  for (const double seconds : {0.1, -0.1, 1e-9, -1e-9, 1313424505.123456, -1313424505.123456, 5e-324, -5e-324,
                               -62135596800.0, 253402300799.9999, -0.9999999999999999, 1.0 / 3, -1.0 / 3}) {
    const PlistValue again = readPropertyList(*writeXmlPropertyList(moment(seconds)));
    EXPECT_EQ(again.dateValue().secondsSince1970, seconds);
  }
  for (const double real :
       {0.0, -0.0, 0.1, 1.0 / 3, 5e-324, 1.7976931348623157e308, -2.2250738585072014e-308, HUGE_VAL, -HUGE_VAL}) {
    expectSameReal(readPropertyList(*writeXmlPropertyList(PlistValue(real))), real);
    expectSameReal(readPropertyList(*writeBinaryPropertyList(PlistValue(real))), real);
  }
}

// "strings" files.

TEST(StringsFile, ReadsPairsCommentsAndEscapes) {
  const std::string file =
      "/* Title */ \"title\" = \"Server \\\"one\\\"\\n\";\n// a line\rword/a.b-c_1:$ = other;\n alone ;"
      "'single' = '\\'\"\\a\\b\\f\\v\\t\\r\\\\\\?'; \"codes\" = \"\\101\\7\\351\\U00e9\\Ud83d\\uDE00\";\"\"=\"\";\n//";
  const PlistValue expected = PlistValue::dictionaryOf({{"title", "Server \"one\"\n"},
                                                        {"word/a.b-c_1:$", "other"},
                                                        {"alone", "alone"},
                                                        {"single", "'\"\a\b\f\v\t\r\\?"},
                                                        {"codes", "A\a\xC3\xA9\xC3\xA9\xF0\x9F\x98\x80"},
                                                        {"", ""}});
  EXPECT_EQ(readStringsFile(file), expected);
  EXPECT_EQ(readStringsFile(utf16(file, true)), expected);
  EXPECT_EQ(readStringsFile(utf16(file, false)), expected);
  EXPECT_EQ(readStringsFile("\xEF\xBB\xBF" + file), expected);
  EXPECT_EQ(readStringsFile(""), PlistValue::dictionaryOf({}));
  EXPECT_FALSE(readStringsFile(file).isMutable());
  EXPECT_TRUE(readStringsFile(file, PlistForm::mutableContainers).isMutable());
}

TEST(StringsFile, RefusesEverythingElseAndSaysWhere) {
  const std::pair<std::string_view, std::size_t> cases[] = {{"a = b", 5},
                                                            {"a = ;", 4},
                                                            {"= b;", 0},
                                                            {"a b;", 2},
                                                            {"a = b = c;", 6},
                                                            {"\"a", 0},
                                                            {"a = \"b\\", 6},
                                                            {"/* a", 0},
                                                            {"a; a = b;", 3},
                                                            {"a = \"\\q\";", 5},
                                                            {"a = \"\\U12\";", 5},
                                                            {"a = \"\\Ud83d\";", 5},
                                                            {"a = \"\\Ude00\";", 5},
                                                            {"a = \"\\777\";", 5},
                                                            {"a = \"\x01\";", 5},
                                                            {"a = \"\xFF\";", 5},
                                                            {"// \xFF", 3},
                                                            {"a;;", 2},
                                                            {"{ a = b; }", 0},
                                                            {"a = \"\\Ud83d\\U0041\";", 5},
                                                            {"a = (b);", 4},
                                                            {"<plist/>", 0}};
  for (const auto& [file, offset] : cases) {
    PlistError error;
    EXPECT_TRUE(readStringsFile(file, PlistForm::immutableContainers, &error).isNull()) << file;
    EXPECT_EQ(error.offset, offset) << file << ": " << error.message;
    EXPECT_EQ(error.line, 1U);
  }
}

}  // namespace
}  // namespace ostrel
