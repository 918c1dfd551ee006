#include "Platform/InterfaceAddresses.h"

#include <ifaddrs.h>
#include <linux/if_packet.h>
#include <netinet/in.h>

#include <memory>

namespace ostrel {
namespace {

socklen_t lengthOf(int family) {
  switch (family) {
    case AF_INET:
      return sizeof(sockaddr_in);
    case AF_INET6:
      return sizeof(sockaddr_in6);
    case AF_PACKET:
      return sizeof(sockaddr_ll);
    default:
      return sizeof(sockaddr);
  }
}

SocketAddress copied(const sockaddr* address) {
  return address == nullptr ? SocketAddress() : SocketAddress(address, lengthOf(address->sa_family));
}

class HostInterfaceAddresses final : public InterfaceAddresses {
 public:
  std::vector<InterfaceAddress> list() override {
    ifaddrs* found = nullptr;
    if (getifaddrs(&found) != 0) return {};
    const std::unique_ptr<ifaddrs, decltype(&freeifaddrs)> owned(found, &freeifaddrs);
    std::vector<InterfaceAddress> addresses;
    for (const ifaddrs* entry = found; entry != nullptr; entry = entry->ifa_next) {
      addresses.push_back({entry->ifa_name == nullptr ? "" : entry->ifa_name, copied(entry->ifa_addr),
                           copied(entry->ifa_netmask), entry->ifa_flags});
    }
    return addresses;
  }
};

}  // namespace

std::atomic<InterfaceAddresses*>& InterfaceAddresses::slot() {
  static std::atomic<InterfaceAddresses*> slot{
      new HostInterfaceAddresses};  // kept: other threads may use it while the process exits
  return slot;
}

}  // namespace ostrel
