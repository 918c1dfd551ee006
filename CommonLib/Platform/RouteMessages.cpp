#include "Platform/Internal/RouteMessages.h"

#include <arpa/inet.h>
#include <linux/rtnetlink.h>

#include <array>
#include <cstring>
#include <utility>

namespace ostrel::detail {
namespace {

template <class Header>
bool readHeader(std::string_view bytes, Header& header) {
  if (bytes.size() < sizeof header) return false;
  std::memcpy(&header, bytes.data(), sizeof header);
  return true;
}

// Calls `visit(type, payload)` for each attribute; stops at the first one that does not fit.
template <class Visit>
void forEachAttribute(std::string_view bytes, Visit visit) {
  rtattr header{};
  while (readHeader(bytes, header)) {
    if (header.rta_len < sizeof header || header.rta_len > bytes.size()) return;
    visit(header.rta_type, bytes.substr(RTA_LENGTH(0), header.rta_len - RTA_LENGTH(0)));
    const std::size_t step = RTA_ALIGN(header.rta_len);
    bytes.remove_prefix(step < bytes.size() ? step : bytes.size());
  }
}

bool isUp(unsigned int flags) { return (flags & (RTNH_F_DEAD | RTNH_F_LINKDOWN)) == 0; }

// The numeric text of an address of that family; "" for bytes that are none.
std::string addressText(int family, std::string_view bytes) {
  const std::size_t size = family == AF_INET ? sizeof(in_addr) : sizeof(in6_addr);
  std::array<char, INET6_ADDRSTRLEN> text{};
  if (bytes.size() != size || inet_ntop(family, bytes.data(), text.data(), text.size()) == nullptr) return {};
  return text.data();
}

// A next hop's router: RTA_GATEWAY holds an address of the route's family, RTA_VIA says which family it is of.
void takeRouter(int family, unsigned short type, std::string_view payload, std::string& router) {
  std::uint16_t viaFamily = 0;
  if (type == RTA_GATEWAY) router = addressText(family, payload);
  if (type == RTA_VIA && readHeader(payload, viaFamily))
    router = addressText(viaFamily, payload.substr(sizeof viaFamily));
}

// Those that are up; next hops follow one another by their own lengths.
std::vector<DefaultRoute> nextHops(int family, std::string_view bytes) {
  std::vector<DefaultRoute> hops;
  rtnexthop hop{};
  while (readHeader(bytes, hop)) {
    if (hop.rtnh_len < sizeof hop || hop.rtnh_len > bytes.size()) return hops;
    if (isUp(hop.rtnh_flags) && hop.rtnh_ifindex > 0) {
      DefaultRoute& route = hops.emplace_back();
      route.interfaceIndex = static_cast<unsigned int>(hop.rtnh_ifindex);
      forEachAttribute(
          bytes.substr(sizeof hop, hop.rtnh_len - sizeof hop),
          [&](unsigned short type, std::string_view payload) { takeRouter(family, type, payload, route.router); });
    }
    const std::size_t step = RTNH_ALIGN(hop.rtnh_len);
    bytes.remove_prefix(step < bytes.size() ? step : bytes.size());
  }
  return hops;
}

// What follows the fixed head of a message.
template <class Head>
std::string_view attributesOf(std::string_view message, const Head& head) {
  const std::size_t size = NLMSG_ALIGN(sizeof head);
  return message.substr(size < message.size() ? size : message.size());
}

void takeRoute(std::string_view message, DefaultRouteScan& scan) {
  rtmsg route{};
  if (!readHeader(message, route)) return;
  if (route.rtm_dst_len != 0 || route.rtm_type != RTN_UNICAST || !isUp(route.rtm_flags)) return;

  std::uint32_t table = route.rtm_table;
  std::uint32_t metric = 0;
  DefaultRoute single;
  std::vector<DefaultRoute> hops;
  forEachAttribute(attributesOf(message, route), [&](unsigned short type, std::string_view payload) {
    if (type == RTA_TABLE) readHeader(payload, table);
    if (type == RTA_PRIORITY) readHeader(payload, metric);
    if (type == RTA_OIF) readHeader(payload, single.interfaceIndex);
    if (type == RTA_MULTIPATH) hops = nextHops(route.rtm_family, payload);
    takeRouter(route.rtm_family, type, payload, single.router);
  });
  if (table != RT_TABLE_MAIN) return;
  if (single.interfaceIndex != 0) hops.assign(1, single);
  for (DefaultRoute& hop : hops) {
    hop.metric = metric;
    scan.routes.push_back(std::move(hop));
  }
}

std::optional<std::uint32_t> readIPv4(std::string_view payload) {
  std::uint32_t address = 0;
  return readHeader(payload, address) ? std::optional(ntohl(address)) : std::nullopt;
}

void takeAddress(std::string_view message, AddressScan& scan) {
  ifaddrmsg head{};
  if (!readHeader(message, head) || head.ifa_family != AF_INET || head.ifa_prefixlen > 32) return;
  AssignedAddress assigned;
  assigned.interfaceIndex = head.ifa_index;
  assigned.mask = head.ifa_prefixlen == 0 ? 0 : ~std::uint32_t{0} << (32U - head.ifa_prefixlen);
  std::optional<std::uint32_t> local;
  std::optional<std::uint32_t> address;  // of the other end of a point-to-point link, else the local one
  forEachAttribute(attributesOf(message, head), [&](unsigned short type, std::string_view payload) {
    if (type == IFA_LOCAL) local = readIPv4(payload);
    if (type == IFA_ADDRESS) address = readIPv4(payload);
    if (type == IFA_BROADCAST) assigned.broadcast = readIPv4(payload);
  });
  if (!local && !address) return;
  assigned.address = local ? *local : *address;
  scan.addresses.push_back(assigned);
}

// Calls `visit(header, message)` for each message until it answers false; false when the bytes do not form messages.
template <class Visit>
bool forEachMessage(std::string_view datagram, Visit visit) {
  nlmsghdr header{};
  while (!datagram.empty()) {
    if (!readHeader(datagram, header) || header.nlmsg_len < sizeof header || header.nlmsg_len > datagram.size())
      return false;
    if (!visit(header, datagram.substr(NLMSG_HDRLEN, header.nlmsg_len - NLMSG_HDRLEN))) return true;
    const std::size_t step = NLMSG_ALIGN(header.nlmsg_len);
    datagram.remove_prefix(step < datagram.size() ? step : datagram.size());
  }
  return true;
}

// Calls `take(message)` for each message of that type. A dump ends by its last message or a fault.
template <class Take>
void readDump(std::string_view datagram, unsigned short wanted, DumpProgress& progress, Take take) {
  const bool areMessages = forEachMessage(datagram, [&](const nlmsghdr& header, std::string_view message) {
    if ((header.nlmsg_flags & NLM_F_DUMP_INTR) != 0) progress.interrupted = true;
    progress.ended = header.nlmsg_type == NLMSG_DONE || header.nlmsg_type == NLMSG_ERROR;
    if (header.nlmsg_type == wanted) take(message);
    return !progress.ended;
  });
  if (!areMessages) progress.ended = true;
}

// Whether it leads everywhere by the main table, up or not.
bool isDefaultRoute(std::string_view message) {
  rtmsg route{};
  if (!readHeader(message, route) || route.rtm_dst_len != 0) return false;
  std::uint32_t table = route.rtm_table;
  forEachAttribute(attributesOf(message, route), [&](unsigned short type, std::string_view payload) {
    if (type == RTA_TABLE) readHeader(payload, table);
  });
  return table == RT_TABLE_MAIN;
}

bool isNews(unsigned short type, std::string_view message) {
  switch (type) {
    case RTM_NEWLINK:
    case RTM_DELLINK:
    case RTM_NEWADDR:
    case RTM_DELADDR:
    case NLMSG_OVERRUN:
      return true;
    case RTM_NEWROUTE:
    case RTM_DELROUTE:
      return isDefaultRoute(message);
    default:
      return false;
  }
}

}  // namespace

void scanRouteMessages(std::string_view datagram, DefaultRouteScan& scan) {
  readDump(datagram, RTM_NEWROUTE, scan, [&scan](std::string_view message) { takeRoute(message, scan); });
}

void scanAddressMessages(std::string_view datagram, AddressScan& scan) {
  readDump(datagram, RTM_NEWADDR, scan, [&scan](std::string_view message) { takeAddress(message, scan); });
}

bool holdsNetworkNews(std::string_view datagram) {
  bool found = false;
  const bool areMessages = forEachMessage(datagram, [&found](const nlmsghdr& header, std::string_view message) {
    found = isNews(header.nlmsg_type, message);
    return !found;
  });
  return found || !areMessages;
}

const DefaultRoute* bestRoute(const std::vector<DefaultRoute>& routes, unsigned int interfaceIndex) {
  const DefaultRoute* best = nullptr;
  for (const DefaultRoute& route : routes) {
    if (interfaceIndex != 0 && route.interfaceIndex != interfaceIndex) continue;
    if (best == nullptr || route.metric < best->metric) best = &route;
  }
  return best;
}

}  // namespace ostrel::detail
