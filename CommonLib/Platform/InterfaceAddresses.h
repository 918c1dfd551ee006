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
  std::string name;        ///< interface, for example "eth0" (for an address labelled "eth0:1", too); "" for none
  SocketAddress address;   ///< of any family (AF_INET, AF_INET6, AF_PACKET ...)
  SocketAddress netmask;   ///< of the address's family
  unsigned int flags = 0;  ///< IFF_... of <net/if.h>
};

/// The text form of an entry's link-layer address (AF_PACKET): the interface's name, ":", and the bytes in lower-case
/// hexadecimal without leading zeros, joined by "." ("eth0:0.1c.42.0.0.8"). The name alone where the address is empty
/// or of another family, and for the loopback device, whose zeros are no address.
OSTREL_EXPORT std::string linkLayerText(const InterfaceAddress& entry);

/// Threads: may be called from any thread.
class OSTREL_EXPORT InterfaceAddresses {
 public:
  virtual ~InterfaceAddresses() = default;
  static InterfaceAddresses& current() { return *slot().load(std::memory_order_acquire); }

  /// Every address of every interface, in the system's order; empty when the system refuses the list. Each interface
  /// has an entry of family AF_PACKET, with an empty address where it has no link-layer address (a tunnel).
  virtual std::vector<InterfaceAddress> list() = 0;

 private:
  friend class ScopedOverride<InterfaceAddresses>;
  static std::atomic<InterfaceAddresses*>& slot();
};

}  // namespace ostrel
