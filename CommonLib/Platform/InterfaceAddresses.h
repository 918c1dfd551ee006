// The addresses of the host's network interfaces (getifaddrs(3)).
#pragma once

#include <atomic>
#include <string>
#include <vector>

#include "Containers/Export.h"
#include "Platform/Service.h"
#include "Platform/SocketAddress.h"

namespace ostrel {

/// One entry of the system's list. `address` and `netmask` are of length 0 where the system gives none.
struct InterfaceAddress {
  std::string name;        ///< interface, for example "eth0"; "" where the system gives none
  SocketAddress address;   ///< of any family (AF_INET, AF_INET6, AF_PACKET ...)
  SocketAddress netmask;   ///< of the address's family
  unsigned int flags = 0;  ///< IFF_... of <net/if.h>
};

/// Threads: may be called from any thread.
class OSTREL_EXPORT InterfaceAddresses {
 public:
  virtual ~InterfaceAddresses() = default;
  static InterfaceAddresses& current() { return *slot().load(std::memory_order_acquire); }

  /// Every address of every interface, in the system's order; empty when the system refuses the list.
  virtual std::vector<InterfaceAddress> list() = 0;

 private:
  friend class ScopedOverride<InterfaceAddresses>;
  static std::atomic<InterfaceAddresses*>& slot();
};

}  // namespace ostrel
