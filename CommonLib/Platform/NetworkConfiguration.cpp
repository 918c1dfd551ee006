#include "Platform/NetworkConfiguration.h"

#include <linux/rtnetlink.h>
#include <net/if.h>
#include <net/if_arp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <map>
#include <utility>

#include "Containers/Format.h"
#include "Containers/LeadingInteger.h"
#include "Platform/Files.h"
#include "Platform/HostRoot.h"
#include "Platform/InterfaceAddresses.h"
#include "Platform/Internal/HostsFile.h"
#include "Platform/Internal/RouteMessages.h"
#include "Platform/Internal/SystemCalls.h"

namespace ostrel {
namespace {

constexpr const char* interfacesFolder = "/sys/class/net";
constexpr const char* hostsFile = "/etc/hosts";
constexpr std::size_t longestHostsFile = 16U << 20U;

// Sends a request of type RTM_GET... whose body is `Body` with its family set.
template <class Body>
bool askFor(int socket, std::uint16_t type, Body body) {
  struct {
    nlmsghdr header;
    Body body;
  } request{};
  request.header.nlmsg_len = sizeof request;
  request.header.nlmsg_type = type;
  request.header.nlmsg_flags = NLM_F_REQUEST | NLM_F_DUMP;
  request.body = body;
  return detail::retried([&] { return ::send(socket, &request, sizeof request, 0); }) == sizeof request;
}

// What the kernel answers to one request. Absent when it fails: a part could name the wrong route as the best.
template <class Scan, class Body>
std::optional<Scan> askedOnce(std::uint16_t type, Body body, void (*take)(std::string_view, Scan&)) {
  Scan scan;
  const FileDescriptor socket(::socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_ROUTE));
  if (!socket || !askFor(socket.get(), type, body)) return std::nullopt;
  std::vector<char> datagram(64U << 10U);  // twice the most that the kernel puts into one
  while (!scan.ended) {
    const ssize_t size = detail::retried([&] { return ::recv(socket.get(), datagram.data(), datagram.size(), 0); });
    if (size <= 0) return std::nullopt;
    take({datagram.data(), static_cast<std::size_t>(size)}, scan);
  }
  return scan;
}

// Asks again while the network changes under the answer, but not for ever.
template <class Scan, class Body>
Scan dumpOf(std::uint16_t type, Body body, void (*take)(std::string_view, Scan&)) {
  constexpr int mostAttempts = 5;
  std::optional<Scan> scan;
  for (int attempt = 0; attempt < mostAttempts && (!scan || scan->interrupted); ++attempt)
    scan = askedOnce<Scan>(type, body, take);
  return scan.value_or(Scan());
}

std::vector<detail::DefaultRoute> defaultRoutes(unsigned char family) {
  rtmsg body{};
  body.rtm_family = family;
  return dumpOf<detail::DefaultRouteScan>(RTM_GETROUTE, body, detail::scanRouteMessages).routes;
}

std::vector<detail::AssignedAddress> ipv4Addresses() {
  ifaddrmsg body{};
  body.ifa_family = AF_INET;
  return dumpOf<detail::AddressScan>(RTM_GETADDR, body, detail::scanAddressMessages).addresses;
}

std::optional<std::string> interfaceName(unsigned int index) {
  std::array<char, IF_NAMESIZE> name{};
  if (if_indextoname(index, name.data()) == nullptr) return std::nullopt;
  return name.data();
}

std::string dotted(std::uint32_t address) {
  return format("%u.%u.%u.%u", address >> 24U, address >> 16U & 0xFFU, address >> 8U & 0xFFU, address & 0xFFU);
}

// The flags of each interface (IFF_... of netdevice(7)).
std::map<std::string, unsigned int, std::less<>> interfaceFlags() {
  std::map<std::string, unsigned int, std::less<>> flags;
  for (const InterfaceAddress& entry : InterfaceAddresses::current().list()) flags.emplace(entry.name, entry.flags);
  return flags;
}

bool isActive(unsigned int flags) {
  constexpr unsigned int wanted = IFF_UP | IFF_RUNNING;
  return (flags & wanted) == wanted && (flags & IFF_LOOPBACK) == 0;
}

// What the kernel numbers ARPHRD_... (linux/if_arp.h), and what drivers call themselves.
std::optional<std::string> typeOf(std::string_view uevent, int number) {
  constexpr std::pair<std::string_view, const char*> kinds[] = {{"wlan", "IEEE80211"}, {"bond", "Bond"},
                                                                {"bridge", "Bridge"},  {"vlan", "VLAN"},
                                                                {"wwan", "WWAN"},      {"ppp", "PPP"}};
  constexpr int overIPv6 = 823;  // ARPHRD_IP6GRE of linux/if_arp.h, which does not go with net/if.h
  constexpr std::pair<int, const char*> numbers[] = {{ARPHRD_ETHER, "Ethernet"},    {ARPHRD_LOOPBACK, "Loopback"},
                                                     {ARPHRD_PPP, "PPP"},           {ARPHRD_INFINIBAND, "InfiniBand"},
                                                     {ARPHRD_IEEE1394, "FireWire"}, {ARPHRD_IEEE80211, "IEEE80211"},
                                                     {ARPHRD_NONE, "Tunnel"},       {ARPHRD_TUNNEL, "Tunnel"},
                                                     {ARPHRD_TUNNEL6, "Tunnel"},    {ARPHRD_SIT, "Tunnel"},
                                                     {ARPHRD_IPGRE, "Tunnel"},      {overIPv6, "Tunnel"}};
  for (const auto& [kind, name] : kinds) {
    if (uevent.find("DEVTYPE=" + std::string(kind) + "\n") != std::string_view::npos) return name;
  }
  for (const auto& [known, name] : numbers) {
    if (known == number) return name;
  }
  return std::nullopt;
}

// A name that leads to no other folder.
bool namesADevice(const std::string& device) {
  return !device.empty() && device != "." && device != ".." && device.find('/') == std::string::npos;
}

std::optional<std::string> deviceFile(const std::string& device, const char* file) {
  constexpr std::size_t longest = 4096;
  if (!namesADevice(device)) return std::nullopt;
  return readWholeFile(hostPath(interfacesFolder) + "/" + device + "/" + file, longest);
}

class HostNetworkConfigurationStore final : public NetworkConfigurationStore {
 public:
  std::optional<std::string> localHostName() override {
    std::array<char, 256> buffer{};
    if (::gethostname(buffer.data(), buffer.size() - 1) != 0) return std::nullopt;
    std::string name = buffer.data();
    name.erase(std::min(name.find('.'), name.size()));
    if (name.empty() || name == "localhost" || name == "(none)") return std::nullopt;
    return name;
  }

  std::optional<std::string> primaryInterface(AddressFamily family) override {
    if (family == AddressFamily::any) return std::nullopt;
    const auto routes = defaultRoutes(family == AddressFamily::ipv4 ? AF_INET : AF_INET6);
    const detail::DefaultRoute* best = detail::bestRoute(routes);
    return best == nullptr ? std::nullopt : interfaceName(best->interfaceIndex);
  }

  std::vector<std::string> serviceDevices() override {
    std::vector<std::string> devices;
    const auto names = listDirectory(hostPath(interfacesFolder));
    if (!names) return devices;
    // Plain files beside the interfaces ("bonding_masters") are none.
    std::ranges::copy_if(*names, std::back_inserter(devices),
                         [](const std::string& name) { return isDirectory(hostPath(interfacesFolder) + "/" + name); });
    std::ranges::sort(devices);
    return devices;
  }

  std::optional<std::string> displayName(const std::string& device) override {
    constexpr const char* whiteSpace = " \t\r\n";
    const auto alias = deviceFile(device, "ifalias");
    if (!alias) return std::nullopt;
    const std::size_t first = alias->find_first_not_of(whiteSpace);
    if (first == std::string::npos) return std::nullopt;
    return alias->substr(first, alias->find_last_not_of(whiteSpace) - first + 1);
  }

  std::optional<std::string> interfaceType(const std::string& device) override {
    const auto number = deviceFile(device, "type");
    return number ? typeOf(deviceFile(device, "uevent").value_or(""), leadingInt(*number)) : std::nullopt;
  }

  std::vector<IPv4ServiceState> ipv4Services() override {
    const auto routes = defaultRoutes(AF_INET);
    const auto flags = interfaceFlags();
    const std::string hosts = readWholeFile(hostPath(hostsFile), longestHostsFile).value_or("");
    std::vector<IPv4ServiceState> services;
    for (const IPv4InterfaceState& state : ipv4Interfaces()) {
      const auto known = flags.find(state.interface);
      if (known == flags.end() || !isActive(known->second)) continue;
      IPv4ServiceState& service = services.emplace_back();
      service.interface = state.interface;
      const auto* route = detail::bestRoute(routes, if_nametoindex(state.interface.c_str()));
      if (route != nullptr && !route->router.empty()) service.router = route->router;
      for (std::size_t i = 0; i < state.addresses.size() && !service.hostName; ++i)
        service.hostName = detail::hostNameInHostsFile(hosts, state.addresses[i]);
    }
    return services;
  }

  std::vector<IPv4InterfaceState> ipv4Interfaces() override {
    const auto flags = interfaceFlags();
    std::vector<IPv4InterfaceState> states;
    std::map<unsigned int, std::size_t> places;
    for (const detail::AssignedAddress& each : ipv4Addresses()) {
      const auto name = interfaceName(each.interfaceIndex);
      if (!name) continue;  // gone meanwhile
      const auto [place, isNew] = places.emplace(each.interfaceIndex, states.size());
      if (isNew) states.push_back({*name, {}, {}, {}});
      IPv4InterfaceState& state = states[place->second];
      state.addresses.push_back(dotted(each.address));
      state.subnetMasks.push_back(dotted(each.mask));
      const auto known = flags.find(*name);
      if (known == flags.end() || (known->second & IFF_BROADCAST) == 0) continue;
      state.broadcastAddresses.push_back(dotted(each.broadcast.value_or(each.address | ~each.mask)));
    }
    return states;
  }
};

class HostNetworkConfiguration final : public NetworkConfiguration {
 public:
  std::unique_ptr<NetworkConfigurationStore> open(std::string_view) override {
    return std::make_unique<HostNetworkConfigurationStore>();
  }
};

}  // namespace

std::atomic<NetworkConfiguration*>& NetworkConfiguration::slot() {
  static std::atomic<NetworkConfiguration*> slot{
      new HostNetworkConfiguration};  // kept: other threads may use it while the process exits
  return slot;
}

}  // namespace ostrel
