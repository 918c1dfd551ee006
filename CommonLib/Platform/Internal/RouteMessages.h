// Reads the kernel's routing messages (rtnetlink(7)).
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "Containers/Export.h"

namespace ostrel::detail {

/// One next hop of a default route.
struct DefaultRoute {
  unsigned int interfaceIndex = 0;
  std::uint32_t metric = 0;
  std::string router;  ///< numeric address; "" where the route has none
};

/// How far one dump has been read.
struct DumpProgress {
  bool ended = false;        ///< the dump's last message, or an error, was seen
  bool interrupted = false;  ///< what is told changed meanwhile: it may be told in part or twice
};

/// Gathers the default routes of one dump of routes.
struct DefaultRouteScan : DumpProgress {
  std::vector<DefaultRoute> routes;  ///< in the dump's order
};

/// Takes the messages of one datagram. A default route is a unicast one of prefix length 0 in the main table; it counts
/// once for each of its next hops that is up. Bytes that do not form messages end the scan.
OSTREL_EXPORT void scanRouteMessages(std::string_view datagram, DefaultRouteScan& scan);

/// The route of the lowest metric, among equals the first; of one interface where `interfaceIndex` is not 0. Null when
/// there is none.
OSTREL_EXPORT const DefaultRoute* bestRoute(const std::vector<DefaultRoute>& routes, unsigned int interfaceIndex = 0);

/// An IPv4 address of an interface; addresses are 32 bits in host order.
struct AssignedAddress {
  unsigned int interfaceIndex = 0;
  std::uint32_t address = 0;
  std::uint32_t mask = 0;
  std::optional<std::uint32_t> broadcast;  ///< where one is set
};

/// Gathers the IPv4 addresses of one dump of addresses.
struct AddressScan : DumpProgress {
  std::vector<AssignedAddress> addresses;  ///< in the dump's order
};

/// Takes the messages of one datagram, as `scanRouteMessages` does. On a point-to-point link the address is the local
/// one.
OSTREL_EXPORT void scanAddressMessages(std::string_view datagram, AddressScan& scan);

/// Whether a datagram of the kernel's news tells of a link, an address or a default route of the main table; other
/// routes come and go by the thousand. True also for bytes that do not form messages: something was said.
OSTREL_EXPORT bool holdsNetworkNews(std::string_view datagram);

}  // namespace ostrel::detail
