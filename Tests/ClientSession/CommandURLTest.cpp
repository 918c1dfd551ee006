#include "ClientSession/CommandURL.h"

#include <gtest/gtest.h>

#include <string>
#include <string_view>
#include <vector>

namespace ostrel {
namespace {

using namespace std::string_view_literals;

TEST(CommandURL, TakesUrlsApart) {
  struct Case {
    std::string_view text;
    std::string_view host;
    std::string_view hostHeader;
    std::string_view portText;
    std::int32_t port;
    std::string_view path;
  };
  const std::vector<Case> cases = {
      {"https://localhost:311/commands/ostrel_sample", "localhost", "localhost", "311", 311, "/commands/ostrel_sample"},
      {"http://a.example/x/y?query=/z#fragment", "a.example", "a.example", "", 0, "/x/y"},
      {"http://a.example:80#f?q/", "a.example", "a.example", "80", 80, "/"},
      {"http://a.example:/x", "a.example", "a.example", "", 0, "/x"},
      {"http://user:secret@h:0311/x", "h", "h", "0311", 311, "/x"},
      {"https://[::1]:311/x", "::1", "[::1]", "311", 311, "/x"},
      {"https://h:99999999999/x", "h", "h", "99999999999", INT32_MAX, "/x"},
      {"x+1.z://(null):1/a%20b;c", "(null)", "(null)", "1", 1, "/a%20b;c"},
      {"http://:1/x", "", "", "1", 1, "/x"},
  };
  for (const Case& expected : cases) {
    const auto url = CommandURL::parse(expected.text);
    ASSERT_TRUE(url) << expected.text;
    EXPECT_EQ(url->text(), expected.text);
    EXPECT_EQ(url->host(), expected.host) << expected.text;
    EXPECT_EQ(url->hostForHeader(), expected.hostHeader) << expected.text;
    EXPECT_EQ(url->portText(), expected.portText) << expected.text;
    EXPECT_EQ(url->portNumber(), expected.port) << expected.text;
    EXPECT_EQ(url->path(), expected.path) << expected.text;
  }
}

TEST(CommandURL, RefusesWhatCouldEndAHeaderLineOrIsNoUrl) {
  for (const std::string_view text : {"http://h:1/a b"sv,  "http://h:1/a\r\nX: y"sv,
                                      "http://h\n:1/"sv,   "http://h:1/a\0b"sv,
                                      "http://h:1/\tx"sv,  "http://h:1/\xC3\xA9"sv,
                                      "http://h:1/a\"b"sv, "http://h:1/%0"sv,
                                      "http://h:1/%zz"sv,  "http://h:1x/"sv,
                                      "http://h:http/"sv,  "http://::1:311/x"sv,
                                      "http://[::1/x"sv,   "http://[::1]311/x"sv,
                                      "http://a]b:1/"sv,   ""sv,
                                      "/commands/x"sv,     "://h:1/"sv,
                                      "1http://h/"sv,      "http:/h/x"sv}) {
    EXPECT_FALSE(CommandURL::parse(text)) << text;
  }
}

}  // namespace
}  // namespace ostrel
