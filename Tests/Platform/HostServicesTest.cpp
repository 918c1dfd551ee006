// The services that answer from the host: names, users, interfaces, configuration, random bytes, the heap.
#include <arpa/inet.h>
#include <net/if.h>
#include <netdb.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <fstream>
#include <sstream>

#include <gmock/gmock.h>

#include "Platform/Files.h"
#include "Platform/HeapStatistics.h"
#include "Platform/HostMemory.h"
#include "Platform/HostRoot.h"
#include "Platform/InterfaceAddresses.h"
#include "Platform/NameResolver.h"
#include "Platform/NetworkConfiguration.h"
#include "Platform/RandomDevice.h"
#include "Platform/UserDatabase.h"
#include "Support/TemporaryFolder.h"

namespace ostrel {
namespace {

using ostrel::testing::TemporaryFolder;
using ostrel::testing::writeFile;
using ::testing::Contains;
using ::testing::ElementsAre;

const std::string nulAfterRoot("root\0x", 6);

TEST(SocketAddress, ReadsAndRendersNumericForms) {
  const struct {
    const char* text;
    bool ipv4;
    bool ipv6;
    bool linkLocal;
    const char* rendered;
  } cases[] = {{"10.0.0.1", true, false, false, "10.0.0.1"},
               {"010.0.0.1", false, false, false, ""},
               {"10.0.1", false, false, false, ""},
               {"", false, false, false, ""},
               {"::1", false, true, false, "::1"},
               {"FE80::0:1", false, true, true, "fe80::1"},
               {"febf::1", false, true, true, "febf::1"},
               {"fec0::1", false, true, false, "fec0::1"},
               {"ffff:ffff:ffff:ffff::", false, true, false, "ffff:ffff:ffff:ffff::"},
               {"fe80::1%lo", false, false, false, ""}};
  for (const auto& [text, ipv4, ipv6, linkLocal, rendered] : cases) {
    const auto four = SocketAddress::ipv4(text, 311);
    const auto six = SocketAddress::ipv6(text, 311);
    EXPECT_EQ(four.has_value(), ipv4) << text;
    EXPECT_EQ(six.has_value(), ipv6) << text;
    const SocketAddress address = four.value_or(six.value_or(SocketAddress()));
    EXPECT_EQ(address.isIPv6LinkLocal(), linkLocal) << text;
    EXPECT_EQ(address.numericHost(), rendered) << text;
    EXPECT_EQ(address.port(), ipv4 || ipv6 ? 311 : 0) << text;
  }
  EXPECT_FALSE(SocketAddress::ipv4(std::string_view("10.0.0.1\0", 9)));
  EXPECT_EQ(SocketAddress(nullptr, 16).length(), 0U);
  EXPECT_EQ(SocketAddress(SocketAddress::ipv4("1.2.3.4")->get(), 4096).length(), 0U);

  EXPECT_TRUE(SocketAddress::ipv4("10.0.0.1", 1)->isSameHost(*SocketAddress::ipv4("10.0.0.1", 2)));
  EXPECT_TRUE(SocketAddress::ipv4("10.0.0.1")->isSameHost(*SocketAddress::ipv6("::ffff:10.0.0.1")));
  EXPECT_FALSE(SocketAddress::ipv4("10.0.0.1")->isSameHost(*SocketAddress::ipv4("10.0.0.2")));
  EXPECT_FALSE(SocketAddress().isSameHost(SocketAddress()));
}

TEST(NameResolver, ResolvesNumbersAndNames) {
  NameResolver& resolver = NameResolver::current();
  const auto numeric = resolver.resolve("127.0.0.1", "311", AddressFamily::any);
  ASSERT_EQ(numeric.addresses.size(), 1U);
  EXPECT_EQ(numeric.addresses[0].numericHost(), "127.0.0.1");
  EXPECT_EQ(numeric.addresses[0].port(), 311);
  const auto localhost = resolver.resolve("localhost", "", AddressFamily::ipv4);
  ASSERT_FALSE(localhost.addresses.empty()) << NameResolver::errorText(localhost);
  EXPECT_EQ(localhost.addresses[0].numericHost(), "127.0.0.1");

  for (const std::string& host : {std::string(), std::string("127.0.0.1\0x", 11), std::string("::1")}) {
    const auto failed = resolver.resolve(host, "", AddressFamily::ipv4);
    EXPECT_TRUE(failed.addresses.empty());
    EXPECT_NE(failed.error, 0);
    EXPECT_NE(NameResolver::errorText(failed), "");
  }
  EXPECT_TRUE(resolver.sameHost("localhost", "127.0.0.1"));
  EXPECT_FALSE(resolver.sameHost("127.0.0.1", "127.0.0.2"));
  EXPECT_FALSE(resolver.sameHost("", ""));

  const auto named = resolver.nameOf(*SocketAddress::ipv6("::1", 311), NameResolver::NameForm::numeric);
  ASSERT_TRUE(named);
  EXPECT_EQ(named->host, "::1");
  EXPECT_EQ(named->service, "311");
  EXPECT_FALSE(resolver.nameOf(SocketAddress(), NameResolver::NameForm::names));
}

TEST(UserDatabase, FindsUsersGroupsAndMembership) {
  UserDatabase& users = UserDatabase::current();
  const auto root = users.userNamed("root");
  ASSERT_TRUE(root);
  EXPECT_EQ(root->uid, 0U);
  EXPECT_EQ(users.userWithId(0)->name, "root");
  EXPECT_EQ(users.groupNamed("root")->gid, users.groupWithId(0)->gid);
  EXPECT_THAT(users.groupsOfUser("root"), Contains(root->gid));
  for (const std::string& nobody : {std::string(), std::string("no such user"), nulAfterRoot}) {
    EXPECT_FALSE(users.userNamed(nobody));
    EXPECT_FALSE(users.groupNamed(nobody));
    EXPECT_TRUE(users.groupsOfUser(nobody).empty());
  }
}

// A group record that outgrows every first buffer, in a copy of the host's group file that only a child process sees.
TEST(UserDatabase, ReadsRecordsOfAnySize) {
  constexpr int members = 20'000;
  constexpr int groups = 200;
  const TemporaryFolder folder;
  std::string file = "root:x:0:\ncrowd:x:4999:";
  for (int i = 0; i < members; ++i) file += "member-" + std::to_string(i) + ",";
  file += "root\n";
  for (int i = 0; i < groups; ++i) file += "g" + std::to_string(i) + ":x:" + std::to_string(5000 + i) + ":root\n";
  writeFile(folder / "group", file);
  const pid_t child = fork();
  if (child == 0) {
    if (unshare(CLONE_NEWNS) != 0 || mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
        mount((folder / "group").c_str(), "/etc/group", nullptr, MS_BIND, nullptr) != 0)
      _exit(77);
    UserDatabase& users = UserDatabase::current();
    const auto crowd = users.groupNamed("crowd");
    const bool whole = crowd && crowd->members.size() == members + 1 && crowd->members.back() == "root";
    const auto of = users.groupsOfUser("root");
    const bool belongs = std::ranges::find(of, 4999U) != of.end() && std::ranges::find(of, 5199U) != of.end();
    _exit(whole && belongs && of.size() == groups + 2 ? 0 : 1);
  }
  int status = 0;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  ASSERT_TRUE(WIFEXITED(status));
  if (WEXITSTATUS(status) == 77) GTEST_SKIP() << "needs the privilege to mount";
  EXPECT_EQ(WEXITSTATUS(status), 0);
}

TEST(InterfaceAddresses, TellsTheLoopbackAddressWithItsNetmask) {
  const auto entries = InterfaceAddresses::current().list();
  const auto loopback = std::ranges::find_if(
      entries, [](const InterfaceAddress& entry) { return entry.address.numericHost() == "127.0.0.1"; });
  ASSERT_NE(loopback, entries.end());
  EXPECT_EQ(loopback->name, "lo");
  EXPECT_EQ(loopback->netmask.numericHost(), "255.0.0.0");
  EXPECT_NE(loopback->flags & IFF_LOOPBACK, 0U);
}

TEST(NetworkConfiguration, ReadsDevicesAndDisplayNamesBelowTheHostRoot) {
  const TemporaryFolder root;
  writeFile(root / "sys/class/net/eth1/ifalias", "  Office uplink \n");
  writeFile(root / "sys/class/net/eth0/ifalias", "\n");
  writeFile(root / "sys/class/net/bonding_masters", "bond0\n");
  writeFile(root / "sys/class/secret/ifalias", "secret");
  const ScopedHostRoot scope(root.path());
  const auto store = NetworkConfiguration::current().open("client");
  EXPECT_THAT(store->serviceDevices(), ElementsAre("eth0", "eth1"));
  EXPECT_EQ(store->displayName("eth1"), "Office uplink");
  for (const char* none : {"eth0", "eth2", "", ".", "..", "../secret"}) EXPECT_FALSE(store->displayName(none)) << none;
}

// The kernel tells its IPv4 routes as text too: interface and metric of those to everywhere (destination and mask 0).
TEST(NetworkConfiguration, AgreesWithTheKernelOnThePrimaryInterface) {
  std::optional<std::pair<unsigned long, std::string>> best;
  std::ifstream routes("/proc/net/route");
  for (std::string line; std::getline(routes, line);) {
    std::istringstream fields(line);
    std::string name, destination, gateway, flags, count, use, mask;
    unsigned long metric = 0;
    fields >> name >> destination >> gateway >> flags >> count >> use >> metric >> mask;
    if (destination != "00000000" || mask != "00000000") continue;
    if (!best || metric < best->first) best = {metric, name};
  }
  const auto store = NetworkConfiguration::current().open("client");
  EXPECT_EQ(store->primaryInterface(AddressFamily::ipv4).value_or("none"), best ? best->second : "none");
  EXPECT_FALSE(store->primaryInterface(AddressFamily::any));
}

TEST(NetworkConfiguration, TheLocalNameIsTheHostNameUpToItsFirstDot) {
  const auto name = NetworkConfiguration::current().open("client")->localHostName();
  std::string host = *readWholeFile("/proc/sys/kernel/hostname");
  host.pop_back();
  const std::string expected = host.substr(0, host.find('.'));
  EXPECT_EQ(name.value_or("localhost"), expected);
}

TEST(RandomDevice, GivesBytesThatDiffer) {
  const FileDescriptor device = RandomDevice::current().open();
  char first[32] = {};
  char second[32] = {};
  ASSERT_EQ(readSome(device.get(), first, sizeof first), 32);
  ASSERT_EQ(readSome(device.get(), second, sizeof second), 32);
  EXPECT_NE(std::memcmp(first, second, sizeof first), 0);
}

TEST(HeapStatistics, GrowsWithWhatIsAllocated) {
  const HeapStatistics before = heapStatistics();
  if (before.bytesInUse == 0) GTEST_SKIP() << "this allocator keeps no statistics";
  const std::vector<char> large(8U << 20U);
  const std::vector<std::vector<char>> small(1000, std::vector<char>(1000));
  const HeapStatistics after = heapStatistics();
  EXPECT_GE(after.bytesInUse, before.bytesInUse + large.size() + 1'000'000);
  EXPECT_GE(after.largestSize, after.bytesInUse);
  EXPECT_EQ(after.blocksInUse, before.blocksInUse + 1) << "the one block that has a mapping of its own";
}

TEST(HostMemory, ReadsTheKernelsTableAndNothingElse) {
  const std::string whole = "MemTotal:       2048 kB\nMemFree: 5 kB\nMemAvailable:   1024 kB\n";
  const auto memory = parseHostMemory(whole);
  ASSERT_TRUE(memory);
  EXPECT_EQ(memory->total, 2'097'152U);
  EXPECT_EQ(memory->available, 1'048'576U);
  for (const std::string text :
       {"", "MemTotal: 1 kB", "MemTotal: 1 kB\nMemAvailable: 2 kB\n", "MemTotal: x kB\nMemAvailable: 0 kB\n",
        "MemTotal: -1 kB\nMemAvailable: -1 kB\n", "MemTotal: 1\nMemAvailable: 1\n",
        "MemTotal2: 9 kB\nMemAvailable: 1 kB\n", "MemTotal: 99999999999999999999 kB\nMemAvailable: 1 kB\n"})
    EXPECT_FALSE(parseHostMemory(text)) << text;
  EXPECT_GT(hostMemory().value().total, 1U << 24);
}

}  // namespace
}  // namespace ostrel
