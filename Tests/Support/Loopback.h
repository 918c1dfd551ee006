// A listening TCP socket of a test's own: on 127.0.0.1, on a port that the kernel picks.
#pragma once

#include <sys/socket.h>

#include <stdexcept>

#include "Platform/Socket.h"

namespace ostrel::testing {

class LoopbackListener {
 public:
  explicit LoopbackListener(int backlog = 16) : socket_(openStreamSocket(AF_INET)) {
    const SocketAddress any = *SocketAddress::ipv4("127.0.0.1");
    sockaddr_storage bound{};
    socklen_t length = sizeof bound;
    if (bind(socket_.get(), any.get(), any.length()) != 0 || listen(socket_.get(), backlog) != 0 ||
        getsockname(socket_.get(), reinterpret_cast<sockaddr*>(&bound), &length) != 0)
      throw std::runtime_error("cannot listen on the loopback interface");
    address_ = SocketAddress(reinterpret_cast<const sockaddr*>(&bound), length);
  }
  const SocketAddress& address() const { return address_; }
  int port() const { return address_.port(); }
  int descriptor() const { return socket_.get(); }
  /// Waits for a client and takes its connection.
  FileDescriptor accept() const { return FileDescriptor(::accept(socket_.get(), nullptr, nullptr)); }
  void close() { socket_.reset(); }

 private:
  FileDescriptor socket_;
  SocketAddress address_;
};

}  // namespace ostrel::testing
