#include "Containers/XmlText.h"

#include <gtest/gtest.h>

#include "Containers/PropertyList.h"

namespace ostrel {
namespace {

using namespace std::string_view_literals;

TEST(XmlText, MarksWhatXmlCannotCarryAndSharesTheRest) {
  const PlistValue clean = PlistValue::arrayOf({"a long enough text \xC3\xA9\t\r\n", 1, PlistData{"\x1B"}});
  const PlistValue value = PlistValue::dictionaryOf(
      {{"clean", clean}, {"log", PlistValue::arrayOf({"\x1B[1mbold\0 \xFF\xC3"sv, "\xEF\xBF\xBE"})}});
  const PlistValue carried = withXmlText(value);
  EXPECT_EQ(carried.get("log"),
            PlistValue::arrayOf({"\xEF\xBF\xBD[1mbold\xEF\xBF\xBD \xEF\xBF\xBD\xEF\xBF\xBD", "\xEF\xBF\xBD"}));
  EXPECT_TRUE(carried.get("clean").isIdentical(clean));
  EXPECT_TRUE(withXmlText(clean).isIdentical(clean));
  EXPECT_FALSE(writeXmlPropertyList(value).has_value());
  EXPECT_EQ(readPropertyList(writeXmlPropertyList(carried).value()), carried);
}

TEST(XmlText, LeavesKeysAndWhatLiesTooDeep) {
  const PlistValue key = PlistValue::dictionaryOf({{"\x01", "\x02"}});
  EXPECT_EQ(withXmlText(key), PlistValue::dictionaryOf({{"\x01", "\xEF\xBF\xBD"}}));
  PlistValue deep = "\x01";
  for (std::size_t i = 0; i < 100 * maximumPlistDepth; ++i) deep = PlistValue::arrayOf({deep});
  EXPECT_TRUE(withXmlText(deep).isIdentical(deep));
}

}  // namespace
}  // namespace ostrel
