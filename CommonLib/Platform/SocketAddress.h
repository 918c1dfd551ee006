// A socket address as a value: what name resolution and interface enumeration hand out, and what connect(2) takes.
#pragma once

#include <sys/socket.h>

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "Containers/Export.h"

namespace ostrel {

/// Any socket address, copied in whole. Default-constructed it is of family AF_UNSPEC and of length 0.
///
/// Threads: a plain value.
class OSTREL_EXPORT SocketAddress {
 public:
  SocketAddress() = default;
  /// Copies `length` bytes of `address`. A null pointer, or a length that no socket address has, gives the default
  /// value.
  SocketAddress(const sockaddr* address, socklen_t length) noexcept;

  /// The IPv4 or IPv6 address that `text` spells in its standard presentation form (inet_pton(3)), with `port` in host
  /// order; absent for any other text, one that holds a NUL included.
  static std::optional<SocketAddress> ipv4(std::string_view text, std::uint16_t port = 0);
  static std::optional<SocketAddress> ipv6(std::string_view text, std::uint16_t port = 0);

  const sockaddr* get() const noexcept { return reinterpret_cast<const sockaddr*>(&storage_); }  // NOLINT
  socklen_t length() const noexcept { return length_; }
  int family() const noexcept { return storage_.ss_family; }
  bool isIPv4() const noexcept { return storage_.ss_family == AF_INET; }
  bool isIPv6() const noexcept { return storage_.ss_family == AF_INET6; }
  /// An IPv6 address of fe80::/10.
  bool isIPv6LinkLocal() const noexcept;

  /// The port in host order; 0 for families without one.
  std::uint16_t port() const noexcept;
  /// Sets the port of an IPv4 or IPv6 address; nothing happens for another family.
  void setPort(std::uint16_t port) noexcept;
  /// The address in numeric form without the port, an IPv6 scope included ("fe80::1%eth0"); "" when it cannot be
  /// rendered. Never looks anything up.
  std::string numericHost() const;
  /// True when both are IPv4, or both IPv6, and name the same host: port, flow and scope are left out. An IPv4 address
  /// and its IPv4-mapped IPv6 form are the same host.
  bool isSameHost(const SocketAddress& other) const noexcept;

 private:
  sockaddr_storage storage_{};
  socklen_t length_ = 0;
};

}  // namespace ostrel
