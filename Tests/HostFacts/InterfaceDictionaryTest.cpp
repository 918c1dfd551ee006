#include "HostFacts/InterfaceDictionary.h"

#include <net/if_arp.h>

#include <gmock/gmock.h>

#include "Platform/HostRoot.h"
#include "Support/FakeNetwork.h"
#include "Support/NetworkNamespace.h"
#include "Support/TemporaryFolder.h"

namespace ostrel {
namespace {

using ::testing::ElementsAre;

std::vector<std::string> keysOf(const PlistValue& dictionary) {
  std::vector<std::string> keys;
  for (const PlistEntry& entry : dictionary.entries()) keys.emplace_back(entry.keyText());
  return keys;
}

class InterfaceDictionaryTest : public ::testing::Test {
 protected:
  testing::FakeInterfaces interfaces_;
  testing::FakeNetworkConfiguration configuration_;
  ScopedOverride<InterfaceAddresses> interfacesScope_{interfaces_};
  ScopedOverride<NetworkConfiguration> configurationScope_{configuration_};
};

TEST_F(InterfaceDictionaryTest, IsNullWithoutTheStore) {
  configuration_.opens = false;
  interfaces_.addLink("eth0", {1, 2, 3, 4, 5, 6});
  EXPECT_TRUE(NIGetInterfaceDictionary().isNull());
  EXPECT_EQ(configuration_.clientName, "NetworkInterfaceInfo");
}

TEST_F(InterfaceDictionaryTest, ListsTheLinksInTheSystemsOrderWithWhatIsKnown) {
  interfaces_.add("eth9", "10.0.0.9").addLink("eth1", {0x00, 0x1c, 0x42, 0x00, 0x00, 0x08}).addLink("tun0", {});
  interfaces_.addLink("", {1})
      .addLink("eth0.7", {0xAB, 0x00})
      .addLink("bad\xFF", {1})
      .addLink("lo", {}, ARPHRD_LOOPBACK);
  configuration_.displayNames = {{"eth1", "Office"}, {"tun0", "\xFF"}};
  configuration_.types = {{"eth1", "Ethernet"}};
  configuration_.services = {{"eth1", "10.0.0.1", "one.example"}, {"tun0", {}, {}}, {"eth1", "10.0.0.2", {}}};
  configuration_.states = {{"eth1", {"10.0.0.5", "10.0.1.5"}, {"255.255.255.0", "255.255.255.252"}, {}},
                           {"tun0", {}, {}, {}}};

  const PlistValue found = NIGetInterfaceDictionary();
  EXPECT_FALSE(found.isMutable());
  EXPECT_THAT(keysOf(found), ElementsAre("eth1", "tun0", "eth0.7", "lo"));
  EXPECT_EQ(found.get("eth1"),
            PlistValue::dictionaryOf({{"interfaceName", "eth1"},
                                      {"UserDefinedName", "Office"},
                                      {"Hardware", "Ethernet"},
                                      {"router", "10.0.0.2"},  // the later service's
                                      {"hostname", "one.example"},
                                      {"isActive", true},
                                      {"ipv4Addresses", PlistValue::arrayOf({"10.0.0.5", "10.0.1.5"})},
                                      {"ipv4SubnetMasks", PlistValue::arrayOf({"255.255.255.0", "255.255.255.252"})},
                                      {"hasIPV4", true},
                                      {"ethernetAddr", "0:1c:42:0:0:8"}}));
  EXPECT_EQ(found.get("tun0"),
            PlistValue::dictionaryOf(
                {{"interfaceName", "tun0"}, {"UserDefinedName", "tun0"}, {"isActive", true}, {"hasIPV4", true}}));
  EXPECT_EQ(
      found.get("eth0.7"),
      PlistValue::dictionaryOf({{"interfaceName", "eth0.7"}, {"UserDefinedName", "eth0.7"}, {"ethernetAddr", "ab:0"}}));
}

TEST_F(InterfaceDictionaryTest, LongLinkLayerAddressesAreTakenAsFarAsTheyFit) {
  interfaces_.addLink("ib0", std::vector<unsigned char>(20, 0x0F)).addLink("x0", std::vector<unsigned char>(200, 1));
  const PlistValue found = NIGetInterfaceDictionary();
  EXPECT_EQ(found.get("ib0").get("ethernetAddr").stringValue(), "f:f:f:f:f:f:f:f:f:f:f:f:f:f:f:f:f:f:f:f");
  EXPECT_EQ(found.get("x0").get("ethernetAddr").stringValue().size(), 116 * 2 - 1U);
}

// A device without a link-layer address. False where tunnels cannot be made.
bool addTunnel(const char* name) {
  try {
    testing::ip(std::string("tuntap add mode tun dev ") + name);
    testing::ip(std::string("address add 203.0.113.1/32 dev ") + name);
    return true;
  } catch (const std::runtime_error&) {
    return false;
  }
}

TEST(InterfaceDictionary, FollowsTheKernel) {
  testing::inNetworkNamespace([] {
    const testing::TemporaryFolder root;
    std::filesystem::create_directory_symlink("/sys", root / "sys");
    testing::writeFile(
        root / "etc/hosts",
        "127.0.0.1 localhost\n# 192.0.2.1 no\n\n 192.0.2.10 ten\n192.0.2.1\n\t192.0.2.1\tone.example one # x\n");
    const ScopedHostRoot scope(root.path());
    testing::addWire("one", "oneEnd", "02:1c:42:00:00:08");
    testing::addWire("two", "twoEnd");
    testing::ip("link set one alias 'Office wire'");
    testing::ip("address add 198.51.100.9/30 broadcast 198.51.100.8 label one:x dev one");
    testing::ip("address add 192.0.2.1/24 dev one");
    testing::ip("address add 2001:db8::1/64 dev two nodad");
    testing::ip("address add 203.0.113.5 peer 203.0.113.6 dev oneEnd");
    testing::ip("route add default via 192.0.2.254 dev one metric 7");
    testing::ip("route add default via 192.0.2.253 dev one metric 5");

    PlistValue found = NIGetInterfaceDictionary();
    const PlistValue first =
        PlistValue::dictionaryOf({{"interfaceName", "one"},
                                  {"UserDefinedName", "Office wire"},
                                  {"Hardware", "Ethernet"},
                                  {"router", "192.0.2.253"},
                                  {"hostname", "one.example"},
                                  {"isActive", true},
                                  {"ipv4Addresses", PlistValue::arrayOf({"198.51.100.9", "192.0.2.1"})},
                                  {"ipv4SubnetMasks", PlistValue::arrayOf({"255.255.255.252", "255.255.255.0"})},
                                  {"ipv4BroadcastAddresses", PlistValue::arrayOf({"198.51.100.8", "192.0.2.255"})},
                                  {"hasIPV4", true},
                                  {"ethernetAddr", "2:1c:42:0:0:8"}});
    EXPECT_EQ(found.get("one"), first);
    EXPECT_EQ(found.get("oneEnd").get("ipv4Addresses"), PlistValue::arrayOf({"203.0.113.5"})) << "not its peer's";
    EXPECT_FALSE(found.get("oneEnd").contains("router"));
    EXPECT_THAT(keysOf(found.get("two")), ElementsAre("interfaceName", "UserDefinedName", "Hardware", "ethernetAddr"))
        << "IPv6 alone is no IPv4 state";
    EXPECT_THAT(keysOf(found.get("lo")), ElementsAre("interfaceName", "UserDefinedName", "Hardware", "ipv4Addresses",
                                                     "ipv4SubnetMasks", "hasIPV4"));

    testing::ip("link set oneEnd down");
    testing::awaitLink("one", false);
    found = NIGetInterfaceDictionary();
    EXPECT_TRUE(found.get("one").get("hasIPV4").boolValue());
    EXPECT_FALSE(found.get("one").contains("isActive")) << "its cable is out";
    testing::ip("address flush dev one");
    EXPECT_THAT(keysOf(NIGetInterfaceDictionary().get("one")),
                ElementsAre("interfaceName", "UserDefinedName", "Hardware", "ethernetAddr"));

    if (addTunnel("tun7")) {
      const PlistValue tunnel = NIGetInterfaceDictionary().get("tun7");
      EXPECT_THAT(keysOf(tunnel), ElementsAre("interfaceName", "UserDefinedName", "Hardware", "ipv4Addresses",
                                              "ipv4SubnetMasks", "hasIPV4"));
      EXPECT_EQ(tunnel.get("Hardware"), PlistValue("Tunnel"));
    }
  });
}

// Equal-cost routes and routers of the other family, as the kernel tells them.
TEST(InterfaceDictionary, RoutersOfSharedRoutes) {
  testing::inNetworkNamespace([] {
    testing::addWire("one", "oneEnd");
    testing::addWire("two", "twoEnd");
    testing::addWire("six", "sixEnd");
    testing::ip("address add 192.0.2.1/24 dev one");
    testing::ip("address add 198.51.100.1/24 dev two");
    testing::ip("address add 203.0.113.1/24 dev six");
    testing::ip("route add default nexthop via 192.0.2.254 dev one nexthop via 198.51.100.254 dev two");
    testing::ip("-4 route add default via inet6 fe80::1 dev six metric 9");
    const PlistValue found = NIGetInterfaceDictionary();
    EXPECT_EQ(found.get("one").get("router"), PlistValue("192.0.2.254"));
    EXPECT_EQ(found.get("two").get("router"), PlistValue("198.51.100.254"));
    EXPECT_EQ(found.get("six").get("router"), PlistValue("fe80::1"));
  });
}

}  // namespace
}  // namespace ostrel
