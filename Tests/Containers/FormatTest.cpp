#include "Containers/Format.h"

#include <gtest/gtest.h>

#include <climits>
#include <cstdio>

namespace ostrel {
namespace {

TEST(Format, AgreesWithPrintfOnItsConversions) {
  const auto expect = [](const std::string& ours, const char* pattern, auto... arguments) {
    char theirs[256];
    std::snprintf(theirs, sizeof theirs, pattern, arguments...);
    EXPECT_EQ(ours, theirs) << pattern;
  };
  expect(format("%d|%5d|%-5d|%05d|%+d|% d", 7, -7, 7, -7, 7, 7), "%d|%5d|%-5d|%05d|%+d|% d", 7, -7, 7, -7, 7, 7);
  expect(format("%ld %llu %zu", LONG_MIN, ULLONG_MAX, SIZE_MAX), "%ld %llu %zu", LONG_MIN, ULLONG_MAX, SIZE_MAX);
  expect(format("%x|%X|%#x|%o|%08x", -1, 255, 255, 8, 48879), "%x|%X|%#x|%o|%08x", -1, 255, 255, 8, 48879);
  expect(format("%s|%10s|%-10s|%.2s", "text", "text", "text", "text"), "%s|%10s|%-10s|%.2s", "text", "text", "text",
         "text");
  expect(format("%f|%.2f|%g|%e|%8.3f|%08.2f", 1.5, -2.345, 1e20, 12345.678, 3.14159, -1.5),
         "%f|%.2f|%g|%e|%8.3f|%08.2f", 1.5, -2.345, 1e20, 12345.678, 3.14159, -1.5);
  expect(format("%c%%%c", 'a', 'b'), "%c%%%c", 'a', 'b');
  expect(format("%.5d|%5.3d", 42, 7), "%.5d|%5.3d", 42, 7);
}

TEST(Format, PrintsValuesByTheirDescription) {
  const PlistValue value = PlistValue::dictionaryOf({{"b", 2}, {"a", "one two"}});
  EXPECT_EQ(format("%@: %@", "name", value), "name: {\n    a = \"one two\";\n    b = 2;\n}");
  EXPECT_EQ(format("%@", PlistValue()), "(null)");
  EXPECT_EQ(format("%s", static_cast<const char*>(nullptr)), "(null)");
}

TEST(Format, ReadsNoArgumentThatIsNotThere) {
  const FormatArgument one[] = {FormatArgument(1)};
  EXPECT_EQ(formatArguments("%d %d %s", one), "1 %d %s");
  EXPECT_EQ(formatArguments("%s", one), "%s");
  EXPECT_EQ(formatArguments("100%", {}), "100%");
}

}  // namespace
}  // namespace ostrel
