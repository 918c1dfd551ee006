// The bytes below a connection of libldap: a socket on which no wait outlasts a deadline.
#pragma once

#include <lber.h>

#include <array>
#include <chrono>
#include <cstddef>
#include <memory>
#include <string>
#include <vector>

#include "Platform/FileDescriptor.h"

namespace ostrel::detail {

/// libldap bounds neither a TLS handshake nor the rest of a message that began to arrive, and its writes may raise
/// SIGPIPE. So it reads and writes through this.
/// Threads: one at a time.
class LdapSocket {
 public:
  using TimePoint = std::chrono::steady_clock::time_point;

  /// Connects to the first address of a host that accepts. Null when none did until the deadline; `fault` says why.
  static std::unique_ptr<LdapSocket> connect(const std::string& host, std::uint16_t port, TimePoint deadline,
                                             std::string& fault);

  int descriptor() const { return socket_.get(); }
  /// What follows must be over by then and may bring so many bytes.
  void allow(TimePoint deadline, std::size_t bytes);
  bool timedOut() const { return timedOut_; }
  /// Whether something came that nobody asked for: the end of the stream, or a notice of it.
  bool hasUnexpectedInput() const;
  /// Nothing is sent any more: for a connection that is no longer trusted, or another process's.
  void stop() { stopped_ = true; }

  /// The operations to be pushed under a connection (ber_sockbuf_add_io(3)), with the socket as argument.
  static Sockbuf_IO* operations();

 private:
  explicit LdapSocket(FileDescriptor socket) : socket_(std::move(socket)) {}

  bool waitFor(short events);
  ber_slen_t read(void* buffer, ber_len_t size);
  ber_slen_t write(const void* bytes, ber_len_t size);
  bool refill();

  static int setUp(Sockbuf_IO_Desc* layer, void* socket);
  static int remove(Sockbuf_IO_Desc* layer);
  static int control(Sockbuf_IO_Desc* layer, int option, void* argument);
  static ber_slen_t readLayer(Sockbuf_IO_Desc* layer, void* buffer, ber_len_t size);
  static ber_slen_t writeLayer(Sockbuf_IO_Desc* layer, void* bytes, ber_len_t size);

  FileDescriptor socket_;
  TimePoint deadline_{};
  std::size_t bytesLeft_ = 0;
  bool timedOut_ = false;
  bool stopped_ = false;
  std::array<char, 65536> ahead_{};
  std::size_t aheadAt_ = 0;
  std::size_t aheadEnd_ = 0;
};

}  // namespace ostrel::detail
