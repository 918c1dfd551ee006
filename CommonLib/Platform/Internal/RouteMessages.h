// Reads the kernel's routing messages (rtnetlink(7)).
#pragma once

#include <cstdint>
#include <optional>
#include <string_view>

#include "Containers/Export.h"

namespace ostrel::detail {

/// Gathers the default route of one dump of routes.
struct DefaultRouteScan {
  std::optional<unsigned int> interfaceIndex;  ///< of the best route so far
  std::uint32_t metric = 0;                    ///< its metric
  bool ended = false;                          ///< the dump's last message, or an error, was seen
};

/// Takes the messages of one datagram. The default route is a unicast one of prefix length 0 in the main table whose
/// next hop is up; the lowest metric wins, among equals the first. Bytes that do not form messages end the scan.
OSTREL_EXPORT void scanRouteMessages(std::string_view datagram, DefaultRouteScan& scan);

}  // namespace ostrel::detail
