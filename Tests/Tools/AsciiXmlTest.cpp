// Replies in pure ASCII: the same document for every reader, whatever is cut where.
#include "ostreld/AsciiXml.h"

#include <gtest/gtest.h>

#include <algorithm>

#include "Containers/PropertyList.h"
#include "Containers/Utf8.h"

namespace ostrel {
namespace {

TEST(AsciiXml, WritesReferencesForAllBeyondAscii) {
  struct Case {
    std::string_view xml;
    std::string_view ascii;
  };
  const Case cases[] = {
      {"", ""},
      {"<a b='c'>&amp;\r\n\t~\x7f</a>", "<a b='c'>&amp;\r\n\t~\x7f</a>"},
      {"<key>caf\u00e9</key>", "<key>caf&#233;</key>"},
      {"\u0080\u07ff\u0800\uffef\U00010000\U0010ffff", "&#128;&#2047;&#2048;&#65519;&#65536;&#1114111;"},
      {"\xc3", "&#65533;"},                            // cut within a character
      {"\xff\xe2\x82x", "&#65533;&#65533;&#65533;x"},  // no UTF-8
  };
  for (const Case& c : cases) EXPECT_EQ(asciiXml(c.xml), c.ascii) << c.xml;
}

TEST(AsciiXml, ReadsBackAsTheSameValue) {
  std::string text;
  for (char32_t character = 0x80; character <= 0x10FFFF; character += character < 0x10000 ? 1 : 4099) {
    const bool isSurrogate = character >= 0xD800 && character <= 0xDFFF;
    if (!isSurrogate && (character & 0xFFFE) != 0xFFFE) appendUtf8(text, character);
  }
  const PlistValue value = PlistValue::dictionaryOf({{"\u00e9t\u00e9", PlistValue::arrayOf({text, "<&>\r"})}});
  const std::string ascii = asciiXml(writeXmlPropertyList(value).value());
  EXPECT_TRUE(std::ranges::all_of(ascii, [](char c) { return static_cast<unsigned char>(c) < 0x80; }));
  EXPECT_EQ(readPropertyList(ascii), value);
}

}  // namespace
}  // namespace ostrel
