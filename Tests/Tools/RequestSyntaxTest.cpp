// The readers of what strangers send: paths, form bodies; and the audit line that must not be forged by them.
#include "ostreld/RequestSyntax.h"

#include <gtest/gtest.h>

#include "ClientSession/OstrelDaemonSession.h"
#include "Support/Fakes.h"
#include "ostreld/AuditLine.h"
#include "ostreld/ConnectionTable.h"

namespace ostrel {
namespace {

using std::string_literals::operator""s;

TEST(RequestSyntax, ReadsTheModuleFromThePath) {
  struct Case {
    std::string path;
    RequestFault fault;
    std::string module;
  };
  const Case cases[] = {
      {"/commands/ostrel_sample", RequestFault::none, "ostrel_sample"},
      {"/commands/a%20b%2e", RequestFault::none, "a b."},
      {"/commands/..", RequestFault::none, ".."},
      {"/commands/" + std::string(255, 'm'), RequestFault::none, std::string(255, 'm')},
      {"/commands/" + std::string(256, 'm'), RequestFault::wrongPath, ""},
      {"/commands/", RequestFault::wrongPath, ""},
      {"/commands", RequestFault::wrongPath, ""},
      {"/Commands/x", RequestFault::wrongPath, ""},
      {"//commands/x", RequestFault::wrongPath, ""},
      {"", RequestFault::wrongPath, ""},
      {"/commands/x/", RequestFault::wrongPath, ""},
      {"/commands/..%2F..%2Fetc", RequestFault::wrongPath, ""},
      {"/commands/x%00y", RequestFault::wrongPath, ""},
      {"/commands/%C0%AF", RequestFault::wrongPath, ""},
      {"/commands/%ff", RequestFault::wrongPath, ""},
      {"/commands/x%", RequestFault::badEscape, ""},
      {"/commands/x%4", RequestFault::badEscape, ""},
      {"/commands/x%4g", RequestFault::badEscape, ""},
      {"/commands/x%+1", RequestFault::badEscape, ""},
  };
  for (const Case& c : cases) {
    const CommandPath path = readCommandPath(c.path);
    EXPECT_EQ(path.fault, c.fault) << c.path;
    EXPECT_EQ(path.module, c.module) << c.path;
  }
}

TEST(RequestSyntax, ReadsTheInputFromTheForm) {
  struct Case {
    std::string body;
    RequestFault fault;
    std::string input;
  };
  const Case cases[] = {
      {"input=abc", RequestFault::none, "abc"},
      {"input=", RequestFault::none, ""},
      {"input=a+b%2Bc%26d%3d=e", RequestFault::none, "a b+c&d==e"},
      {"%69nput=x", RequestFault::none, "x"},
      {"first=1&input=x&&last", RequestFault::none, "x"},
      {"input=%00%fF", RequestFault::none, "\0\xff"s},
      {"input", RequestFault::noInput, ""},
      {"Input=x", RequestFault::noInput, ""},
      {"xinput=x", RequestFault::noInput, ""},
      {"=x", RequestFault::noInput, ""},
      {"&", RequestFault::noInput, ""},
      {"<plist/>", RequestFault::noInput, ""},
      {"input=a&input=a", RequestFault::repeatedInput, ""},
      {"input=%", RequestFault::badEscape, ""},
      {"input=%4", RequestFault::badEscape, ""},
      {"input=%zz", RequestFault::badEscape, ""},
      {"input=a&other=%G0", RequestFault::badEscape, ""},
      {"input=%4&1", RequestFault::badEscape, ""},
  };
  for (const Case& c : cases) {
    const FormBody body = readFormBody(c.body);
    EXPECT_EQ(body.fault, c.fault) << c.body;
    EXPECT_EQ(body.input, c.input) << c.body;
  }
}

TEST(RequestSyntax, ReadsBackWhatTheClientWrites) {
  std::string text;
  for (int character = 1; character < 0x80; ++character) text += static_cast<char>(character);
  text += "\u00fc\u20ac\U0001F600&+/ %26";
  EXPECT_EQ(readFormBody(OstrelDaemonSession::encodeRequest(PlistData{text})).input, text);
}

TEST(RequestSyntax, RefusesHeadsThatTwoReadersMayTakeDifferently) {
  using Headers = std::vector<HeaderField>;
  const Headers sound[] = {
      {},
      {{"Host", "h:1"}, {"Host", "h:2"}, {"HTTP_USER_AGENT", "a\tb \xc3\xa9"}, {"X", ""}},
      {{"Content-Length", "5"}, {"OstrelSessionID", "a@b"}, {"Authorization", "Basic YTpi"}},
      {{"transfer-encoding", "Chunked"}},
  };
  for (const Headers& headers : sound) EXPECT_EQ(judgeHeaders(headers), RequestFault::none) << headers.size();
  const Headers bad[] = {
      {{"Content-Length", "5"}, {"content-length", "5"}},
      {{"Content-Length", "5"}, {"Transfer-Encoding", "chunked"}},
      {{"Transfer-Encoding", "chunked"}, {"Transfer-Encoding", "chunked"}},
      {{"Transfer-Encoding", "gzip, chunked"}},
      {{"OstrelSessionID", "a"}, {"ostrelsessionid", "b"}},
      {{"Authorization", "a"}, {"Authorization", "a"}},
      {{"Content-Length ", "5"}},
      {{" Content-Length", "5"}},
      {{"Content-Length\r\n 5", ""}},
      {{"", "x"}},
      {{"X", "a\rContent-Length: 5"}},
      {{"X", std::string_view("a\0b", 3)}},
  };
  for (const Headers& headers : bad) EXPECT_EQ(judgeHeaders(headers), RequestFault::badHeader) << headers[0].name;
}

TEST(AuditLine, CannotBeForgedOrBlownUp) {
  AuditRecord record{.who = "root",
                     .from = "127.0.0.1:5",
                     .module = "a\" user=\"b\\\n[1] audit",
                     .command = std::string(5000, 'c'),
                     .outcome = "error \xe2\x82\xac\x1b[2J"};
  record.duration = std::chrono::microseconds(1500);
  EXPECT_EQ(auditLine(record),
            "audit user=\"root\" from=\"127.0.0.1:5\" module=\"a\\x22 user=\\x22b\\x5C\\x0A[1] audit\" "
            "command=\"" +
                std::string(96, 'c') +
                "...\" outcome=\"error \\xE2\\x82\\xAC\\x1B[2J\" "
                "ms=1.500");
  EXPECT_EQ(auditLine({}), "audit user=\"-\" from=\"-\" module=\"-\" command=\"-\" outcome=\"-\" ms=0.000");
}

TEST(ConnectionTable, CountsPeersByAddressAndBySixtyFourBitNetwork) {
  testing::FakeClock clock;
  const ScopedOverride<Clock> override(clock);
  ConnectionTable table({.total = 4, .perPeer = 1});
  const auto one = *SocketAddress::ipv6("2001:db8::1", 5);
  auto* entered = table.enter(-1, one);
  EXPECT_EQ(entered->from, "[2001:db8::1]:5");
  EXPECT_NE(table.refusal(*SocketAddress::ipv6("2001:db8::ffff:2", 6)), "");
  EXPECT_EQ(table.refusal(*SocketAddress::ipv6("2001:db8:0:1::1", 6)), "");
  table.enter(-1, *SocketAddress::ipv4("10.0.0.1"));
  EXPECT_NE(table.refusal(*SocketAddress::ipv4("10.0.0.1")), "");
  table.enter(-1, *SocketAddress::ipv6("::ffff:10.0.0.2"));
  EXPECT_NE(table.refusal(*SocketAddress::ipv6("::ffff:10.0.0.2")), "");
  EXPECT_EQ(table.refusal(*SocketAddress::ipv6("::ffff:10.0.0.3")), "");
  table.enter(-1, *SocketAddress::ipv4("10.0.0.3"));
  EXPECT_EQ(table.refusal(*SocketAddress::ipv4("10.0.0.4")), "too many connections");
  EXPECT_TRUE(table.leave(entered));  // it ended without its audit line
  EXPECT_EQ(table.refusal(one), "");
}

}  // namespace
}  // namespace ostrel
