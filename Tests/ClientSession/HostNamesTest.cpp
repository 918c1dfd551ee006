#include <gtest/gtest.h>

#include "ClientSession/Fixtures.h"
#include "Platform/InterfaceAddresses.h"

namespace ostrel::testing {
namespace {

class FakeInterfaces final : public InterfaceAddresses {
 public:
  std::vector<InterfaceAddress> list() override { return entries; }
  void add(std::optional<SocketAddress> address) {
    InterfaceAddress entry;
    entry.address = address.value_or(SocketAddress());
    entries.push_back(entry);
  }
  std::vector<InterfaceAddress> entries;
};

TEST(HostNames, ZeroConfNameIsTheStoresNameInLocal) {
  FakeNetworkConfiguration named("myhost");
  FakeNetworkConfiguration nameless(std::nullopt);
  FakeNetworkConfiguration closed("myhost", false);
  for (auto* configuration : {&named, &nameless, &closed}) {
    const ScopedOverride<NetworkConfiguration> override(*configuration);
    const auto expected = configuration == &named ? std::optional<std::string>("myhost.local") : std::nullopt;
    EXPECT_EQ(OstrelDaemonSession::zeroConfName(), expected);
  }
}

TEST(HostNames, DefaultHostNameIsTheFirstIPv4AddressesName) {
  FakeInterfaces interfaces;
  interfaces.add({});  // an entry of another family
  interfaces.add(SocketAddress::ipv4("127.0.0.1"));
  interfaces.add(SocketAddress::ipv6("fe80::1"));
  interfaces.add(SocketAddress::ipv6("2001:db8::1"));
  interfaces.add(SocketAddress::ipv4("192.0.2.7"));
  interfaces.add(SocketAddress::ipv4("192.0.2.8"));
  FakeInterfaces onlyLoopback;
  onlyLoopback.add(SocketAddress::ipv4("127.0.0.1"));
  FakeNetworkConfiguration named("myhost");
  FakeNetworkConfiguration nameless(std::nullopt);

  struct Case {
    FakeInterfaces* interfaces;
    FakeNetworkConfiguration* configuration;
    bool resolve;
    std::string reverseName;
    std::string expected;
  };
  for (const Case& test : {
           Case{&interfaces, &named, true, "seven.example", "seven.example"},
           Case{&interfaces, &named, false, "seven.example", "myhost.local"},
           Case{&interfaces, &named, true, "7.2.0.192.in-addr.arpa", "myhost.local"},
           Case{&interfaces, &named, true, "", "myhost.local"},
           Case{&interfaces, &named, true, "\xFF\xFE", "myhost.local"},
           Case{&onlyLoopback, &named, true, "seven.example", "myhost.local"},
           Case{&onlyLoopback, &nameless, true, "seven.example", "127.0.0.1"},
       }) {
    FakeResolver resolver({});
    resolver.name = test.reverseName;
    const ScopedOverride<InterfaceAddresses> hosts(*test.interfaces);
    const ScopedOverride<NetworkConfiguration> configuration(*test.configuration);
    const ScopedOverride<NameResolver> names(resolver);
    EXPECT_EQ(OstrelDaemonSession::defaultHostNameWithResolve(test.resolve), test.expected) << test.reverseName;
  }
}

}  // namespace
}  // namespace ostrel::testing
