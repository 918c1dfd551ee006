#include "Network/Internal/PortmapEntry.h"

#include <netinet/in.h>

#include <cerrno>
#include <cstring>
#include <limits>

#include "Containers/PropertyList.h"
#include "Network/PortMappings.h"

namespace ostrel::detail {
namespace {

using Protocol = PortMapping::Protocol;

bool isPort(std::int64_t number) { return number >= 1 && number <= std::numeric_limits<std::uint16_t>::max(); }

bool isReachable(const SocketAddress& address) {
  if (address.isIPv4()) {
    sockaddr_in plain{};
    std::memcpy(&plain, address.get(), sizeof plain);
    const std::uint32_t number = ntohl(plain.sin_addr.s_addr);
    return number != INADDR_ANY && number != INADDR_BROADCAST && !IN_MULTICAST(number);
  }
  sockaddr_in6 plain{};
  std::memcpy(&plain, address.get(), sizeof plain);
  const in6_addr& bytes = plain.sin6_addr;
  return !IN6_IS_ADDR_UNSPECIFIED(&bytes) && !IN6_IS_ADDR_MULTICAST(&bytes) && !IN6_IS_ADDR_V4MAPPED(&bytes) &&
         !address.isIPv6LinkLocal();
}

int checkProtocol(const PlistValue& text, Protocol& protocol) {
  if (text.isNull())
    protocol = Protocol::any;
  else if (text == PlistValue(kKpPortMappingProtocolTcpValue))
    protocol = Protocol::tcp;
  else if (text == PlistValue(kKpPortMappingProtocolUdpValue))
    protocol = Protocol::udp;
  else
    return EPROTONOSUPPORT;
  return 0;
}

int checkAddress(const PlistValue& text, std::optional<SocketAddress>& address) {
  if (text.isNull()) return 0;
  address = SocketAddress::ipv4(text.stringValue());
  if (!address) address = SocketAddress::ipv6(text.stringValue());
  if (!address) return EAFNOSUPPORT;
  return isReachable(*address) ? 0 : EADDRNOTAVAIL;
}

// Of both families when no address tells.
int familyOf(const PortMapping& mapping) {
  if (mapping.localAddress) return mapping.localAddress->family();
  return mapping.externalAddress ? mapping.externalAddress->family() : AF_UNSPEC;
}

bool isSameAddress(const std::optional<SocketAddress>& left, const std::optional<SocketAddress>& right) {
  if (!left || !right) return !left && !right;
  return left->isSameHost(*right);
}

// Whether some packet is meant by both, where `any` is what means them all.
template <class Value>
bool meet(const Value& left, const Value& right, const Value& any) {
  return left == right || left == any || right == any;
}

bool takeSamePackets(const PortMapping& left, const PortMapping& right) {
  return left.externalPort == right.externalPort && meet(left.protocol, right.protocol, Protocol::any) &&
         meet(familyOf(left), familyOf(right), AF_UNSPEC) &&
         (!left.externalAddress || !right.externalAddress || left.externalAddress->isSameHost(*right.externalAddress));
}

// "*" stands for an absent value.
PlistValue given(const PlistValue& entry, const char* key) {
  PlistValue value = entry.get(key);
  return value == PlistValue(kKpPortMappingNoValue) ? PlistValue() : value;
}

std::int64_t portOf(const PlistValue& value) { return value.isInteger() ? value.int64Value() : 0; }

}  // namespace

int checkMapping(std::int64_t internalPort, std::int64_t externalPort, const PlistValue& protocol,
                 const PlistValue& internalAddress, const PlistValue& externalAddress, const PlistValue& description,
                 PortMapping& mapping) {
  if (!isPort(internalPort) || !isPort(externalPort)) return ERANGE;
  mapping.localPort = static_cast<std::uint16_t>(internalPort);
  mapping.externalPort = static_cast<std::uint16_t>(externalPort);
  if (const int status = checkProtocol(protocol, mapping.protocol); status != 0) return status;
  if (const int status = checkAddress(internalAddress, mapping.localAddress); status != 0) return status;
  if (const int status = checkAddress(externalAddress, mapping.externalAddress); status != 0) return status;
  if (mapping.localAddress && mapping.externalAddress &&
      mapping.localAddress->family() != mapping.externalAddress->family())
    return EAFNOSUPPORT;
  if (description.isNull()) return 0;
  if (!description.isString() || !writeXmlPropertyList(description)) return EILSEQ;
  mapping.description = description.stringValue();
  return 0;
}

std::optional<PortMapping> mappingOf(const PlistValue& entry) {
  if (!entry.isDictionary()) return std::nullopt;
  const PlistValue internalPort = entry.get(kKpPortMappingLocalIpPortKey);
  const PlistValue externalPort = entry.get(kKpPortMappingRemoteIpPortKey);
  const PlistValue description = entry.get(kKpPortMappingDescriptionKey);
  PortMapping mapping;
  const int status = checkMapping(portOf(internalPort), portOf(externalPort.isNull() ? internalPort : externalPort),
                                  given(entry, kKpPortMappingProtocolKey), given(entry, kKpPortMappingLocalIpKey),
                                  given(entry, kKpPortMappingExternalIpKey),
                                  description.isString() ? description : PlistValue(), mapping);
  return status == 0 ? std::optional(mapping) : std::nullopt;
}

int conflictOf(const PortMapping& present, const PortMapping& added) {
  if (!takeSamePackets(present, added)) return 0;
  return isSameTarget(present, added) && isSameAddress(present.externalAddress, added.externalAddress) ? EEXIST
                                                                                                       : EADDRINUSE;
}

bool isSameTarget(const PortMapping& left, const PortMapping& right) {
  return left.localPort == right.localPort && left.externalPort == right.externalPort &&
         left.protocol == right.protocol && isSameAddress(left.localAddress, right.localAddress);
}

}  // namespace ostrel::detail

namespace ostrel {

PlistValue entryOf(const PortMapping& mapping) {
  using Protocol = PortMapping::Protocol;
  PlistValue entry = PlistValue::mutableDictionaryOf(
      {{kKpPortMappingLocalIpPortKey, mapping.localPort}, {kKpPortMappingRemoteIpPortKey, mapping.externalPort}});
  if (mapping.protocol != Protocol::any)
    entry.set(kKpPortMappingProtocolKey,
              mapping.protocol == Protocol::tcp ? kKpPortMappingProtocolTcpValue : kKpPortMappingProtocolUdpValue);
  if (mapping.localAddress) entry.set(kKpPortMappingLocalIpKey, mapping.localAddress->numericHost());
  if (mapping.externalAddress) entry.set(detail::kKpPortMappingExternalIpKey, mapping.externalAddress->numericHost());
  if (!mapping.description.empty()) entry.set(detail::kKpPortMappingDescriptionKey, mapping.description);
  return entry;
}

}  // namespace ostrel
