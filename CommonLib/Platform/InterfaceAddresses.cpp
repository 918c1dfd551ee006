#include "Platform/InterfaceAddresses.h"

#include <ifaddrs.h>
#include <linux/if_packet.h>
#include <net/if.h>
#include <net/if_arp.h>
#include <netinet/in.h>

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <memory>

#include "Containers/Format.h"

namespace ostrel {
namespace {

constexpr std::size_t linkLayerHead = offsetof(sockaddr_ll, sll_addr);

// The bytes of a link-layer address may reach beyond the structure: InfiniBand has 20 of them.
socklen_t linkLayerLength(const sockaddr* address) {
  const auto size = reinterpret_cast<const sockaddr_ll*>(address)->sll_halen;  // NOLINT: as the family says
  return static_cast<socklen_t>(std::max(sizeof(sockaddr_ll), linkLayerHead + size));
}

socklen_t lengthOf(const sockaddr* address) {
  switch (address->sa_family) {
    case AF_INET:
      return sizeof(sockaddr_in);
    case AF_INET6:
      return sizeof(sockaddr_in6);
    case AF_PACKET:
      return linkLayerLength(address);
    default:
      return sizeof(sockaddr);
  }
}

SocketAddress copied(const sockaddr* address) {
  return address == nullptr ? SocketAddress() : SocketAddress(address, lengthOf(address));
}

// An IPv4 address may have a label (ip-address(8)), which getifaddrs gives in the place of the interface's name. No
// interface has a ":" in its name.
std::string interfaceOf(const char* label) {
  const std::string_view text = label == nullptr ? "" : label;
  return std::string(text.substr(0, text.find(':')));
}

// getifaddrs gives an interface without a link-layer address no address at all.
SocketAddress emptyLinkLayerAddress(const std::string& interface) {
  sockaddr_ll empty{};
  empty.sll_family = AF_PACKET;
  empty.sll_ifindex = static_cast<int>(if_nametoindex(interface.c_str()));
  return {reinterpret_cast<const sockaddr*>(&empty), sizeof empty};  // NOLINT: how socket addresses are passed
}

class HostInterfaceAddresses final : public InterfaceAddresses {
 public:
  std::vector<InterfaceAddress> list() override {
    ifaddrs* found = nullptr;
    if (getifaddrs(&found) != 0) return {};
    const std::unique_ptr<ifaddrs, decltype(&freeifaddrs)> owned(found, &freeifaddrs);
    std::vector<InterfaceAddress> addresses;
    for (const ifaddrs* entry = found; entry != nullptr; entry = entry->ifa_next) {
      const std::string name = interfaceOf(entry->ifa_name);
      addresses.push_back({name, entry->ifa_addr == nullptr ? emptyLinkLayerAddress(name) : copied(entry->ifa_addr),
                           copied(entry->ifa_netmask), entry->ifa_flags});
    }
    return addresses;
  }
};

}  // namespace

std::string linkLayerText(const InterfaceAddress& entry) {
  std::string text = entry.name;
  sockaddr_ll head{};
  if (entry.address.family() != AF_PACKET || entry.address.length() < linkLayerHead) return text;
  std::memcpy(&head, entry.address.get(), linkLayerHead);
  if (head.sll_hatype == ARPHRD_LOOPBACK) return text;
  const auto* bytes = reinterpret_cast<const unsigned char*>(entry.address.get()) + linkLayerHead;  // NOLINT: its bytes
  const std::size_t size = std::min<std::size_t>(head.sll_halen, entry.address.length() - linkLayerHead);
  for (std::size_t at = 0; at < size; ++at) text += format("%s%x", at == 0 ? ":" : ".", bytes[at]);
  return text;
}

std::atomic<InterfaceAddresses*>& InterfaceAddresses::slot() {
  static std::atomic<InterfaceAddresses*> slot{
      new HostInterfaceAddresses};  // kept: other threads may use it while the process exits
  return slot;
}

}  // namespace ostrel
