#include "Network/InterfaceInfo.h"

#include <netdb.h>

#include <gmock/gmock.h>

#include "Support/FakeNetwork.h"
#include "Support/NetworkNamespace.h"

namespace ostrel {
namespace {

using ostrel::testing::FakeInterfaces;
using ostrel::testing::FakeNetworkConfiguration;
using ostrel::testing::FakeResolver;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

// The values of one key over all descriptions; "-" where it is absent.
std::vector<std::string> column(const PlistValue& descriptions, std::string_view key) {
  std::vector<std::string> values;
  for (const PlistValue& description : descriptions.elements())
    values.push_back(description.contains(key) ? description.get(key).description() : "-");
  return values;
}

class InterfaceInfoTest : public ::testing::Test {
 protected:
  FakeInterfaces interfaces_;
  FakeResolver resolver_;
  FakeNetworkConfiguration configuration_;
  ScopedOverride<InterfaceAddresses> interfacesScope_{interfaces_};
  ScopedOverride<NameResolver> resolverScope_{resolver_};
  ScopedOverride<NetworkConfiguration> configurationScope_{configuration_};
};

TEST_F(InterfaceInfoTest, AddressTextsAreTold) {
  const struct {
    PlistValue text;
    bool ipv4;
    bool ipv6;
  } cases[] = {{"10.0.0.1", true, false},
               {"255.255.255.255", true, false},
               {"10.0.0.256", false, false},
               {"10.1", false, false},
               {" 10.0.0.1", false, false},
               {"fe80::1", false, true},
               {"::ffff:10.0.0.1", false, true},
               {"host", false, false},
               {"", false, false},
               {PlistValue(), false, false},
               {17, false, false}};
  for (const auto& [text, ipv4, ipv6] : cases) {
    EXPECT_EQ(is_ipv4_address(text), ipv4) << text.description();
    EXPECT_EQ(is_ipv6_address(text), ipv6) << text.description();
  }
}

TEST_F(InterfaceInfoTest, TheFirstIPv4AddressOfAHostKeepsTheResolversOrder) {
  resolver_.hosts["mixed"] = {"2001:db8::1", "10.0.0.9", "10.0.0.1"};
  resolver_.hosts["six"] = {"2001:db8::1"};
  EXPECT_EQ(first_ipv4_address_of_host("10.0.0.1"), PlistValue("10.0.0.1"));
  EXPECT_EQ(resolver_.lookups, 0) << "an address is not looked up";
  EXPECT_EQ(first_ipv4_address_of_host("mixed"), PlistValue("10.0.0.9"));
  resolver_.raising = {"raising"};
  for (const PlistValue& none :
       {PlistValue("six"), PlistValue("unknown"), PlistValue("raising"), PlistValue(""), PlistValue(), PlistValue(5)})
    EXPECT_TRUE(first_ipv4_address_of_host(none).isNull()) << none.description();
}

TEST_F(InterfaceInfoTest, HostAddressesLeaveOutLoopbackNamesAndOtherFamilies) {
  interfaces_.add("lo0", "127.0.0.1").add("en1", "10.0.0.2").add("lowpan0", "10.0.0.3").add("en0", "2001:db8::1");
  interfaces_.addWithoutAddress("en2").add("en0", "10.0.0.1").add("en1", "10.0.0.2");
  const PlistValue addresses = get_host_ips();
  EXPECT_FALSE(addresses.isMutable());
  EXPECT_EQ(addresses, PlistValue::arrayOf({"10.0.0.2", "10.0.0.1", "10.0.0.2"}));
}

TEST_F(InterfaceInfoTest, DescribesEachAddressInTheSystemsOrder) {
  interfaces_.add("lo0", "127.0.0.1").add("en1", "10.0.0.2", "255.255.0.0").add("", "10.0.0.3");
  interfaces_.add("en0", "fe80::1").add("en0", "febf::1").add("en0", "fec0::1").addWithoutAddress("en0");
  interfaces_.add("en0", "2001:db8::5", "ffff:ffff:ffff:ffff::").add("en0", "10.0.0.1");

  const PlistValue found = get_interfaces_info(false);
  EXPECT_EQ(configuration_.clientName, "ostrelcommon");
  EXPECT_FALSE(found.isMutable());
  EXPECT_FALSE(found.at(0).isMutable());
  EXPECT_THAT(column(found, "name"), ElementsAre("en1", "en0", "en0", "en0"));
  EXPECT_THAT(column(found, "family"), ElementsAre("AF_INET", "AF_INET6", "AF_INET6", "AF_INET"));
  EXPECT_THAT(column(found, "ipAddress"), ElementsAre("10.0.0.2", "fec0::1", "2001:db8::5", "10.0.0.1"));
  EXPECT_THAT(column(found, "subnetMask"), ElementsAre("255.255.0.0", "", "ffff:ffff:ffff:ffff::", ""));
  for (const char* key : {"dnsName", "serviceName"}) EXPECT_THAT(column(found, key), ElementsAre("", "", "", ""));
  for (const char* key : {"isPrimaryIPv4Interface", "isPrimaryIPv6Interface", "userDefinedName"})
    EXPECT_THAT(column(found, key), ElementsAre("-", "-", "-", "-"));
  EXPECT_EQ(resolver_.lookups, 0);
}

TEST_F(InterfaceInfoTest, NamesOfAddresses) {
  resolver_.names["10.0.0.1"] = {"one.example", "ssh"};
  resolver_.names["10.0.0.2"] = {"10.0.0.2", "0"};  // the resolver answers the address itself
  resolver_.names["10.0.0.4"] = {"not \xFF text", "s\xFF"};
  for (const char* address : {"10.0.0.1", "10.0.0.2", "10.0.0.3", "10.0.0.4"}) interfaces_.add("en0", address);

  PlistValue found = get_interfaces_info(true);
  EXPECT_THAT(column(found, "dnsName"), ElementsAre("one.example", "", "", ""));
  EXPECT_THAT(column(found, "serviceName"), ElementsAre("ssh", "0", "", ""));

  configuration_.hostName = "server";
  found = get_interfaces_info(true);
  EXPECT_THAT(column(found, "dnsName"), ElementsAre("one.example", "server.local", "", ""));
}

// The rule "name equals numeric address" also holds when both are "", whether names were asked for or not.
TEST_F(InterfaceInfoTest, AddressesThatCannotBeRendered) {
  interfaces_.add("en0", "10.0.0.1").add("en0", "10.0.0.2").add("en0", "10.0.0.3");
  resolver_.unrenderable = {"10.0.0.1"};
  resolver_.garbled = {"10.0.0.2"};
  configuration_.hostName = "server";
  const PlistValue found = get_interfaces_info(false);
  EXPECT_THAT(column(found, "ipAddress"), ElementsAre("", "10.0.0.3")) << "a text that is no UTF-8 drops the entry";
  EXPECT_THAT(column(found, "dnsName"), ElementsAre("server.local", ""));
  configuration_.opens = false;
  EXPECT_THAT(column(get_interfaces_info(false), "dnsName"), ElementsAre("", ""));
}

TEST_F(InterfaceInfoTest, TheLastDescriptionOfAnInterfaceIsMarked) {
  interfaces_.add("en0", "10.0.0.1").add("en1", "10.0.1.1").add("en0", "2001:db8::1").add("en1", "10.0.1.2");
  configuration_.primaryIPv4 = "en0";
  configuration_.primaryIPv6 = "en1";
  configuration_.displayNames = {{"en0", "Office"}, {"en1", "\xFF"}, {"en7", "Elsewhere"}};

  const PlistValue found = get_interfaces_info(false);
  EXPECT_THAT(column(found, "isPrimaryIPv4Interface"), ElementsAre("-", "-", "1", "-")) << "also on an IPv6 address";
  EXPECT_THAT(column(found, "isPrimaryIPv6Interface"), ElementsAre("-", "-", "-", "1"));
  EXPECT_TRUE(found.at(2).get("isPrimaryIPv4Interface").isBoolean());
  EXPECT_THAT(column(found, "userDefinedName"), ElementsAre("-", "-", "Office", "-"));

  configuration_.primaryIPv4 = "en9";
  EXPECT_THAT(column(get_interfaces_info(false), "isPrimaryIPv4Interface"), ElementsAre("-", "-", "-", "-"));
  configuration_.primaryIPv4 = "en0";
  configuration_.opens = false;
  const PlistValue bare = get_interfaces_info(false);
  for (const char* key : {"isPrimaryIPv4Interface", "isPrimaryIPv6Interface", "userDefinedName"})
    EXPECT_THAT(column(bare, key), ElementsAre("-", "-", "-", "-"));
}

// The real services of this machine, whatever it has.
TEST(InterfaceInfo, DescribesThisMachine) {
  const PlistValue found = get_interfaces_info(true);
  EXPECT_TRUE(found.isArray());
  PlistValue ipv4 = PlistValue::mutableArray();
  for (const PlistValue& description : found.elements()) {
    const PlistValue address = description.get("ipAddress");
    const bool isIPv4 = description.get("family") == PlistValue("AF_INET");
    EXPECT_TRUE(isIPv4 ? is_ipv4_address(address) : is_ipv6_address(address)) << description.description();
    EXPECT_TRUE(description.get("dnsName").isString());
    EXPECT_NE(description.get("dnsName"), address);
    if (isIPv4) ipv4.append(address);
  }
  EXPECT_EQ(get_host_ips(), ipv4);
}

TEST(InterfaceInfo, DescribesANetworkAsItChanges) {
  testing::inNetworkNamespace([] {
    EXPECT_EQ(get_interfaces_info(false), PlistValue::arrayOf({}));
    testing::addWire("one", "oneEnd");
    testing::addWire("two", "twoEnd");
    testing::ip("link set one alias 'Office wire'");
    testing::ip("address add 192.0.2.1/24 dev one");
    testing::ip("address add 2001:db8::1/64 dev one nodad");
    testing::ip("address add 198.51.100.1/30 label two:label dev two");
    testing::ip("route add default via 192.0.2.254 dev one metric 5");
    testing::ip("route add default via 198.51.100.2 dev two metric 9");

    PlistValue found = get_interfaces_info(false);
    EXPECT_THAT(column(found, "name"), ElementsAre("one", "two", "one"));
    EXPECT_THAT(column(found, "ipAddress"), ElementsAre("192.0.2.1", "198.51.100.1", "2001:db8::1"));
    EXPECT_THAT(column(found, "subnetMask"), ElementsAre("255.255.255.0", "255.255.255.252", "ffff:ffff:ffff:ffff::"));
    EXPECT_THAT(column(found, "isPrimaryIPv4Interface"), ElementsAre("-", "-", "1"));
    EXPECT_THAT(column(found, "userDefinedName"), ElementsAre("-", "-", "Office wire"));

    testing::ip("link set one down");
    testing::awaitLink("one", false);
    found = get_interfaces_info(false);
    EXPECT_THAT(column(found, "ipAddress"), ElementsAre("192.0.2.1", "198.51.100.1")) << "IPv6 goes, IPv4 stays";
    EXPECT_THAT(column(found, "isPrimaryIPv4Interface"), ElementsAre("-", "1")) << "its route went with the wire";
  });
}

}  // namespace
}  // namespace ostrel
