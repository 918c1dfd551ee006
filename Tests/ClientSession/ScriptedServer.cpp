#include "ClientSession/ScriptedServer.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>

#include <algorithm>
#include <stdexcept>
#include <utility>

#include "ClientSession/TestCertificate.h"
#include "Platform/Socket.h"

namespace ostrel::testing {

long Peer::receive(char* buffer, std::size_t size) {
  if (tls_ == nullptr) return receiveSome(socket_.get(), buffer, size);
  return SSL_read(tls_, buffer, static_cast<int>(size));
}

std::string Peer::readRequest() {
  std::string request;
  std::size_t wanted = std::string::npos;
  char buffer[16384];
  while (request.size() < wanted) {
    const long count = receive(buffer, sizeof buffer);
    if (count <= 0) break;
    request.append(buffer, static_cast<std::size_t>(count));
    const std::size_t blank = request.find("\r\n\r\n");
    if (wanted != std::string::npos || blank == std::string::npos) continue;
    const std::size_t length = request.find("Content-Length: ");
    wanted = blank + 4 + (length < blank ? std::stoul(request.substr(length + 16)) : 0);
  }
  return request;
}

void Peer::send(std::string_view bytes) {
  while (!bytes.empty()) {
    const long count = tls_ != nullptr ? SSL_write(tls_, bytes.data(), static_cast<int>(bytes.size()))
                                       : sendSome(socket_.get(), bytes.data(), bytes.size());
    if (count <= 0) return;  // the client is gone
    bytes.remove_prefix(static_cast<std::size_t>(count));
  }
}

void Peer::finish() {
  if (ended_) return;
  if (tls_ != nullptr) SSL_shutdown(tls_);
  breakOff();
  waitForClose();
}

void Peer::breakOff() {
  ended_ = true;
  shutdown(socket_.get(), SHUT_WR);
}

void Peer::reset() {
  ended_ = true;
  const linger atOnce{1, 0};
  setsockopt(socket_.get(), SOL_SOCKET, SO_LINGER, &atOnce, sizeof atOnce);
  socket_.reset();
}

void Peer::waitForClose() {
  char buffer[4096];
  while (receiveSome(socket_.get(), buffer, sizeof buffer) > 0) {
  }
}

namespace {

SSL_CTX* makeServerContext(const ScriptedServer::Options& options) {
  SSL_CTX* context = SSL_CTX_new(TLS_server_method());
  constexpr unsigned char name[] = "scripted";
  if (context == nullptr || SSL_CTX_use_certificate(context, options.certificate->certificate()) != 1 ||
      SSL_CTX_use_PrivateKey(context, options.certificate->key()) != 1 ||
      SSL_CTX_set_max_proto_version(context, options.newestTlsVersion) != 1 ||
      SSL_CTX_set_session_id_context(context, name, sizeof name) != 1)
    throw std::runtime_error("cannot make a TLS server");
  if (!options.resumable) {
    SSL_CTX_set_session_cache_mode(context, SSL_SESS_CACHE_OFF);
    SSL_CTX_set_options(context, SSL_OP_NO_TICKET);
    SSL_CTX_set_num_tickets(context, 0);
  }
  return context;
}

FileDescriptor listenOn(const SocketAddress& address) {
  FileDescriptor listener = openStreamSocket(address.family());
  if (!listener || bind(listener.get(), address.get(), address.length()) != 0 || listen(listener.get(), 128) != 0)
    return {};
  return listener;
}

std::uint16_t portOf(int listener) {
  sockaddr_storage storage{};
  socklen_t length = sizeof storage;
  getsockname(listener, reinterpret_cast<sockaddr*>(&storage), &length);
  return SocketAddress(reinterpret_cast<sockaddr*>(&storage), length).port();
}

}  // namespace

ScriptedServer::ScriptedServer(Options options, Script script) : options_(options), script_(std::move(script)) {
  if (options_.certificate != nullptr) context_.reset(makeServerContext(options_));
  listener_ = listenOn(options_.onIPv6 ? *SocketAddress::ipv6("::1") : *SocketAddress::ipv4("127.0.0.1"));
  if (!listener_) return;
  port_ = portOf(listener_.get());
  acceptor_ = std::thread([this] { acceptLoop(); });
}

ScriptedServer::~ScriptedServer() {
  if (!listener_) return;
  shutdown(listener_.get(), SHUT_RDWR);  // ends accept(2)
  acceptor_.join();
  for (std::thread& thread : threads_) thread.join();
}

int ScriptedServer::connections() {
  const MutexLock lock(mutex_);
  return connections_;
}

int ScriptedServer::resumed() {
  const MutexLock lock(mutex_);
  return resumed_;
}

ScriptedServer::Script ScriptedServer::answering(std::string reply) {
  return [reply = std::move(reply)](Peer& peer, int) {
    peer.readRequest();
    peer.send(reply);
  };
}

void ScriptedServer::acceptLoop() {
  // SIGPIPE stays deadly for the client's threads; here a client that went away is nothing special.
  sigset_t pipe;
  sigemptyset(&pipe);
  sigaddset(&pipe, SIGPIPE);
  pthread_sigmask(SIG_BLOCK, &pipe, nullptr);
  while (true) {
    FileDescriptor socket(accept4(listener_.get(), nullptr, nullptr, SOCK_CLOEXEC));
    if (!socket) return;
    setNoDelay(socket.get());
    int number = 0;
    {
      const MutexLock lock(mutex_);
      number = ++connections_;
    }
    if (options_.sequential) {
      serve(std::move(socket), number);
    } else {
      threads_.emplace_back([this, number, held = std::make_shared<FileDescriptor>(std::move(socket))] {
        serve(std::move(*held), number);
      });
    }
  }
}

void ScriptedServer::serve(FileDescriptor socket, int number) {
  SSL* tls = nullptr;
  const int descriptor = socket.get();
  if (context_ != nullptr) {
    tls = SSL_new(context_.get());
    SSL_set_fd(tls, descriptor);
  }
  Peer peer(std::move(socket), tls);
  if (tls != nullptr && SSL_accept(tls) != 1) return;
  if (peer.wasResumed()) {
    const MutexLock lock(mutex_);
    ++resumed_;
  }
  script_(peer, number);
  peer.finish();
}

}  // namespace ostrel::testing
