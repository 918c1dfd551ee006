// Fakes of the services that tell of the machine's network.
#pragma once

#include <linux/if_packet.h>
#include <net/if_arp.h>
#include <netdb.h>

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <map>
#include <memory>
#include <set>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "Platform/InterfaceAddresses.h"
#include "Platform/NameResolver.h"
#include "Platform/NetworkConfiguration.h"

namespace ostrel::testing {

inline SocketAddress addressOf(const std::string& text) {
  if (const auto ipv4 = SocketAddress::ipv4(text)) return *ipv4;
  return SocketAddress::ipv6(text).value_or(SocketAddress());
}

/// Interfaces as a test lists them.
class FakeInterfaces final : public InterfaceAddresses {
 public:
  /// A netmask of "" is none.
  FakeInterfaces& add(const std::string& name, const std::string& address, const std::string& netmask = "") {
    entries_.push_back({name, addressOf(address), addressOf(netmask), 0});
    return *this;
  }
  FakeInterfaces& addWithoutAddress(const std::string& name) {
    entries_.push_back({name, {}, {}, 0});
    return *this;
  }
  /// A link-layer entry; `kind` is of ARPHRD_...
  FakeInterfaces& addLink(const std::string& name, const std::vector<unsigned char>& bytes,
                          unsigned short kind = ARPHRD_ETHER) {
    alignas(sockaddr_ll) unsigned char storage[sizeof(sockaddr_storage)] = {};
    sockaddr_ll head{};
    head.sll_family = AF_PACKET;
    head.sll_hatype = kind;
    head.sll_halen = static_cast<unsigned char>(bytes.size());
    std::memcpy(storage, &head, sizeof head);
    const std::size_t room = sizeof storage - offsetof(sockaddr_ll, sll_addr);
    std::copy_n(bytes.begin(), std::min(bytes.size(), room), storage + offsetof(sockaddr_ll, sll_addr));
    entries_.push_back({name, {reinterpret_cast<const sockaddr*>(storage), sizeof storage}, {}, 0});
    return *this;
  }
  std::vector<InterfaceAddress> list() override { return entries_; }

 private:
  std::vector<InterfaceAddress> entries_;
};

/// Knows the hosts and names that a test gives it; numeric forms are always known.
class FakeResolver final : public NameResolver {
 public:
  std::map<std::string, std::vector<std::string>> hosts;  ///< name to addresses, in the resolver's order
  std::map<std::string, HostAndService> names;            ///< numeric address to what a reverse lookup finds
  std::set<std::string> raising;                          ///< hosts whose lookup throws
  std::set<std::string> unrenderable;                     ///< numeric addresses that cannot be rendered
  std::set<std::string> garbled;                          ///< numeric addresses that render as no UTF-8
  int lookups = 0;                                        ///< questions beyond numeric ones

  Resolution resolve(const std::string& host, const std::string& service, AddressFamily family) override {
    ++lookups;
    if (raising.contains(host)) throw std::runtime_error("lookup of " + host);
    Resolution outcome;
    std::vector<std::string> texts{host};
    if (const auto found = hosts.find(host); found != hosts.end()) texts = found->second;
    for (const std::string& text : texts) {
      SocketAddress address = addressOf(text);
      if (address.length() == 0) continue;
      if ((family == AddressFamily::ipv4 && !address.isIPv4()) || (family == AddressFamily::ipv6 && !address.isIPv6()))
        continue;
      if (!service.empty()) address.setPort(static_cast<std::uint16_t>(std::stoi(service)));
      outcome.addresses.push_back(address);
    }
    if (outcome.addresses.empty()) outcome.error = EAI_NONAME;
    return outcome;
  }

  std::optional<HostAndService> nameOf(const SocketAddress& address, NameForm form) override {
    const std::string text = address.numericHost();
    if (form == NameForm::numeric) {
      if (text.empty() || unrenderable.contains(text)) return std::nullopt;
      return HostAndService{garbled.contains(text) ? "\xFF" : text, "0"};
    }
    ++lookups;
    const auto found = names.find(text);
    return found == names.end() ? std::nullopt : std::optional(found->second);
  }
};

/// A configuration as a test sets it; every connection reads the same.
class FakeNetworkConfiguration final : public NetworkConfiguration {
 public:
  bool opens = true;
  std::optional<std::string> hostName;
  std::optional<std::string> primaryIPv4;
  std::optional<std::string> primaryIPv6;
  std::vector<std::pair<std::string, std::string>> displayNames;  ///< devices of the configured services
  std::vector<std::pair<std::string, std::string>> types;         ///< interfaces whose type is known
  std::vector<IPv4ServiceState> services;
  std::vector<IPv4InterfaceState> states;
  std::string clientName;  ///< who opened the last connection

  std::unique_ptr<NetworkConfigurationStore> open(std::string_view client) override {
    clientName = client;
    return opens ? std::make_unique<Store>(*this) : nullptr;
  }

 private:
  class Store final : public NetworkConfigurationStore {
   public:
    explicit Store(const FakeNetworkConfiguration& of) : of_(of) {}
    std::optional<std::string> localHostName() override { return of_.hostName; }
    std::optional<std::string> primaryInterface(AddressFamily family) override {
      return family == AddressFamily::ipv4 ? of_.primaryIPv4 : of_.primaryIPv6;
    }
    std::vector<std::string> serviceDevices() override {
      std::vector<std::string> devices;
      for (const auto& [device, name] : of_.displayNames) devices.push_back(device);
      return devices;
    }
    std::optional<std::string> displayName(const std::string& device) override {
      return known(of_.displayNames, device);
    }
    std::optional<std::string> interfaceType(const std::string& device) override { return known(of_.types, device); }
    std::vector<IPv4ServiceState> ipv4Services() override { return of_.services; }
    std::vector<IPv4InterfaceState> ipv4Interfaces() override { return of_.states; }

   private:
    static std::optional<std::string> known(const std::vector<std::pair<std::string, std::string>>& table,
                                            const std::string& device) {
      for (const auto& [name, value] : table)
        if (name == device) return value;
      return std::nullopt;
    }

    const FakeNetworkConfiguration& of_;
  };
};

}  // namespace ostrel::testing
