#include "Platform/TlsClient.h"

#include <gtest/gtest.h>

#include <array>
#include <string>

#include "ClientSession/ScriptedServer.h"
#include "ClientSession/Sockets.h"
#include "ClientSession/TestCertificate.h"
#include "Platform/Socket.h"

namespace ostrel::testing {
namespace {

/// A TLS connection to a scripted server.
struct Client {
  Client(ScriptedServer& server, TlsClientOptions options) : socket(openStreamSocket(AF_INET)) {
    EXPECT_TRUE(connectSocket(socket.get(), *SocketAddress::ipv4("127.0.0.1", server.port())));
    if (options.read == nullptr) options.read = _OstrelSocketBlockingRead;
    if (options.write == nullptr) options.write = _OstrelSocketBlockingWrite;
    options.connection = socket.get();
    IoStatus status = ioCompleted;
    tls = TlsClient::current().connect(options, &status);
    EXPECT_TRUE(tls != nullptr && status == ioCompleted);
  }
  IoStatus shakeHands() { return handshake = tls->handshake(); }
  /// Everything up to the end, and the status that it ended with.
  std::pair<std::string, IoStatus> readAll() {
    std::string all;
    std::array<char, 8192> buffer{};
    while (true) {
      std::size_t count = buffer.size();
      const IoStatus status = tls->read(buffer.data(), &count);
      all.append(buffer.data(), count);
      if (status != ioCompleted) return {all, status};
    }
  }

  FileDescriptor socket;
  std::unique_ptr<TlsConnection> tls;
  IoStatus handshake = ioFailed;
};

TlsClientOptions laxOptions() {
  TlsClientOptions options;
  options.allowsExpiredCertificates = true;
  options.allowsAnyRoot = true;
  return options;
}

ScriptedServer::Options withCertificate(const TestCertificate& certificate, int newestVersion = TLS1_3_VERSION) {
  ScriptedServer::Options options;
  options.certificate = &certificate;
  options.newestTlsVersion = newestVersion;
  return options;
}

TEST(TlsClient, EachSwitchAcceptsWhatItNames) {
  const TestCertificates& all = TestCertificates::shared();
  struct Case {
    const char* what;
    const TestCertificate* certificate;
    bool expired;  // accepted
    bool anyRoot;
    const char* host;
    bool accepted;
  };
  const TestCertificate expiredStranger("DNS:localhost", TestCertificate::Validity::expired);
  for (const Case& test : {
           Case{"trusted", &all.trusted, false, false, "localhost", true},
           Case{"trusted, no name asked", &all.trusted, false, false, "", true},
           Case{"another name", &all.trusted, false, false, "elsewhere.example", false},
           Case{"another address", &all.trusted, false, false, "127.0.0.2", false},
           Case{"another name, any root", &all.trusted, false, true, "elsewhere.example", true},
           Case{"stranger", &all.stranger, true, false, "localhost", false},
           Case{"stranger, any root", &all.stranger, false, true, "localhost", true},
           Case{"expired", &all.expired, false, false, "localhost", false},
           Case{"expired, any root", &all.expired, false, true, "localhost", false},
           Case{"expired, accepted", &all.expired, true, false, "localhost", true},
           Case{"expired, for another name", &all.expired, true, false, "elsewhere.example", false},
           Case{"expired stranger", &expiredStranger, false, true, "localhost", false},
           Case{"expired stranger, both", &expiredStranger, true, true, "localhost", true},
       }) {
    ScriptedServer server(withCertificate(*test.certificate), [](Peer& peer, int) { peer.send("hello"); });
    TlsClientOptions options;
    options.host = test.host;
    options.allowsExpiredCertificates = test.expired;
    options.allowsAnyRoot = test.anyRoot;
    Client client(server, options);
    EXPECT_EQ(client.shakeHands(), test.accepted ? ioCompleted : ioFailed) << test.what;
    if (test.accepted) {
      EXPECT_EQ(client.readAll(), std::pair(std::string("hello"), ioClosedGracefully)) << test.what;
      EXPECT_EQ(client.tls->close(), ioCompleted);
      continue;
    }
    // A connection that failed takes nothing more, and there is nobody to say goodbye to.
    std::size_t count = 1;
    EXPECT_EQ(client.tls->write("x", &count), ioFailed) << test.what;
    EXPECT_EQ(count, 0U);
    EXPECT_EQ(client.tls->read(&count, &count), ioFailed) << test.what;
    EXPECT_EQ(client.tls->close(), ioCompleted) << test.what;
  }
}

TEST(TlsClient, OldProtocolsOnlyWhenAskedFor) {
  struct Case {
    int servers;
    TlsVersion asked;
    bool agree;
  };
  for (const Case& test :
       {Case{TLS1_VERSION, TlsVersion::tls12, false}, Case{TLS1_2_VERSION, TlsVersion::tls12, true},
        Case{TLS1_2_VERSION, TlsVersion::tls13, false}, Case{TLS1_3_VERSION, TlsVersion::tls10, true}}) {
    ScriptedServer server(withCertificate(TestCertificates::shared().trusted, test.servers), [](Peer&, int) {});
    TlsClientOptions options = laxOptions();
    options.minimumVersion = test.asked;
    EXPECT_EQ(Client(server, options).shakeHands() == ioCompleted, test.agree) << test.servers;
  }
}

TEST(TlsClient, EndOfTheStreamIsToldApart) {
  ScriptedServer server(withCertificate(TestCertificates::shared().trusted), [](Peer& peer, int number) {
    if (number == 1) return peer.send("all of it");
    if (number == 2) {
      peer.send("part");
      return peer.breakOff();
    }
    peer.reset();
  });
  for (const auto& expected :
       {std::pair(std::string("all of it"), ioClosedGracefully), {"part", ioClosedAbruptly}, {"", ioClosedAbruptly}}) {
    Client client(server, laxOptions());
    ASSERT_EQ(client.shakeHands(), ioCompleted);
    EXPECT_EQ(client.readAll(), expected);
    EXPECT_EQ(client.readAll(), std::pair(std::string(), expected.second));  // and so it stays
  }
}

TEST(TlsClient, ReadGivesOneRecordAndWriteTakesEverything) {
  const std::string large(100'000, 'x');
  std::string received;
  ScriptedServer server(withCertificate(TestCertificates::shared().trusted), [&](Peer& peer, int) {
    received = peer.readRequest();
    peer.send("first");
    peer.send("second");
  });
  Client client(server, laxOptions());
  ASSERT_EQ(client.shakeHands(), ioCompleted);
  const std::string request = "Content-Length: 100000\r\n\r\n" + large;
  std::size_t count = request.size();
  EXPECT_EQ(client.tls->write(request.data(), &count), ioCompleted);
  EXPECT_EQ(count, request.size());
  std::array<char, 100> buffer{};
  for (const std::string_view expected : {"first", "second"}) {
    count = buffer.size();
    EXPECT_EQ(client.tls->read(buffer.data(), &count), ioCompleted);
    EXPECT_EQ(std::string_view(buffer.data(), count), expected);
  }
  EXPECT_EQ(client.readAll().second, ioClosedGracefully);
  EXPECT_EQ(received, request);
}

// Callbacks that fail.

int readsLeft = 0;
int readsAsked = 0;
std::int32_t failWith = ioFailed;

/// Passes some reads through, then hands out half of the bytes together with a failure, or only the failure.
std::int32_t failingRead(int connection, void* data, std::size_t* count) {
  ++readsAsked;
  if (readsLeft-- > 0) return _OstrelSocketBlockingRead(connection, data, count);
  if (readsLeft == -1 && *count > 1) {
    *count /= 2;
    _OstrelSocketBlockingRead(connection, data, count);
  } else {
    *count = 0;
  }
  return failWith;
}

std::int32_t failingWrite(int /*connection*/, const void* /*data*/, std::size_t* count) {
  *count = 0;
  return failWith;
}

TEST(TlsClient, StatusesOfTheCallbacksComeThrough) {
  ScriptedServer server(withCertificate(TestCertificates::shared().trusted),
                        [](Peer& peer, int) { peer.waitForClose(); });
  struct Case {
    std::int32_t callback;
    IoStatus expected;
  };
  for (const Case& test : {Case{ioFailed, ioFailed}, Case{-1234, ioFailed}, Case{ioClosedGracefully, ioClosedAbruptly},
                           Case{ioClosedAbruptly, ioClosedAbruptly}, Case{ioWouldBlock, ioWouldBlock}}) {
    failWith = test.callback;
    TlsClientOptions options = laxOptions();
    options.read = failingRead;
    readsLeft = 1;
    readsAsked = 0;
    Client reading(server, options);
    EXPECT_EQ(reading.shakeHands(), test.expected) << test.callback;
    // A failure that came with bytes is reported next, without asking (and waiting) again; would-block is asked again.
    EXPECT_EQ(readsAsked, test.callback == ioWouldBlock ? 3 : 2) << test.callback;

    options = laxOptions();
    options.write = failingWrite;
    Client writing(server, options);
    EXPECT_EQ(writing.shakeHands(), test.callback == ioWouldBlock ? ioWouldBlock : ioFailed) << test.callback;
  }
}

int writes = 0;
std::string lastWritten;

std::int32_t countingWrite(int connection, const void* data, std::size_t* count) {
  ++writes;
  lastWritten.assign(static_cast<const char*>(data), *count);
  return _OstrelSocketBlockingWrite(connection, data, count);
}

TEST(TlsClient, EndOfTheHandshakeTravelsWithTheFirstData) {
  for (const bool clientBegins : {true, false}) {
    ScriptedServer server(withCertificate(TestCertificates::shared().trusted), [&](Peer& peer, int) {
      if (clientBegins) peer.readRequest();
      peer.send("hello");
    });
    TlsClientOptions options = laxOptions();
    options.write = countingWrite;
    writes = 0;
    Client client(server, options);
    ASSERT_EQ(client.shakeHands(), ioCompleted);
    std::size_t count = 4;
    if (clientBegins) client.tls->write("\r\n\r\n", &count);
    EXPECT_EQ(client.readAll(), std::pair(std::string("hello"), ioClosedGracefully));
    EXPECT_EQ(writes, 2);  // the first message, and the last together with the data or before the first read
  }
}

TEST(TlsClient, ThePeerIsToldWhyItsCertificateIsRefused) {
  ScriptedServer server(withCertificate(TestCertificates::shared().stranger, TLS1_2_VERSION), [](Peer&, int) {});
  TlsClientOptions options;
  options.write = countingWrite;
  EXPECT_EQ(Client(server, options).shakeHands(), ioFailed);
  EXPECT_EQ(lastWritten, std::string("\x15\x03\x03\x00\x02\x02\x30", 7));  // a fatal alert: unknown_ca
}

TEST(TlsClient, HandshakeGoesOnAfterWouldBlock) {
  ScriptedServer server(withCertificate(TestCertificates::shared().trusted),
                        [](Peer& peer, int) { peer.send("hello"); });
  TlsClientOptions options = laxOptions();
  options.read = failingRead;
  failWith = ioWouldBlock;
  readsLeft = 0;
  Client client(server, options);
  EXPECT_EQ(client.shakeHands(), ioWouldBlock);
  readsLeft = 1000;
  EXPECT_EQ(client.shakeHands(), ioCompleted);
  EXPECT_EQ(client.readAll(), std::pair(std::string("hello"), ioClosedGracefully));
}

TEST(TlsClient, ConnectionWithoutCallbacksIsRefused) {
  IoStatus status = ioCompleted;
  EXPECT_EQ(TlsClient::current().connect(laxOptions(), &status), nullptr);
  EXPECT_EQ(status, ioFailed);
}

// Resumption.

bool resumes(ScriptedServer& server, const TlsClientOptions& options) {
  Client client(server, options);
  EXPECT_EQ(client.shakeHands(), ioCompleted);
  client.readAll();  // TLS 1.3 hands its sessions out after the handshake
  client.tls->close();
  return client.tls->wasResumed();
}

TEST(TlsClient, SessionsAreResumedOnlyUnderTheSameRules) {
  for (const int version : {TLS1_2_VERSION, TLS1_3_VERSION}) {
    ScriptedServer server(withCertificate(TestCertificates::shared().trusted, version),
                          [](Peer& peer, int) { peer.send("x"); });
    TlsClientOptions lax = laxOptions();
    lax.host = "localhost";
    lax.port = "resumption " + std::to_string(version);  // a key of this test's own
    EXPECT_FALSE(resumes(server, lax));
    EXPECT_TRUE(resumes(server, lax));
    EXPECT_TRUE(resumes(server, lax));

    TlsClientOptions strict = lax;
    strict.allowsAnyRoot = strict.allowsExpiredCertificates = false;
    TlsClientOptions anyRoot = lax;
    anyRoot.allowsExpiredCertificates = false;
    TlsClientOptions expired = lax;
    expired.allowsAnyRoot = false;
    TlsClientOptions older = lax;
    older.minimumVersion = TlsVersion::tls11;
    TlsClientOptions otherPort = lax;
    otherPort.port += "x";
    TlsClientOptions otherHost = lax;
    otherHost.host = "127.0.0.1";
    for (const TlsClientOptions& other : {strict, anyRoot, expired, older, otherPort, otherHost})
      EXPECT_FALSE(resumes(server, other)) << version;
    EXPECT_TRUE(resumes(server, strict)) << version;
    EXPECT_TRUE(resumes(server, lax)) << version;

    TlsClientOptions unkept = lax;
    unkept.port.clear();
    EXPECT_FALSE(resumes(server, unkept));
    EXPECT_FALSE(resumes(server, unkept));
  }
}

TEST(TlsClient, AServerThatForgotTheSessionShakesHandsAnew) {
  TlsClientOptions options = laxOptions();
  options.host = "localhost";
  options.port = "restarted";
  for (int start = 0; start < 2; ++start) {
    ScriptedServer server(withCertificate(TestCertificates::shared().trusted), [](Peer& peer, int) { peer.send("x"); });
    EXPECT_FALSE(resumes(server, options)) << start;
  }
}

}  // namespace
}  // namespace ostrel::testing
