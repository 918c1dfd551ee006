// What the daemon does with those who do not keep to the protocol: each gets its status or a closed connection, leaves
// one audit line, and takes nothing from the next good request.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <functional>

#include "ClientSession/Sockets.h"
#include "Platform/TlsClient.h"
#include "Tools/DaemonProcess.h"

namespace ostrel {
namespace {

using testing::DaemonProcess;
using testing::eventually;
using ::testing::HasSubstr;
using testing::RawConnection;
using ::testing::SizeIs;
using ::testing::StartsWith;
using Transport = DaemonProcess::Transport;

std::string head(const DaemonProcess& daemon, const std::string& more = "") {
  return "POST /commands/ostrel_sample HTTP/1.0\r\nOstrelSessionID: " + daemon.sessionIdentifier() + "\r\n" + more;
}

std::string form(const DaemonProcess& daemon, const std::string& body) {
  return head(daemon, "Content-Length: " + std::to_string(body.size()) + "\r\n\r\n") + body;
}

TEST(DaemonBadInput, EachGetsItsStatusAndOneAuditLine) {
  DaemonProcess daemon(Transport::plain);
  ASSERT_TRUE(daemon.start({"--max-head", "4096", "--max-body", "100000", "--request-time", "2"})) << daemon.log();
  const std::string identified = "OstrelSessionID: " + daemon.sessionIdentifier() + "\r\n";
  const auto get = [&identified](const std::string& line) { return line + "\r\n" + identified + "\r\n"; };

  struct Case {
    std::string name;
    std::string request;
    std::string reply;    // what it begins with; "" for a connection that is closed without one
    std::string outcome;  // in the audit line
  };
  const Case cases[] = {
      {"wrong method", get("GET /commands/ostrel_sample HTTP/1.0"), "HTTP/1.0 405 ", "refused 405 wrong method"},
      {"unknown method", get("BREW /commands/ostrel_sample HTTP/1.1"), "HTTP/1.0 405 ", "refused 405 wrong method"},
      {"wrong path", get("POST /etc/passwd HTTP/1.0"), "HTTP/1.0 404 ", "refused 404 wrong path"},
      {"climbing path", get("POST /commands/..%2f..%2fetc HTTP/1.0"), "HTTP/1.0 404 ", "refused 404 wrong path"},
      {"NUL in path", get("POST /commands/ostrel_sample%00x HTTP/1.0"), "HTTP/1.0 404 ", "refused 404 wrong path"},
      {"bad escape in path", get("POST /commands/%zz HTTP/1.0"), "HTTP/1.0 400 ", "refused 400 bad percent-escape"},
      {"bad escape in body", form(daemon, "input=%g0"), "HTTP/1.0 400 ", "refused 400 bad percent-escape"},
      {"cut escape in body", form(daemon, "input=abc%2"), "HTTP/1.0 400 ", "refused 400 bad percent-escape"},
      {"no input", form(daemon, "output=abc"), "HTTP/1.0 400 ", "refused 400 no input"},
      {"two inputs", form(daemon, "input=a&input=b"), "HTTP/1.0 400 ", "refused 400 repeated input"},
      {"large head", head(daemon, "X: " + std::string(5000, 'x') + "\r\n\r\n"), "HTTP/1.0 431 ",
       "refused 431 head too large"},
      {"larger head", head(daemon, "X: " + std::string(60000, 'x') + "\r\n\r\n"), "HTTP/1.", "no whole request"},
      {"large body", form(daemon, "input=" + std::string(100'000, 'x')), "HTTP/1.0 413 ", "refused 413 body too large"},
      {"much larger body", form(daemon, "input=" + std::string(5'000'000, 'x')), "HTTP/1.0 413 ",
       "refused 413 body too large"},
      {"body of unthinkable length", head(daemon, "Content-Length: 99999999999999999999999\r\n\r\n"), "HTTP/1.",
       "refused"},
      {"body without end",
       head(daemon, "Transfer-Encoding: chunked\r\n\r\n") + "20000\r\n" + std::string(0x20000, 'x') + "\r\n0\r\n\r\n",
       "HTTP/1.0 413 ", "refused 413 body too large"},
      {"refused before the body",
       get("PUT /commands/x HTTP/1.1\r\nHost: h\r\nExpect: 100-continue\r\nContent-Length: 9"), "HTTP/1.0 405 ",
       "refused 405 wrong method"},
      {"two lengths", head(daemon, "Content-Length: 6\r\nContent-Length: 16\r\n\r\ninput=") + "<plist/>ab",
       "HTTP/1.0 400 ", "refused 400 bad header"},
      {"an unknown encoding", head(daemon, "Transfer-Encoding: gzip\r\n\r\ninput="), "HTTP/1.0 400 ",
       "refused 400 bad header"},
      {"a length that readers overlook", head(daemon, "Content-Length : 6\r\n\r\ninput="), "HTTP/1.0 400 ",
       "refused 400 bad header"},
      {"no length", head(daemon, "\r\ninput="), "HTTP/1.0 411 ", "refused 411 no length"},
      {"a length on a line of its own", head(daemon, "Content-Length:\r\n 6\r\n\r\ninput="), "HTTP/1.0 411 ",
       "refused 411 no length"},
      {"two identifiers", head(daemon, identified + "Content-Length: 6\r\n\r\ninput="), "HTTP/1.0 400 ",
       "refused 400 bad header"},
      {"no length that is one", head(daemon, "Content-Length: -5\r\n\r\n"), "HTTP/1.", "no whole request"},
      {"no HTTP", "hello\r\n\r\n", "", "no whole request"},
      {"TLS to a plain port", std::string("\x16\x03\x01\x00\xa5\x01\x00\x00\xa1\x03\x03", 11) + std::string(200, '\0'),
       "", "refused"},
      {"a head that never ends", "POST /commands/ostrel_sample HTTP/1.0\r\n", "", "refused not sent in time"},
      {"a body that never ends", head(daemon, "Content-Length: 100\r\n\r\ninput="), "", "refused not sent in time"},
      {"nothing", "", "", "refused not sent in time"},
      {"no property list", form(daemon, "input=hello"), "HTTP/1.0 200 ", "error CANNOT_PARSE_XML_REQUEST_ERR"},
      {"empty input", form(daemon, "input="), "HTTP/1.0 200 ", "error UNEXPECTED_COMMAND"},
      {"chunked, and right", head(daemon, "Transfer-Encoding: chunked\r\n\r\n6\r\ninput=\r\n0\r\n\r\n"),
       "HTTP/1.0 200 ", "error UNEXPECTED_COMMAND"},
      {"a query is left aside",
       "POST /commands/ostrel_sample?a=%zz HTTP/1.0\r\n" + identified + "Content-Length: 0\r\n\r\n", "HTTP/1.0 200 ",
       "ok"},
  };
  std::size_t lines = 0;
  for (const Case& c : cases) {
    const std::string reply = daemon.exchange(c.request);
    if (!c.reply.empty()) {
      EXPECT_THAT(reply, StartsWith(c.reply)) << c.name;
    } else {
      EXPECT_EQ(reply.find("200 OK"), std::string::npos) << c.name << ": " << reply;
      EXPECT_EQ(reply.find("(still open)"), std::string::npos) << c.name;
    }
    EXPECT_TRUE(eventually([&] { return daemon.auditLines().size() == lines + 1; })) << c.name;
    const auto audit = daemon.auditLines();
    ASSERT_THAT(audit, SizeIs(lines + 1)) << c.name;
    EXPECT_THAT(audit.back(), HasSubstr(c.outcome)) << c.name;
    ASSERT_EQ(daemon.echo(c.name).stringValue(), c.name);
    lines += 2;
  }
  EXPECT_EQ(daemon.stop(), 0) << daemon.log();
}

TEST(DaemonBadInput, SlowAndHalfClosedPeers) {
  DaemonProcess daemon(Transport::plain);
  ASSERT_TRUE(daemon.start({"--request-time", "1.5"})) << daemon.log();
  // A byte now and then does not extend the time that a request may take.
  const RawConnection slow = daemon.connectRaw();
  const auto begun = std::chrono::steady_clock::now();
  const std::string request = form(daemon, "input=" + std::string(4000, 'x'));
  for (std::size_t i = 0; i < 400 && slow.write(request.substr(i, 1)); ++i) {
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  EXPECT_EQ(slow.readAll(), "");
  EXPECT_LT(std::chrono::steady_clock::now() - begun, std::chrono::seconds(20));

  // Whoever has sent a whole request may close the sending half.
  const RawConnection half = daemon.connectRaw();
  half.write(form(daemon, ""));
  half.endWriting();
  EXPECT_THAT(half.readAll(), StartsWith("HTTP/1.0 200 "));
  // Whoever has not gets nothing, at once.
  const RawConnection cut = daemon.connectRaw();
  cut.write(request.substr(0, request.size() - 1));
  cut.endWriting();
  EXPECT_EQ(cut.readAll().find("200"), std::string::npos);

  EXPECT_EQ(daemon.echo("x").stringValue(), "x");
  EXPECT_TRUE(eventually([&] { return daemon.auditLines().size() == 4; })) << daemon.log();
}

TEST(DaemonBadInput, ATlsPeerMayCloseItsSendingHalf) {
  if (!testing::mayUseTlsPort()) GTEST_SKIP() << "this user may not listen on port 311";
  DaemonProcess daemon(Transport::tls);
  ASSERT_TRUE(daemon.start()) << daemon.log();
  const RawConnection half = daemon.connectRaw();
  IoStatus status = ioCompleted;
  TlsClientOptions options;
  options.read = &_OstrelSocketBlockingRead;
  options.write = &_OstrelSocketBlockingWrite;
  options.connection = half.descriptor();
  options.allowsAnyRoot = true;
  const auto tls = TlsClient::current().connect(options, &status);
  ASSERT_NE(tls, nullptr);
  ASSERT_EQ(tls->handshake(), ioCompleted);
  const std::string request = form(daemon, "");
  std::size_t size = request.size();
  ASSERT_EQ(tls->write(request.data(), &size), ioCompleted);
  half.endWriting();
  char reply[15] = {};
  size = sizeof reply;
  EXPECT_EQ(tls->read(reply, &size), ioCompleted);
  EXPECT_EQ(std::string_view(reply, size), "HTTP/1.0 200 OK");
}

TEST(DaemonBadInput, GarbageBeforeTls) {
  if (!testing::mayUseTlsPort()) GTEST_SKIP() << "this user may not listen on port 311";
  DaemonProcess daemon(Transport::tls);
  ASSERT_TRUE(daemon.start({"--request-time", "2"})) << daemon.log();
  const std::string garbage[] = {"POST /commands/ostrel_sample HTTP/1.0\r\nContent-Length: 0\r\n\r\n",
                                 std::string(100'000, '\xff'), std::string(3, '\x16'), ""};
  std::size_t lines = 0;
  for (const std::string& bytes : garbage) {
    const RawConnection connection = daemon.connectRaw();
    connection.write(bytes);
    const std::string reply = connection.readAll();
    EXPECT_EQ(reply.find("HTTP/1"), std::string::npos);
    EXPECT_EQ(reply.find("(still open)"), std::string::npos);
    EXPECT_TRUE(eventually([&] { return daemon.auditLines().size() == lines + 1; }));
    EXPECT_EQ(daemon.echo("x").stringValue(), "x");
    lines += 2;
    ASSERT_THAT(daemon.auditLines(), SizeIs(lines)) << daemon.log();
  }
}

TEST(DaemonBadInput, AThousandConnections) {
  DaemonProcess daemon(Transport::plain);
  ASSERT_TRUE(daemon.start({"--max-connections-per-peer", "20", "--request-time", "3"})) << daemon.log();
  {
    std::vector<std::unique_ptr<RawConnection>> crowd;
    for (int i = 0; i < 1000; ++i) crowd.push_back(std::make_unique<RawConnection>(daemon.host(), daemon.port()));
    EXPECT_TRUE(eventually([&] { return daemon.auditLines().size() >= 980; }));
    // Another peer is served meanwhile.
    daemon.session();
  }
  EXPECT_TRUE(eventually([&daemon] { return daemon.echo("x").stringValue() == "x"; }));
  EXPECT_TRUE(eventually([&] { return daemon.auditLines().size() >= 1001; }));
  EXPECT_THAT(daemon.log(), HasSubstr("outcome=\"refused too many connections from this peer\""));
  EXPECT_EQ(daemon.stop(), 0);
}

TEST(DaemonBadInput, MoreConnectionsThanOpenFiles) {
  DaemonProcess daemon(Transport::plain);
  daemon.startThrough({"/bin/sh", "-c", "ulimit -n 64; exec \"$@\"", "sh"});
  ASSERT_TRUE(daemon.start()) << daemon.log();
  EXPECT_THAT(daemon.log(), HasSubstr("16 connections at once instead of 256: the limit on open files is 64"));
  {
    std::vector<std::unique_ptr<RawConnection>> crowd;
    for (int i = 0; i < 60; ++i) crowd.push_back(std::make_unique<RawConnection>(daemon.host(), daemon.port()));
    // Each is taken, or refused with its line; none waits for a descriptor.
    EXPECT_TRUE(eventually([&] { return daemon.auditLines().size() == 44; })) << daemon.auditLines().size();
  }
  EXPECT_TRUE(eventually([&daemon] { return daemon.echo("x").stringValue() == "x"; }));
  EXPECT_EQ(daemon.stop(), 0);
}

}  // namespace
}  // namespace ostrel
