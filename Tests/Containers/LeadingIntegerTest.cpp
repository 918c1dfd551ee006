#include "Containers/LeadingInteger.h"

#include <gtest/gtest.h>

#include <climits>

namespace ostrel {
namespace {

TEST(LeadingInteger, IsTakenFromTheStartOfAText) {
  const struct {
    std::string_view text;
    std::optional<std::int64_t> integer;
    int held;
  } cases[] = {{"12", 12, 12},
               {" \t\r\n\v\f-7x", -7, -7},
               {"+5 6", 5, 5},
               {"007", 7, 7},
               {"0x1F", 0, 0},
               {"", {}, 0},
               {"  ", {}, 0},
               {"x1", {}, 0},
               {"-", {}, 0},
               {"+-5", {}, 0},
               {"-+5", {}, 0},
               {"--5", {}, 0},
               {"++5", {}, 0},
               {"- 5", {}, 0},
               {"\xC2\xA0"
                "5",
                {},
                0},
               {"2147483648", 2147483648, INT_MAX},
               {"-2147483649", -2147483649, INT_MIN},
               {"9223372036854775808", INT64_MAX, INT_MAX},
               {"+99999999999999999999999", INT64_MAX, INT_MAX},
               {"-99999999999999999999999", INT64_MIN, INT_MIN}};
  for (const auto& [text, integer, held] : cases) {
    EXPECT_EQ(leadingInteger(text), integer) << text;
    EXPECT_EQ(leadingInt(text), held) << text;
  }
  EXPECT_EQ(leadingInteger(std::string_view("123456").substr(0, 3)), 123) << "nothing is read beyond the text";
}

}  // namespace
}  // namespace ostrel
