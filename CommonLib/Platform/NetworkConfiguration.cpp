#include "Platform/NetworkConfiguration.h"

#include <linux/rtnetlink.h>
#include <net/if.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>

#include "Platform/Files.h"
#include "Platform/HostRoot.h"
#include "Platform/Internal/RouteMessages.h"
#include "Platform/Internal/SystemCalls.h"

namespace ostrel {
namespace {

constexpr const char* interfacesFolder = "/sys/class/net";

bool askForRoutes(int socket, unsigned char family) {
  struct {
    nlmsghdr header;
    rtmsg route;
  } request{};
  request.header.nlmsg_len = sizeof request;
  request.header.nlmsg_type = RTM_GETROUTE;
  request.header.nlmsg_flags = NLM_F_REQUEST | NLM_F_DUMP;
  request.route.rtm_family = family;
  return detail::retried([&] { return ::send(socket, &request, sizeof request, 0); }) == sizeof request;
}

std::optional<std::string> interfaceOfDefaultRoute(unsigned char family) {
  const FileDescriptor socket(::socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_ROUTE));
  if (!socket || !askForRoutes(socket.get(), family)) return std::nullopt;
  detail::DefaultRouteScan scan;
  std::vector<char> datagram(64U << 10U);  // twice the most that the kernel puts into one
  while (!scan.ended) {
    const ssize_t size = detail::retried([&] { return ::recv(socket.get(), datagram.data(), datagram.size(), 0); });
    if (size <= 0) return std::nullopt;
    detail::scanRouteMessages({datagram.data(), static_cast<std::size_t>(size)}, scan);
  }
  std::array<char, IF_NAMESIZE> name{};
  if (!scan.interfaceIndex || if_indextoname(*scan.interfaceIndex, name.data()) == nullptr) return std::nullopt;
  return name.data();
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
    return interfaceOfDefaultRoute(family == AddressFamily::ipv4 ? AF_INET : AF_INET6);
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
    constexpr std::size_t longest = 4096;
    constexpr const char* whiteSpace = " \t\r\n";
    if (device.empty() || device == "." || device == ".." || device.find('/') != std::string::npos) return std::nullopt;
    const auto alias = readWholeFile(hostPath(interfacesFolder) + "/" + device + "/ifalias", longest);
    if (!alias) return std::nullopt;
    const std::size_t first = alias->find_first_not_of(whiteSpace);
    if (first == std::string::npos) return std::nullopt;
    return alias->substr(first, alias->find_last_not_of(whiteSpace) - first + 1);
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
