// One exchange: what goes over the wire, how replies end, what failures are called.
#include <gtest/gtest.h>
#include <signal.h>

#include <atomic>
#include <chrono>
#include <thread>

#include "ClientSession/Fixtures.h"
#include "Containers/PropertyList.h"
#include "Support/Fakes.h"

namespace ostrel::testing {
namespace {

const PlistValue brokenConnection = PlistValue::dictionaryOf({{"RawResponse", "BROKEN_CONNECTION"}});
const PlistValue emptyResponse = PlistValue::dictionaryOf({{"error", "EMPTY_RESPONSE_ERR"}});

std::string failureOf(const std::shared_ptr<OstrelDaemonSession>& session) {
  return session->failureReason().value_or("none");
}

class TransportTest : public ::testing::TestWithParam<Transport> {
 protected:
  static bool isTls() { return GetParam() == Transport::tls; }
};
INSTANTIATE_TEST_SUITE_P(Over, TransportTest, ::testing::Values(Transport::plain, Transport::tls),
                         [](const auto& parameter) { return parameter.param == Transport::tls ? "Tls" : "Plain"; });

TEST_P(TransportTest, RequestBytesAreExact) {
  Mutex mutex;
  std::string request;
  Daemon daemon(GetParam(), [&](Peer& peer, int) {
    std::string bytes = peer.readRequest();
    peer.send(stateReply);
    const MutexLock lock(mutex);
    request = std::move(bytes);
  });
  const auto sent = [&](const PlistValue& value, const std::optional<std::string>& prefix = {}) {
    daemon.session->sendSyncRequest(value, prefix);
    const MutexLock lock(mutex);
    return request;
  };
  const std::string host = "Host: 127.0.0.1:" + daemon.port + "\r\n";
  const std::string agent = "HTTP_USER_AGENT: Plexnet-OstrelDaemonSession\r\n";

  EXPECT_EQ(sent({}), "POST /commands/ostrel_sample HTTP/1.0\r\n" + host + agent + "Content-Length: 0\r\n\r\n");
  daemon.session->setUserName("alice");
  EXPECT_EQ(sent(PlistData{"a&b"}),
            "POST /commands/ostrel_sample HTTP/1.0\r\n" + host + agent + "Content-Length: 11\r\n\r\ninput=a%26b");
  daemon.session->setPassword("");
  daemon.session->_setSessionID("alice@4F2A");
  EXPECT_EQ(sent(PlistData{"x"}, "any://127.0.0.1:" + daemon.port + "/p/q%20r?query#fragment"),
            "POST /p/q%20r HTTP/1.0\r\n" + host + "Authorization: Basic YWxpY2U6\r\nOstrelSessionID: alice@4F2A\r\n" +
                agent + "Content-Length: 7\r\n\r\ninput=x");
  // An empty user name asks for no authorization; an identifier that is empty or could forge a line is not sent.
  daemon.session->setUserName("");
  for (const char* identifier : {"", "a\r\nX-Forged: y", "a\nb", "a\x7F"}) {
    daemon.session->_setSessionID(identifier);
    EXPECT_EQ(sent({}), "POST /commands/ostrel_sample HTTP/1.0\r\n" + host + agent + "Content-Length: 0\r\n\r\n");
  }
}

TEST_P(TransportTest, ReplyOfAnyShapeArrivesWhole) {
  const std::string large = stateReply + std::string(3'000'000, ' ');
  for (const bool polls : {false, true}) {
    for (const std::string& reply : {stateReply, large}) {
      Daemon daemon(GetParam(), ScriptedServer::answering(reply));
      daemon.session->setUseTimeoutForTransactions(polls);
      EXPECT_EQ(daemon.session->sendSyncRequest(PlistValue::dictionaryOf({{"command", "getState"}})), runningState());
      EXPECT_EQ(daemon.session->status(), 1);
      EXPECT_EQ(failureOf(daemon.session), "none");
      const PlistValue raw = daemon.session->sendSyncRequest({}, {}, 7);  // whatever is no dictionary
      ASSERT_TRUE(raw.isData());
      EXPECT_EQ(raw.dataBytes(), reply.substr(reply.find("\r\n\r\n") + 4));
    }
  }
}

TEST_P(TransportTest, LengthsAroundTheChunkSize) {
  for (const std::size_t size : {8191U, 8192U, 8193U, 16384U}) {
    std::string reply = stateReply;
    reply.resize(size, ' ');
    Daemon daemon(GetParam(), ScriptedServer::answering(reply));
    // In clear text a multiple of 8192 bytes ends with an empty read and passes for a broken connection.
    const bool broken = !isTls() && size % 8192 == 0;
    EXPECT_EQ(daemon.session->sendSyncRequest({}), broken ? brokenConnection : runningState()) << size;
    EXPECT_EQ(daemon.session->status(), 1) << size;
    EXPECT_EQ(failureOf(daemon.session),
              broken ? "HTTP_REQUEST_FAILED: " + daemon.url() + ": err=-9816 (read)" : "none");
    EXPECT_EQ(daemon.server.connections(), 1) << size;
  }
}

TEST_P(TransportTest, HeadMustStandInTheFirstChunk) {
  struct Case {
    const char* what;
    std::string reply;
    bool found;
  };
  const std::string filler = "X: " + std::string(8192, 'x') + "\r\n";
  const std::string body = stateReply.substr(stateReply.find("\r\n\r\n") + 4);
  const auto padded = [&](std::size_t size) { return replyOf(body + std::string(size - replyOf(body).size(), ' ')); };
  for (const Case& test : {
           Case{"status before, blank line after", replyOf(body, filler), false},
           Case{"no blank line", "HTTP/1.0 200 OK\r\nX: y\r\n", false},
           Case{"no status", "X: y\r\n\r\n" + body, false},
           Case{"a character across the end of the chunk", padded(8191) + "\xC3\xA9", false},
           Case{"a character just inside", padded(8190) + "\xC3\xA9 ", true},
       }) {
    Daemon daemon(GetParam(), ScriptedServer::answering(test.reply));
    const PlistValue reply = daemon.session->sendSyncRequest({});
    if (test.found) {
      EXPECT_EQ(daemon.session->status(), 1) << test.what;
      continue;
    }
    EXPECT_EQ(reply, emptyResponse) << test.what;
    // Over TLS the number is the status of closing; in clear text that of the last read.
    EXPECT_EQ(failureOf(daemon.session),
              "HTTP_REQUEST_FAILED: " + daemon.url() + ": err=" + (isTls() ? "0" : "-9805") + " (parse)")
        << test.what;
    EXPECT_EQ(daemon.session->status(), 3) << test.what;
    EXPECT_EQ(daemon.server.connections(), 3) << test.what;
  }
}

TEST_P(TransportTest, PiecesOfAReply) {
  const std::size_t headEnd = stateReply.find("\r\n\r\n") + 4;
  Daemon inTwo(GetParam(), [&](Peer& peer, int) {
    peer.readRequest();
    peer.send(stateReply.substr(0, headEnd));
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    peer.send(stateReply.substr(headEnd));
  });
  EXPECT_EQ(inTwo.session->sendSyncRequest({}), runningState());

  Daemon dribbling(GetParam(), [&](Peer& peer, int) {
    peer.readRequest();
    for (const char byte : stateReply) peer.send({&byte, 1});
  });
  // In clear text a chunk is filled whatever its pieces; over TLS it is one record, and the head must stand in it.
  EXPECT_EQ(dribbling.session->sendSyncRequest({}), isTls() ? emptyResponse : runningState());
}

TEST_P(TransportTest, ConnectionThatEndsTooEarly) {
  for (const bool answers : {false, true}) {
    Daemon daemon(GetParam(), [&](Peer& peer, int) {
      peer.readRequest();
      if (answers) peer.send(stateReply);
      peer.breakOff();
      peer.waitForClose();
    });
    daemon.session->_setSessionID("alice@4F2A");
    const bool broken = isTls() || !answers;
    EXPECT_EQ(daemon.session->sendSyncRequest({}), broken ? brokenConnection : runningState());
    EXPECT_EQ(daemon.session->status(), 1);
    EXPECT_EQ(daemon.session->sessionID(), "alice@4F2A");
    const std::string number = isTls() ? "0" : "-9816";
    EXPECT_EQ(failureOf(daemon.session),
              broken ? "HTTP_REQUEST_FAILED: " + daemon.url() + ": err=" + number + " (read)" : "none");
    EXPECT_EQ(daemon.server.connections(), 1);
    if (broken) {
      const PlistValue raw = daemon.session->sendSyncRequest({}, {}, rawPayload);
      EXPECT_EQ(readXmlPropertyList(raw.dataBytes()), brokenConnection);
    }
  }
}

/// A fake clock whose sleeper lets the daemon's thread run now and then: 60 seconds of waiting must not be over before
/// a busy machine has scheduled the other side even once.
class PatientClock final : public Clock {
 public:
  PlistDate now() override { return fake_.now(); }
  std::chrono::nanoseconds monotonic() override { return fake_.monotonic(); }
  void sleepFor(std::chrono::nanoseconds duration) override {
    fake_.sleepFor(duration);
    if (fake_.sleeps() % 50 == 0) std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }

 private:
  FakeClock fake_;
};

TEST_P(TransportTest, StalledDaemonIsGivenUpInPollingMode) {
  PatientClock clock;
  RecordingLog log;
  const ScopedOverride<SystemLog> lines(log);
  const std::string part = stateReply.substr(0, 60);
  Daemon daemon(GetParam(), [&](Peer& peer, int) {
    peer.readRequest();
    peer.send(part);
    peer.waitForClose();
  });
  const ScopedOverride<Clock> time(clock);
  daemon.session->setUseTimeoutForTransactions(true);
  EXPECT_EQ(daemon.session->sendSyncRequest({}), emptyResponse);
  EXPECT_EQ(failureOf(daemon.session),
            "HTTP_REQUEST_FAILED: " + daemon.url() + ": err=" + (isTls() ? "0" : "-36") + " (read)");
  EXPECT_EQ(daemon.server.connections(), 3);
  EXPECT_GE(clock.monotonic(), std::chrono::seconds(180));
  const std::string start =
      "[" + std::to_string(processId()) + "] Ostrel " + (isTls() ? "SSLRead/" : "") + "_OstrelSocketRead(127.0.0.1:fd=";
  const auto all = log.lines();
  EXPECT_EQ(std::ranges::count_if(all,
                                  [&](const std::string& line) {
                                    return line.starts_with(start) && line.ends_with(") failed with -36 (errno=11)\n");
                                  }),
            3);
}

TEST_P(TransportTest, DaemonThatResetsIsAFailureAndNoSignal) {
  struct sigaction action {};
  sigaction(SIGPIPE, nullptr, &action);
  ASSERT_EQ(action.sa_handler, SIG_DFL);
  Daemon daemon(GetParam(), [](Peer& peer, int) { peer.reset(); });
  const std::string large(8U << 20U, 'x');
  EXPECT_EQ(daemon.session->sendSyncRequest(PlistData{large}), emptyResponse);
  EXPECT_EQ(failureOf(daemon.session),
            "HTTP_REQUEST_FAILED: " + daemon.url() + ": err=" + (isTls() ? "0" : "-36") + " (write)");
}

TEST_P(TransportTest, IdentifierFollowsTheDaemon) {
  const std::string body = stateReply.substr(stateReply.find("\r\n\r\n") + 4);
  Daemon daemon(GetParam(), [&](Peer& peer, int number) {
    peer.readRequest();
    const char* identifiers[] = {"", "OstrelSessionID: first\r\n", "", "OstrelSessionID: a\nb\r\n",
                                 "OstrelSessionID: last\r\n"};
    peer.send(replyOf(body, identifiers[number - 1]));
  });
  for (const std::optional<std::string>& expected :
       {std::optional<std::string>(), {"first"}, {"first"}, {"first"}, {"last"}}) {
    EXPECT_EQ(daemon.session->authenticateInSyncMode(), runningState());
    EXPECT_EQ(daemon.session->sessionID(), expected);
  }
}

// Connecting.

TEST(Transport, PortAloneChoosesTls) {
  Daemon encrypted(Transport::tls, ScriptedServer::answering(stateReply));
  encrypted.session->setProtocol("http");
  EXPECT_EQ(encrypted.session->sendSyncRequest({}), runningState());
  // "0311" is the same port and another text: a plain request to a TLS server.
  encrypted.session->setPort("0311");
  encrypted.session->sendSyncRequest({});
  EXPECT_EQ(encrypted.resolver.asked(), "127.0.0.1:311");
  EXPECT_NE(failureOf(encrypted.session), "none");

  Daemon clear(Transport::plain, ScriptedServer::answering(stateReply));
  EXPECT_EQ(clear.session->protocol(), "https");
  EXPECT_EQ(clear.session->sendSyncRequest({}), runningState());
}

TEST(Transport, TlsOnPort311AgainstAClearTextServerFailsInWriting) {
  ScriptedServer clearText({}, [](Peer& peer, int) { peer.send("HTTP/1.0 400 Bad Request\r\n\r\n"); });
  FakeResolver resolver({*SocketAddress::ipv4("127.0.0.1", clearText.port())});
  const ScopedOverride<NameResolver> redirect(resolver);
  const auto session = OstrelDaemonSession::init();
  EXPECT_EQ(session->sendSyncRequest({}), emptyResponse);
  EXPECT_EQ(failureOf(session), "HTTP_REQUEST_FAILED: https://localhost:311/commands/ostrel_sample: err=0 (write)");
  EXPECT_EQ(clearText.connections(), 3);
}

TEST(Transport, LocalNamesResolveAsLocalhost) {
  FakeResolver nowhere({});
  FakeNetworkConfiguration configuration("myhost");
  const ScopedOverride<NameResolver> names(nowhere);
  const ScopedOverride<NetworkConfiguration> network(configuration);
  const auto session = OstrelDaemonSession::init();
  session->setPort("8311");
  for (const auto& [host, asked] : {std::pair("localhost", "localhost:8311"),
                                    {"localhost.example", "localhost:8311"},
                                    {"myhost.local", "localhost:8311"},
                                    {"MYHOST.local", "MYHOST.local:8311"},
                                    {"a.localhost", "a.localhost:8311"},
                                    {"[::1]", "::1:8311"}}) {
    session->setHost(host);
    session->sendSyncRequest({});
    EXPECT_EQ(nowhere.asked(), asked);
    EXPECT_EQ(failureOf(session), "HTTP_REQUEST_FAILED: https://" + std::string(host) +
                                      ":8311/commands/ostrel_sample: err=0 (getaddrinfo)");
  }
  // A number beyond the ports is not asked for: resolvers take it modulo 65536.
  session->setPort("65847");
  session->sendSyncRequest({});
  EXPECT_EQ(nowhere.asked(), "::1:8311");
  EXPECT_TRUE(failureOf(session).ends_with("err=0 (getaddrinfo)"));
  session->sendSyncRequest({}, "http://h/x");
  EXPECT_EQ(nowhere.asked(), "h:0");
}

TEST(Transport, CandidatesAreTriedInOrderWithIPv6Last) {
  RecordingLog log;
  const ScopedOverride<SystemLog> lines(log);
  ScriptedServer four({}, ScriptedServer::answering(stateReply));
  ScriptedServer::Options onIPv6;
  onIPv6.onIPv6 = true;
  ScriptedServer six(onIPv6, ScriptedServer::answering(replyOf("six")));
  if (!six.isListening()) GTEST_SKIP() << "no IPv6 loopback address here";
  const std::uint16_t closedPort = [] {
    ScriptedServer gone({}, [](Peer&, int) {});
    return gone.port();
  }();
  const auto address4 = *SocketAddress::ipv4("127.0.0.1", four.port());
  const auto address6 = *SocketAddress::ipv6("::1", six.port());
  const auto refusing = *SocketAddress::ipv4("127.0.0.1", closedPort);
  const SocketAddress unknown;  // a family that no socket can be made for

  struct Case {
    std::vector<SocketAddress> candidates;
    PlistValue reply;
    std::string failure;
  };
  const PlistValue answerOfSix = PlistValue::dictionaryOf({{"RawResponse", "six"}});
  for (const Case& test : {
           Case{{address6, address4}, runningState(), "none"},
           Case{{refusing, address4, address6}, runningState(), "none"},
           Case{{refusing, address6}, answerOfSix, "none"},
           Case{{address6}, answerOfSix, "none"},
           Case{{address6, refusing}, emptyResponse, "err=111 (connect)"},  // skipped, though it would have answered
           Case{{refusing, unknown}, emptyResponse, "err=97 (socket)"},     // the last failure is the one that is told
           Case{{unknown, refusing}, emptyResponse, "err=111 (connect)"},
       }) {
    FakeResolver resolver(test.candidates);
    const ScopedOverride<NameResolver> names(resolver);
    const auto session = OstrelDaemonSession::init();
    session->setHost("daemon.example");
    session->setPort("8311");
    EXPECT_EQ(session->sendSyncRequest({}), test.reply);
    EXPECT_TRUE(failureOf(session).ends_with(test.failure)) << failureOf(session);
  }
  EXPECT_TRUE(log.holds("[" + std::to_string(processId()) +
                        "] Ostrel session failed in connect(daemon.example,127.0.0.1," + std::to_string(closedPort) +
                        "): 111\n"));
}

TEST(Transport, CertificateIsCheckedOnlyWhenAsked) {
  const TestCertificates& all = TestCertificates::shared();
  struct Case {
    const char* what;
    const TestCertificate* certificate;
    const char* host;
    bool passesCheck;
  };
  for (const Case& test : {
           Case{"trusted", &all.trusted, "127.0.0.1", true},
           Case{"for another host", &all.trusted, "daemon.example", false},
           Case{"expired", &all.expired, "127.0.0.1", false},
           Case{"unknown root", &all.stranger, "127.0.0.1", false},
       }) {
    ScriptedServer::Options options;
    options.certificate = test.certificate;
    Daemon daemon(options, ScriptedServer::answering(stateReply));
    daemon.session->setHost(test.host);
    // Accepted first, so that there is a TLS session that a strict connection must not resume.
    EXPECT_EQ(daemon.session->sendSyncRequest({}), runningState()) << test.what;
    daemon.session->setForceValidCertificate(true);
    EXPECT_EQ(daemon.session->sendSyncRequest({}), test.passesCheck ? runningState() : emptyResponse) << test.what;
    const std::string failure = failureOf(daemon.session);
    EXPECT_TRUE(test.passesCheck ? failure == "none" : failure.ends_with(": err=0 (write)")) << failure;
  }
}

TEST(Transport, RequestsOfOneProcessResumeTheTlsSession) {
  for (const int version : {TLS1_2_VERSION, TLS1_3_VERSION}) {
    ScriptedServer::Options options;
    options.certificate = &TestCertificates::shared().trusted;
    options.newestTlsVersion = version;
    Daemon daemon(options, ScriptedServer::answering(stateReply));
    daemon.session->setHost(version == TLS1_2_VERSION ? "localhost" : "127.0.0.1");  // no session left by other tests
    daemon.session->setForceValidCertificate(true);
    for (int i = 0; i < 4; ++i) EXPECT_EQ(daemon.newSession()->sendSyncRequest({}), runningState());
    const int lax = daemon.server.resumed();
    for (int i = 0; i < 4; ++i) EXPECT_EQ(daemon.session->sendSyncRequest({}), runningState());
    EXPECT_GE(lax, 3);
    EXPECT_EQ(daemon.server.resumed(), lax + 3);
  }
}

TEST(Transport, SessionsOnManyThreads) {
  for (const Transport transport : {Transport::plain, Transport::tls}) {
    Daemon daemon(transport, [](Peer& peer, int number) {
      peer.readRequest();
      peer.send(
          replyOf("<plist version=\"1.0\"><dict/></plist>", "OstrelSessionID: s" + std::to_string(number) + "\r\n"));
    });
    const auto shared = daemon.newSession();
    std::atomic<int> right{0};
    std::vector<std::thread> threads;
    for (int i = 0; i < 6; ++i) {
      threads.emplace_back([&, own = daemon.newSession()] {
        for (int round = 0; round < 8; ++round) {
          const PlistValue reply = own->sendSyncRequest(PlistValue::dictionaryOf({{"command", "x"}}));
          if (reply.isDictionary() && reply.count() == 0 && own->status() == 1) ++right;
          shared->_setSessionID(own->sessionID());
          shared->setUseTimeoutForTransactions(round % 2 == 0);
        }
      });
    }
    for (int round = 0; round < 8; ++round) right += shared->sendSyncRequest({}).count() == 0 ? 1 : 0;
    for (std::thread& thread : threads) thread.join();
    EXPECT_EQ(right, 56);
    EXPECT_TRUE(shared->sessionID());
  }
}

}  // namespace
}  // namespace ostrel::testing
