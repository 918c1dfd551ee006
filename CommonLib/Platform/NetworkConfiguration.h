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
