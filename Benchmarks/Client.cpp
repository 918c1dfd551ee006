// Exchanges of a client session, each on a connection of its own, beside bare loops over a socket and over OpenSSL that
// send the same bytes to the same server. The contenders take turns exchange by exchange, so that whatever else the
// machine does meets them alike, and the medians of their times are compared.
#include <openssl/ssl.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <memory>
#include <random>
#include <stdexcept>
#include <string>
#include <vector>

#include "ClientSession/OstrelDaemonSession.h"
#include "ClientSession/ScriptedServer.h"
#include "ClientSession/TestCertificate.h"
#include "Containers/PropertyList.h"
#include "Platform/NameResolver.h"
#include "Platform/Socket.h"

using namespace ostrel;
using ostrel::testing::Peer;
using ostrel::testing::ScriptedServer;
using ostrel::testing::TestCertificate;

namespace {

constexpr std::size_t plainRounds = 12000;
constexpr std::size_t tlsRounds = 1200;

PlistValue request() { return PlistValue::dictionaryOf({{"command", "getState"}, {"variant", "withDetails"}}); }

std::string reply() {
  const PlistValue state = PlistValue::dictionaryOf({{"state", "RUNNING"},
                                                     {"startedTime", "2011-08-15 16:08:25 +0000"},
                                                     {"connections", 17},
                                                     {"command", "getState"}});
  const std::string body = writeXmlPropertyList(state).value();
  return "HTTP/1.0 200 OK\r\nContent-Type: text/xml\r\nOstrelSessionID: operator@4F2A\r\nContent-Length: " +
         std::to_string(body.size()) + "\r\n\r\n" + body;
}

/// Leads every name to one address, so that the session finds the server behind port 311 too.
class OneAddress final : public NameResolver {
 public:
  Resolution resolve(const std::string&, const std::string&, AddressFamily) override { return {0, 0, {address}}; }
  std::optional<HostAndService> nameOf(const SocketAddress&, NameForm) override { return std::nullopt; }
  SocketAddress address;
};

void require(bool succeeded, const char* what) {
  if (!succeeded) throw std::runtime_error(what);
}

// The peers.

FileDescriptor connectTo(const SocketAddress& address) {
  FileDescriptor socket = openStreamSocket(AF_INET);
  require(connectSocket(socket.get(), address) && setNoDelay(socket.get()), "a peer cannot connect");
  return socket;
}

void bareExchange(const SocketAddress& address, const std::string& request) {
  const FileDescriptor socket = connectTo(address);
  require(sendSome(socket.get(), request.data(), request.size()) == static_cast<ssize_t>(request.size()), "no write");
  char buffer[8192];
  std::string received;
  ssize_t count = 0;
  while ((count = receiveSome(socket.get(), buffer, sizeof buffer)) > 0)
    received.append(buffer, static_cast<std::size_t>(count));
  require(received.starts_with("HTTP/1.0 200"), "a peer got no reply");
}

/// What a client does that uses OpenSSL and nothing else.
class BareTls {
 public:
  explicit BareTls(bool resumes) : resumes_(resumes), context_(SSL_CTX_new(TLS_client_method()), SSL_CTX_free) {
    SSL_CTX_set_session_cache_mode(context_.get(), SSL_SESS_CACHE_CLIENT | SSL_SESS_CACHE_NO_INTERNAL);
  }

  void exchange(const SocketAddress& address, const std::string& request) {
    const FileDescriptor socket = connectTo(address);
    const std::unique_ptr<SSL, decltype(&SSL_free)> tls(SSL_new(context_.get()), SSL_free);
    SSL_set_fd(tls.get(), socket.get());
    SSL_set_tlsext_host_name(tls.get(), "localhost");
    if (session_ != nullptr) SSL_set_session(tls.get(), session_.get());
    require(SSL_connect(tls.get()) == 1, "a peer's handshake failed");
    require(SSL_write(tls.get(), request.data(), static_cast<int>(request.size())) > 0, "no write");
    char buffer[8192];
    std::string received;
    int count = 0;
    while ((count = SSL_read(tls.get(), buffer, sizeof buffer)) > 0)
      received.append(buffer, static_cast<std::size_t>(count));
    SSL_shutdown(tls.get());
    require(received.starts_with("HTTP/1.0 200"), "a peer got no reply");
    if (resumes_) session_.reset(SSL_get1_session(tls.get()));
  }

 private:
  const bool resumes_;
  std::unique_ptr<SSL_CTX, decltype(&SSL_CTX_free)> context_;
  std::unique_ptr<SSL_SESSION, decltype(&SSL_SESSION_free)> session_{nullptr, SSL_SESSION_free};
};

// Measuring.

struct Contender {
  std::function<void()> exchange;
  std::vector<double> seconds;  // of each exchange

  /// Exchanges a second, by the median time of one.
  double rate() const {
    std::vector<double> sorted = seconds;
    std::ranges::sort(sorted);
    return 1 / sorted[sorted.size() / 2];
  }
};

double timeOf(const std::function<void()>& exchange) {
  const auto start = std::chrono::steady_clock::now();
  exchange();
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

void measure(std::vector<Contender>& contenders, std::size_t rounds) {
  for (Contender& contender : contenders) contender.exchange();
  std::vector<Contender*> order;
  for (Contender& contender : contenders) order.push_back(&contender);
  std::mt19937 random(311);
  for (std::size_t round = 0; round < rounds; ++round) {
    // Who finds caches and a server thread that the one before warmed is left to chance.
    std::ranges::shuffle(order, random);
    for (Contender* next : order) next->seconds.push_back(timeOf(next->exchange));
  }
}

bool met = true;

void printRow(const char* name, const Contender& ours, const Contender& peer, double goal) {
  const double ratio = ours.rate() / peer.rate();
  met = met && ratio >= goal;
  std::printf("| %-42s | %9.0f | %9.0f | %6.2f | %5.2f |%s\n", name, ours.rate(), peer.rate(), ratio, goal,
              ratio >= goal ? "" : " MISSED");
}

std::shared_ptr<OstrelDaemonSession> sessionWith(const std::string& host, const std::string& port) {
  auto session = OstrelDaemonSession::init();
  session->setHost(host);
  session->setPort(port);
  session->_setSessionID("operator@4F2A");
  return session;
}

/// A dictionary goes out and a dictionary comes back.
std::function<void()> sessionExchange(const std::string& host, const std::string& port) {
  return [session = sessionWith(host, port)] {
    require(session->sendSyncRequest(request()).get("state").stringValue() == "RUNNING", "no reply");
  };
}

/// Bytes go out and bytes come back: the transport without the property lists.
std::function<void()> rawSessionExchange(const std::string& host, const std::string& port) {
  const PlistValue bytes = PlistData{writeXmlPropertyList(request()).value()};
  return [session = sessionWith(host, port), bytes] {
    require(!session->sendSyncRequest(bytes, {}, rawPayload).dataBytes().empty(), "no reply");
  };
}

/// The bytes that the session sends.
std::string requestBytes(const std::string& host, const std::string& port) {
  const std::string body = OstrelDaemonSession::encodeRequest(request());
  return "POST /commands/ostrel_sample HTTP/1.0\r\nHost: " + host + ":" + port +
         "\r\nOstrelSessionID: operator@4F2A\r\nHTTP_USER_AGENT: Plexnet-OstrelDaemonSession\r\nContent-Length: " +
         std::to_string(body.size()) + "\r\n\r\n" + body;
}

void comparePlain() {
  ScriptedServer::Options options;
  options.sequential = true;
  ScriptedServer server(options, ScriptedServer::answering(reply()));
  const auto address = *SocketAddress::ipv4("127.0.0.1", server.port());
  const std::string port = std::to_string(server.port());
  const std::string bytes = requestBytes("127.0.0.1", port);
  std::vector<Contender> contenders = {{rawSessionExchange("127.0.0.1", port), {}},
                                       {sessionExchange("127.0.0.1", port), {}},
                                       {[&] { bareExchange(address, bytes); }, {}}};
  measure(contenders, plainRounds);
  printRow("clear text, bytes: session, socket loop", contenders[0], contenders[2], 0.95);
  printRow("clear text, dictionaries: session, loop", contenders[1], contenders[2], 0.95);
}

void compareTls(const std::string& name, const TestCertificate& certificate, int version) {
  ScriptedServer::Options options;
  options.sequential = true;
  options.certificate = &certificate;
  options.newestTlsVersion = version;
  ScriptedServer resuming(options, ScriptedServer::answering(reply()));
  options.resumable = false;
  ScriptedServer forgetting(options, ScriptedServer::answering(reply()));
  const auto resumingAddress = *SocketAddress::ipv4("127.0.0.1", resuming.port());
  const auto forgettingAddress = *SocketAddress::ipv4("127.0.0.1", forgetting.port());

  OneAddress resolver;
  const ScopedOverride<NameResolver> redirect(resolver);
  const auto led = [&resolver](const SocketAddress& address, std::function<void()> exchange) {
    return [&resolver, address, exchange = std::move(exchange)] {
      resolver.address = address;
      exchange();
    };
  };
  const std::string bytes = requestBytes("resumed.example", "311");
  BareTls bareFull(false);
  BareTls bareResumed(true);
  const std::string key = std::to_string(resuming.port());
  std::vector<Contender> contenders = {{led(forgettingAddress, sessionExchange("f" + key + ".example", "311")), {}},
                                       {[&] { bareFull.exchange(forgettingAddress, bytes); }, {}},
                                       {led(resumingAddress, sessionExchange("r" + key + ".example", "311")), {}},
                                       {[&] { bareResumed.exchange(resumingAddress, bytes); }, {}}};
  measure(contenders, tlsRounds);
  require(forgetting.resumed() == 0 && resuming.resumed() == resuming.connections() - 2, "not the right handshakes");
  printRow((name + " full: session, OpenSSL loop").c_str(), contenders[0], contenders[1], 0.95);
  printRow((name + " resumed: session, OpenSSL loop").c_str(), contenders[2], contenders[3], 0.95);
  printRow((name + " session: resumed, full").c_str(), contenders[2], contenders[0], 3);
}

}  // namespace

int main() try {
  std::printf("| exchange: contender, peer                  |  ours 1/s |  peer 1/s |  ratio |  goal |\n");
  std::printf("|--------------------------------------------|-----------|-----------|--------|-------|\n");
  comparePlain();
  const std::string names = "DNS:localhost";
  const TestCertificate p256(names);
  const TestCertificate rsa(names, TestCertificate::Validity::current, TestCertificate::Kind::rsa2048);
  compareTls("TLS 1.3 P-256", p256, TLS1_3_VERSION);
  compareTls("TLS 1.3 RSA", rsa, TLS1_3_VERSION);
  compareTls("TLS 1.2 P-256", p256, TLS1_2_VERSION);
  compareTls("TLS 1.2 RSA", rsa, TLS1_2_VERSION);
  return met ? EXIT_SUCCESS : EXIT_FAILURE;
} catch (const std::exception& error) {
  std::fprintf(stderr, "%s\n", error.what());
  return EXIT_FAILURE;
}
