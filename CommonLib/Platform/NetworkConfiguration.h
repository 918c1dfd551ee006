// The host's network configuration: local name, primary interfaces, configured services and their display names.
#pragma once

#include <atomic>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "Containers/Export.h"
#include "Platform/NameResolver.h"
#include "Platform/Service.h"

namespace ostrel {

/// The property names under which descriptions of interfaces give an interface's display name and its type.
inline constexpr const char* userDefinedNameProperty = "UserDefinedName";
inline constexpr const char* hardwareProperty = "Hardware";

/// The IPv4 state of a network service.
struct IPv4ServiceState {
  std::string interface;                ///< that it is bound to
  std::optional<std::string> router;    ///< numeric address
  std::optional<std::string> hostName;  ///< that the service has
};

/// The IPv4 state of an interface: numeric addresses in its order, and the masks and broadcast addresses that belong to
/// them. A list is empty where nothing is known.
struct IPv4InterfaceState {
  std::string interface;
  std::vector<std::string> addresses;
  std::vector<std::string> subnetMasks;
  std::vector<std::string> broadcastAddresses;
};

/// An open connection to the configuration. Threads: one connection on one thread at a time.
class OSTREL_EXPORT NetworkConfigurationStore {
 public:
  virtual ~NetworkConfigurationStore() = default;

  /// The name that this host has on the local link, without ".local"; absent when it has none.
  /// On Linux: the host name up to its first ".", absent when that is "", "localhost" or "(none)".
  virtual std::optional<std::string> localHostName() = 0;
  /// The interface that carries the default route of IPv4 or IPv6 (`any` has none); absent when there is no such route.
  /// On Linux: the route of prefix length 0 with the lowest metric in the main table (rtnetlink(7)).
  virtual std::optional<std::string> primaryInterface(AddressFamily family) = 0;
  /// The device names of the configured network services, in the configuration's order.
  /// On Linux: the interfaces below /sys/class/net, sorted by name.
  virtual std::vector<std::string> serviceDevices() = 0;
  /// The display name of the interface with that system name; absent when it has none.
  /// On Linux: the interface's alias (/sys/class/net/NAME/ifalias) without surrounding white space. The text need not
  /// be UTF-8.
  virtual std::optional<std::string> displayName(const std::string& device) = 0;
  /// The type of the interface with that system name; absent when it is not known.
  /// On Linux, by /sys/class/net/NAME/uevent and type: "Ethernet", "IEEE80211", "Bond", "Bridge", "VLAN", "PPP",
  /// "WWAN", "InfiniBand", "FireWire", "Tunnel" or "Loopback".
  virtual std::optional<std::string> interfaceType(const std::string& device) = 0;
  /// The state of IPv4 for every service, in the configuration's order.
  /// On Linux a service is an interface that is no loopback device, is up, has its link, and has an IPv4 address. Its
  /// router is that of its default route with the lowest metric in the main table; its host name is what /etc/hosts
  /// calls the first of its addresses that stands there. Nothing is asked of a name server.
  virtual std::vector<IPv4ServiceState> ipv4Services() = 0;
  /// The state of IPv4 for every interface that has one, in the configuration's order.
  /// On Linux: every interface with an IPv4 address, up or down, in the order of rtnetlink(7). On interfaces that can
  /// broadcast, an address for which no broadcast address is set has the last one of its network, as the kernel has it.
  virtual std::vector<IPv4InterfaceState> ipv4Interfaces() = 0;
};

/// Threads: may be called from any thread.
class OSTREL_EXPORT NetworkConfiguration {
 public:
  virtual ~NetworkConfiguration() = default;
  static NetworkConfiguration& current() { return *slot().load(std::memory_order_acquire); }

  /// Opens a connection under the name of a client, or answers null. On Linux the name is not used and opening never
  /// fails.
  virtual std::unique_ptr<NetworkConfigurationStore> open(std::string_view clientName) = 0;

 private:
  friend class ScopedOverride<NetworkConfiguration>;
  static std::atomic<NetworkConfiguration*>& slot();
};

}  // namespace ostrel
