#include "Platform/Internal/RouteMessages.h"

#include <arpa/inet.h>
#include <linux/rtnetlink.h>

#include <string>

#include <gtest/gtest.h>

namespace ostrel::detail {
namespace {

template <class Value>
std::string bytesOf(const Value& value) {
  return {reinterpret_cast<const char*>(&value), sizeof value};
}

std::string attribute(unsigned short type, const std::string& payload) {
  const rtattr header{static_cast<unsigned short>(RTA_LENGTH(payload.size())), type};
  std::string bytes = bytesOf(header) + payload;
  bytes.resize(RTA_ALIGN(bytes.size()));
  return bytes;
}

std::string number(unsigned short type, std::uint32_t value) { return attribute(type, bytesOf(value)); }

std::string nextHop(int index, unsigned char flags) { return bytesOf(rtnexthop{sizeof(rtnexthop), flags, 0, index}); }

std::string message(unsigned short type, const std::string& payload) {
  nlmsghdr header{};
  header.nlmsg_type = type;
  header.nlmsg_len = static_cast<std::uint32_t>(NLMSG_HDRLEN + payload.size());
  std::string bytes = bytesOf(header) + payload;
  bytes.resize(NLMSG_ALIGN(bytes.size()));
  return bytes;
}

struct Route {
  unsigned char prefixLength = 0;
  unsigned char type = RTN_UNICAST;
  unsigned int flags = 0;
  unsigned char table = RT_TABLE_MAIN;
};

std::string route(const Route& route, const std::string& attributes) {
  rtmsg body{};
  body.rtm_dst_len = route.prefixLength;
  body.rtm_type = route.type;
  body.rtm_flags = route.flags;
  body.rtm_table = route.table;
  return message(RTM_NEWROUTE, bytesOf(body) + attributes);
}

TEST(RouteMessages, TheBestDefaultRouteIsChosen) {
  const std::string viaTwo = number(RTA_OIF, 2) + number(RTA_PRIORITY, 100);
  const struct {
    const char* what;
    std::string dump;
    unsigned int index;  // 0: none
  } cases[] = {
      {"no route", "", 0},
      {"a plain one", route({}, viaTwo), 2},
      {"no metric is the metric 0", route({}, viaTwo) + route({}, number(RTA_OIF, 3)), 3},
      {"the lower metric wins", route({}, number(RTA_OIF, 3) + number(RTA_PRIORITY, 101)) + route({}, viaTwo), 2},
      {"of equals the first wins", route({}, viaTwo) + route({}, number(RTA_PRIORITY, 100) + number(RTA_OIF, 3)), 2},
      {"a route to a network is none", route({.prefixLength = 24}, viaTwo), 0},
      {"an unreachable default is none", route({.type = RTN_UNREACHABLE}, viaTwo), 0},
      {"a dead one is none", route({.flags = RTNH_F_DEAD}, viaTwo), 0},
      {"one without its link is none", route({.flags = RTNH_F_LINKDOWN}, viaTwo), 0},
      {"another table", route({.table = RT_TABLE_LOCAL}, viaTwo), 0},
      {"the table attribute overrules", route({}, viaTwo + number(RTA_TABLE, 1000)), 0},
      {"the first next hop that is up", route({}, attribute(RTA_MULTIPATH, nextHop(4, RTNH_F_DEAD) + nextHop(5, 0))),
       5},
      {"no interface", route({}, number(RTA_PRIORITY, 1)), 0},
      {"other messages are passed over", message(RTM_NEWADDR, viaTwo) + route({}, viaTwo), 2},
      {"what follows the end is left", message(NLMSG_DONE, "") + route({}, viaTwo), 0},
  };
  for (const auto& [what, dump, index] : cases) {
    DefaultRouteScan scan;
    scanRouteMessages(dump + message(NLMSG_DONE, std::string(4, '\0')), scan);
    EXPECT_TRUE(scan.ended) << what;
    const DefaultRoute* best = bestRoute(scan.routes);
    EXPECT_EQ(best == nullptr ? 0 : best->interfaceIndex, index) << what;
  }
}

TEST(RouteMessages, ADumpMayComeInSeveralDatagrams) {
  DefaultRouteScan scan;
  scanRouteMessages(route({}, number(RTA_OIF, 2) + number(RTA_PRIORITY, 7)), scan);
  EXPECT_FALSE(scan.ended);
  scanRouteMessages(route({}, number(RTA_OIF, 3) + number(RTA_PRIORITY, 8)) + message(NLMSG_DONE, ""), scan);
  EXPECT_TRUE(scan.ended);
  EXPECT_EQ(bestRoute(scan.routes)->interfaceIndex, 2U);
  EXPECT_FALSE(scan.interrupted);

  std::string changed = route({}, number(RTA_OIF, 2));
  const auto flags = static_cast<std::uint16_t>(NLM_F_MULTI | NLM_F_DUMP_INTR);
  changed.replace(offsetof(nlmsghdr, nlmsg_flags), sizeof flags, bytesOf(flags));
  DefaultRouteScan again;
  scanRouteMessages(changed + route({}, number(RTA_OIF, 3)), again);
  EXPECT_TRUE(again.interrupted);
  EXPECT_EQ(again.routes.size(), 2U);
}

TEST(RouteMessages, AddressesOfBothKindsOfLinks) {
  const auto address = [](const std::string& attributes, unsigned char prefix = 24, unsigned char family = AF_INET) {
    ifaddrmsg body{};
    body.ifa_family = family;
    body.ifa_prefixlen = prefix;
    body.ifa_index = 3;
    return message(RTM_NEWADDR, bytesOf(body) + attributes);
  };
  const auto dotted = [](unsigned short type, std::uint32_t value) { return number(type, htonl(value)); };
  AddressScan scan;
  scanAddressMessages(address(dotted(IFA_ADDRESS, 0xC0000201) + dotted(IFA_BROADCAST, 0xC00002FF)) +
                          address(dotted(IFA_LOCAL, 0xC0000202) + dotted(IFA_ADDRESS, 0xC0000203), 32) +
                          address(dotted(IFA_ADDRESS, 0xC0000204) + dotted(IFA_LOCAL, 0xC0000205), 0) + address("") +
                          address(dotted(IFA_LOCAL, 1), 33) + address(dotted(IFA_LOCAL, 1), 24, AF_INET6) +
                          message(NLMSG_DONE, ""),
                      scan);
  EXPECT_TRUE(scan.ended);
  ASSERT_EQ(scan.addresses.size(), 3U);
  const std::uint32_t expected[][2] = {{0xC0000201, 0xFFFFFF00}, {0xC0000202, 0xFFFFFFFF}, {0xC0000205, 0}};
  for (std::size_t i = 0; i < 3; ++i) {
    EXPECT_EQ(scan.addresses[i].address, expected[i][0]);
    EXPECT_EQ(scan.addresses[i].mask, expected[i][1]);
    EXPECT_EQ(scan.addresses[i].interfaceIndex, 3U);
  }
  EXPECT_EQ(scan.addresses[0].broadcast, 0xC00002FF);
  EXPECT_FALSE(scan.addresses[1].broadcast);
}

TEST(RouteMessages, NewsIsWhatChangesAddressesLinksAndDefaultRoutes) {
  const std::string toANetwork = route({.prefixLength = 24}, number(RTA_OIF, 2));
  const struct {
    const char* what;
    std::string datagram;
    bool isNews;
  } cases[] = {
      {"nothing", "", false},
      {"a link", message(RTM_DELLINK, ""), true},
      {"an address behind routes", toANetwork + message(RTM_NEWADDR, ""), true},
      {"routes to networks", toANetwork + toANetwork, false},
      {"a default route", route({}, number(RTA_OIF, 2)), true},
      {"an unreachable default", route({.type = RTN_UNREACHABLE}, ""), true},
      {"the default of another table", route({}, number(RTA_TABLE, 1000)), false},
      {"news that were lost", message(NLMSG_OVERRUN, ""), true},
      {"a neighbour", message(RTM_NEWNEIGH, ""), false},
      {"half a message", toANetwork.substr(0, 20), true},
  };
  for (const auto& [what, datagram, isNews] : cases) EXPECT_EQ(holdsNetworkNews(datagram), isNews) << what;
}

// Under the address sanitizer: no length, whatever it says, leads outside the datagram, and every scan ends.
TEST(RouteMessages, TornAndCorruptedMessagesAreReadSafely) {
  const std::string whole = route({}, number(RTA_OIF, 2) + attribute(RTA_VIA, "\2") +
                                          attribute(RTA_MULTIPATH, nextHop(4, RTNH_F_DEAD) + nextHop(5, 0)));
  for (std::size_t size = 0; size < whole.size(); ++size) {
    DefaultRouteScan scan;
    scanRouteMessages(std::string(whole, 0, size), scan);
    EXPECT_TRUE(scan.routes.empty()) << size;
  }
  for (std::size_t at = 0; at < whole.size(); ++at) {
    for (const char value : {'\0', '\1', '\3', '\x7F', '\xFF'}) {
      std::string corrupted = whole;
      corrupted[at] = value;
      DefaultRouteScan scan;
      scanRouteMessages(corrupted, scan);
      holdsNetworkNews(corrupted);
      corrupted[4] = RTM_NEWADDR;
      AddressScan addresses;
      scanAddressMessages(corrupted, addresses);
    }
  }
}

}  // namespace
}  // namespace ostrel::detail
