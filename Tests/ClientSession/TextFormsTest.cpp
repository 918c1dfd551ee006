// The pure functions: the form body that goes out and the head that comes in.
#include <gtest/gtest.h>

#include <climits>
#include <optional>
#include <random>
#include <string>
#include <string_view>
#include <vector>

#include "ClientSession/FormBody.h"
#include "ClientSession/ReplyHead.h"

namespace ostrel {
namespace {

using namespace std::string_view_literals;

std::string decodeForm(std::string_view body) {
  std::string text;
  for (std::size_t i = 0; i < body.size(); ++i) {
    if (body[i] == '%') {
      text += static_cast<char>(std::stoi(std::string(body.substr(i + 1, 2)), nullptr, 16));
      i += 2;
    } else {
      text += body[i] == '+' ? ' ' : body[i];
    }
  }
  return text;
}

TEST(FormBody, EscapesWhatAUrlOrAFormCannotHold) {
  EXPECT_EQ(encodeFormBody(""), "input=");
  EXPECT_EQ(encodeFormBody("a&b+c/d e"), "input=a%26b%2Bc%2Fd%20e");
  EXPECT_EQ(encodeFormBody("-_.!~*'();?:@=$,aZ09"), "input=-_.!~*'();?:@=$,aZ09");
  EXPECT_EQ(encodeFormBody("%#\"<>[]\\^`{|}\r\n\x7F\t\0"sv),
            "input=%25%23%22%3C%3E%5B%5D%5C%5E%60%7B%7C%7D%0D%0A%7F%09%00");
  EXPECT_EQ(encodeFormBody("\xC3\xA9\xF0\x9F\x98\x80"), "input=%C3%A9%F0%9F%98%80");
}

TEST(FormBody, SurvivesAFormDecoderWhateverTheBytes) {
  std::mt19937 random(311);
  for (std::size_t round = 0; round < 200; ++round) {
    std::string text(round * 7, '\0');
    for (char& byte : text) byte = static_cast<char>(random());
    const std::string body = encodeFormBody(text);
    ASSERT_EQ(body.find_first_of("&+/ %\r\n", 6), body.find('%', 6));  // nothing but escapes is special
    ASSERT_EQ(decodeForm(body.substr(6)), text);
  }
}

TEST(ReplyHead, IsFoundInTheChunk) {
  struct Case {
    std::string_view chunk;
    std::optional<int> status;
    std::optional<std::string> sessionID;
    std::optional<std::size_t> bodyStart;
  };
  const std::vector<Case> cases = {
      {"HTTP/1.0 200 OK\r\nOstrelSessionID: alice@4F2A\r\n\r\nbody", 200, "alice@4F2A", 48},
      {"HTTP/1.1 401\r\n\r\n", 401, {}, 16},
      {"HTTP/1.0 200 OK\r\n\r\n\r\n\r\n", 200, {}, 19},  // the body starts after the first blank line
      // Every line counts, the body's too, and a later one wins.
      {"HTTP/1.0 100 Continue\r\nHTTP/1.0 200 OK\r\n\r\nHTTP/1.0 500 x\r\nOstrelSessionID: b", 500, "b", 42},
      {"OstrelSessionID: a\r\nOstrelSessionID: b\r\n\r\n", {}, "b", 42},
      {"OstrelSessionIDs are many\r\n\r\n", {}, "are", 29},
      // Two words at least, separated by single spaces.
      {"HTTP/1.0\r\nOstrelSessionID:a\r\n\r\n", {}, {}, 31},
      {"HTTP/1.0  200 OK\r\nOstrelSessionID:  a\r\n\r\n", 0, "", 41},
      {" HTTP/1.0 200\r\nostrelsessionid: a\r\n\r\n", {}, {}, 37},
      // Numbers.
      {"HTTP/1.0 204No\r\n", 204, {}, {}},
      {"HTTP/1.0 x\r\n", 0, {}, {}},
      {"HTTP/1.0 -7 x\r\n", -7, {}, {}},
      {"HTTP/1.0 99999999999999999999999\r\n", INT_MAX, {}, {}},
      {"HTTP/1.0 -99999999999999999999999\r\n", INT_MIN, {}, {}},
      // An identifier that could not be sent back is none.
      {"OstrelSessionID: a\nX-Forged: b\r\n", {}, {}, {}},
      {"OstrelSessionID: a\r\nOstrelSessionID: b\0c\r\n"sv, {}, "a", {}},
      // No head.
      {"", {}, {}, {}},
      {"HTTP/1.0 200 OK\n\nbody", 200, {}, {}},
      {"HTTP/1.0 200 OK\r\n\r\n\xC3", {}, {}, {}},  // a chunk that ends within a character is not text
  };
  for (const Case& expected : cases) {
    const ReplyHead head = scanReplyHead(expected.chunk);
    EXPECT_EQ(head.status, expected.status) << expected.chunk;
    EXPECT_EQ(head.sessionID, expected.sessionID) << expected.chunk;
    EXPECT_EQ(head.bodyStart, expected.bodyStart) << expected.chunk;
  }
}

}  // namespace
}  // namespace ostrel
