// A server on loopback that plays a script on every connection, in clear text or over TLS.
#pragma once

#include <openssl/ssl.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "Platform/FileDescriptor.h"
#include "Platform/Mutex.h"

namespace ostrel::testing {

class TestCertificate;

/// The server's end of one connection.
class Peer {
 public:
  Peer(FileDescriptor socket, SSL* tls) : socket_(std::move(socket)), tls_(tls) {}
  ~Peer() { SSL_free(tls_); }
  Peer(const Peer&) = delete;
  Peer& operator=(const Peer&) = delete;

  /// A whole request: its head and as much body as it announces. What came when the client went away earlier.
  std::string readRequest();
  /// On TLS one record, when it is not above 16 KiB.
  void send(std::string_view bytes);
  /// Ends the connection as a server should (TLS's notice, then the stream's end) and waits for the client's end.
  void finish();
  /// Ends the stream without TLS's notice.
  void breakOff();
  /// Resets the connection: the client's next call fails.
  void reset();
  /// Reads until the client closes.
  void waitForClose();

  bool wasResumed() const { return tls_ != nullptr && SSL_session_reused(tls_) != 0; }

 private:
  long receive(char* buffer, std::size_t size);

  FileDescriptor socket_;
  SSL* tls_;
  bool ended_ = false;
};

class ScriptedServer {
 public:
  /// Called for every connection, the first one being number 1, on a thread of its own. TLS has shaken hands already;
  /// a connection whose handshake fails is counted and closed. After the script the connection is finished.
  using Script = std::function<void(Peer&, int number)>;
  struct Options {
    const TestCertificate* certificate = nullptr;  ///< with one: TLS
    int newestTlsVersion = TLS1_3_VERSION;
    bool onIPv6 = false;
    bool resumable = true;    ///< hands TLS sessions out
    bool sequential = false;  ///< one connection after another on one thread
  };

  ScriptedServer(Options options, Script script);
  ~ScriptedServer();
  ScriptedServer(const ScriptedServer&) = delete;
  ScriptedServer& operator=(const ScriptedServer&) = delete;

  /// False when this host has no such loopback address.
  bool isListening() const { return static_cast<bool>(listener_); }
  std::uint16_t port() const { return port_; }
  /// Connections accepted so far, and those of them that resumed a TLS session.
  int connections();
  int resumed();

  /// A script that reads one request and answers it.
  static Script answering(std::string reply);

 private:
  void acceptLoop();
  void serve(FileDescriptor socket, int number);

  const Options options_;
  const Script script_;
  std::unique_ptr<SSL_CTX, decltype(&SSL_CTX_free)> context_{nullptr, SSL_CTX_free};
  FileDescriptor listener_;
  std::uint16_t port_ = 0;
  Mutex mutex_;
  int connections_ OSTREL_GUARDED_BY(mutex_) = 0;
  int resumed_ OSTREL_GUARDED_BY(mutex_) = 0;
  std::vector<std::thread> threads_;  // of the accepting thread, until it is joined
  std::thread acceptor_;
};

}  // namespace ostrel::testing
