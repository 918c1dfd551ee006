#include "Platform/SocketAddress.h"

#include <arpa/inet.h>
#include <netdb.h>
#include <netinet/in.h>

#include <cstring>

namespace ostrel {
namespace {

template <class Address>
Address as(const SocketAddress& from) {
  Address address{};
  std::memcpy(&address, from.get(), sizeof address);
  return address;
}

// The 16 bytes by which two addresses are compared: an IPv4 address in its IPv4-mapped form.
std::optional<in6_addr> comparable(const SocketAddress& address) {
  if (address.isIPv6()) return as<sockaddr_in6>(address).sin6_addr;
  if (!address.isIPv4()) return std::nullopt;
  in6_addr mapped{};
  mapped.s6_addr[10] = mapped.s6_addr[11] = 0xFF;
  const in_addr plain = as<sockaddr_in>(address).sin_addr;
  std::memcpy(&mapped.s6_addr[12], &plain, sizeof plain);
  return mapped;
}

bool holdsNul(std::string_view text) { return text.find('\0') != std::string_view::npos; }

}  // namespace

SocketAddress::SocketAddress(const sockaddr* address, socklen_t length) noexcept {
  if (address == nullptr || length < sizeof address->sa_family || length > sizeof storage_) return;
  std::memcpy(&storage_, address, length);
  length_ = length;
}

std::optional<SocketAddress> SocketAddress::ipv4(std::string_view text, std::uint16_t port) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(port);
  if (holdsNul(text) || inet_pton(AF_INET, std::string(text).c_str(), &address.sin_addr) != 1) return std::nullopt;
  return SocketAddress(reinterpret_cast<const sockaddr*>(&address), sizeof address);  // NOLINT
}

std::optional<SocketAddress> SocketAddress::ipv6(std::string_view text, std::uint16_t port) {
  sockaddr_in6 address{};
  address.sin6_family = AF_INET6;
  address.sin6_port = htons(port);
  if (holdsNul(text) || inet_pton(AF_INET6, std::string(text).c_str(), &address.sin6_addr) != 1) return std::nullopt;
  return SocketAddress(reinterpret_cast<const sockaddr*>(&address), sizeof address);  // NOLINT
}

bool SocketAddress::isIPv6LinkLocal() const noexcept {
  if (!isIPv6()) return false;
  const auto bytes = as<sockaddr_in6>(*this).sin6_addr;
  return bytes.s6_addr[0] == 0xFE && (bytes.s6_addr[1] & 0xC0) == 0x80;
}

std::uint16_t SocketAddress::port() const noexcept {
  if (isIPv4()) return ntohs(as<sockaddr_in>(*this).sin_port);
  if (isIPv6()) return ntohs(as<sockaddr_in6>(*this).sin6_port);
  return 0;
}

void SocketAddress::setPort(std::uint16_t port) noexcept {
  // Both families keep the port at the same place.
  static_assert(offsetof(sockaddr_in, sin_port) == offsetof(sockaddr_in6, sin6_port));
  if (!isIPv4() && !isIPv6()) return;
  const in_port_t ordered = htons(port);
  std::memcpy(reinterpret_cast<char*>(&storage_) + offsetof(sockaddr_in, sin_port), &ordered,
              sizeof ordered);  // NOLINT
}

std::string SocketAddress::numericHost() const {
  char host[NI_MAXHOST];
  if (length_ == 0 || getnameinfo(get(), length_, host, sizeof host, nullptr, 0, NI_NUMERICHOST) != 0) return {};
  return host;
}

bool SocketAddress::isSameHost(const SocketAddress& other) const noexcept {
  const auto left = comparable(*this);
  const auto right = comparable(other);
  return left && right && std::memcmp(&*left, &*right, sizeof *left) == 0;
}

}  // namespace ostrel
