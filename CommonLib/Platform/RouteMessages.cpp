#include "Platform/Internal/RouteMessages.h"

#include <linux/rtnetlink.h>

#include <cstring>

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

// The interface of the first next hop that is up; next hops follow one another by their own lengths.
std::optional<unsigned int> firstNextHop(std::string_view bytes) {
  rtnexthop hop{};
  while (readHeader(bytes, hop)) {
    if (hop.rtnh_len < sizeof hop || hop.rtnh_len > bytes.size()) return std::nullopt;
    if ((hop.rtnh_flags & (RTNH_F_DEAD | RTNH_F_LINKDOWN)) == 0 && hop.rtnh_ifindex > 0)
      return static_cast<unsigned int>(hop.rtnh_ifindex);
    const std::size_t step = RTNH_ALIGN(hop.rtnh_len);
    bytes.remove_prefix(step < bytes.size() ? step : bytes.size());
  }
  return std::nullopt;
}

void takeRoute(std::string_view message, DefaultRouteScan& scan) {
  rtmsg route{};
  if (!readHeader(message, route)) return;
  if (route.rtm_dst_len != 0 || route.rtm_type != RTN_UNICAST) return;
  if ((route.rtm_flags & (RTNH_F_DEAD | RTNH_F_LINKDOWN)) != 0) return;

  std::uint32_t table = route.rtm_table;
  std::uint32_t metric = 0;
  std::uint32_t index = 0;
  std::optional<unsigned int> hop;
  const std::size_t head = NLMSG_ALIGN(sizeof route);
  forEachAttribute(message.substr(head < message.size() ? head : message.size()),
                   [&](unsigned short type, std::string_view payload) {
                     if (type == RTA_TABLE) readHeader(payload, table);
                     if (type == RTA_PRIORITY) readHeader(payload, metric);
                     if (type == RTA_OIF) readHeader(payload, index);
                     if (type == RTA_MULTIPATH) hop = firstNextHop(payload);
                   });
  if (index != 0) hop = index;
  if (!hop || table != RT_TABLE_MAIN) return;
  if (scan.interfaceIndex && metric >= scan.metric) return;
  scan.interfaceIndex = hop;
  scan.metric = metric;
}

}  // namespace

void scanRouteMessages(std::string_view datagram, DefaultRouteScan& scan) {
  nlmsghdr header{};
  while (!datagram.empty()) {
    if (!readHeader(datagram, header) || header.nlmsg_len < sizeof header || header.nlmsg_len > datagram.size() ||
        header.nlmsg_type == NLMSG_DONE || header.nlmsg_type == NLMSG_ERROR) {
      scan.ended = true;
      return;
    }
    if (header.nlmsg_type == RTM_NEWROUTE)
      takeRoute(datagram.substr(NLMSG_HDRLEN, header.nlmsg_len - NLMSG_HDRLEN), scan);
    const std::size_t step = NLMSG_ALIGN(header.nlmsg_len);
    datagram.remove_prefix(step < datagram.size() ? step : datagram.size());
  }
}

}  // namespace ostrel::detail
