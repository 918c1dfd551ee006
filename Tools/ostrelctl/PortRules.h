// Port mappings as rules of the kernel's packet filter.
#pragma once

#include <span>
#include <string>

#include "Network/PortmapList.h"

namespace ostrel {

/// An nftables rule set, as nft(8) reads it with "-f": a table "ostrel_ports" of family inet, replaced as a whole in
/// one step, with a rule for each mapping and protocol, in order. Packets for a mapping with an internal address go
/// there, those for one without to a port of this machine. A mapping without an external address is about the packets
/// that are addressed to this machine; what it only forwards is left alone.
///
/// Nothing of a mapping but its numbers and addresses gets into the text: no description can add a rule.
std::string nftablesRules(std::span<const PortMapping> mappings);

}  // namespace ostrel
