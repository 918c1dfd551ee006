#include "ostrelctl/PortRules.h"

#include "Containers/Format.h"

namespace ostrel {
namespace {

using Protocol = PortMapping::Protocol;

constexpr const char* head =
    "table inet ostrel_ports\n"
    "delete table inet ostrel_ports\n"
    "\n"
    "table inet ostrel_ports {\n"
    "\tchain prerouting {\n"
    "\t\ttype nat hook prerouting priority dstnat; policy accept;\n";
constexpr const char* end = "\t}\n}\n";

const char* familyOf(const SocketAddress& address) { return address.isIPv4() ? "ip" : "ip6"; }

std::string packetsOf(const PortMapping& mapping) {
  if (mapping.externalAddress)
    return format("%s daddr %s", familyOf(*mapping.externalAddress), mapping.externalAddress->numericHost());
  std::string family;
  if (mapping.localAddress) family = mapping.localAddress->isIPv4() ? "meta nfproto ipv4 " : "meta nfproto ipv6 ";
  return family + "fib daddr type local";
}

std::string targetOf(const PortMapping& mapping) {
  if (!mapping.localAddress) return format("redirect to :%d", mapping.localPort);
  const std::string host = mapping.localAddress->numericHost();
  if (mapping.localAddress->isIPv4()) return format("dnat ip to %s:%d", host, mapping.localPort);
  return format("dnat ip6 to [%s]:%d", host, mapping.localPort);
}

std::string ruleFor(const PortMapping& mapping, const char* protocol) {
  return format("\t\t%s %s dport %d %s\n", packetsOf(mapping), protocol, mapping.externalPort, targetOf(mapping));
}

}  // namespace

std::string nftablesRules(std::span<const PortMapping> mappings) {
  std::string rules = head;
  for (const PortMapping& mapping : mappings) {
    if (mapping.protocol != Protocol::udp) rules += ruleFor(mapping, "tcp");
    if (mapping.protocol != Protocol::tcp) rules += ruleFor(mapping, "udp");
  }
  return rules + end;
}

}  // namespace ostrel
