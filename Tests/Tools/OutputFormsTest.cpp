// What ostrelctl makes of words and of replies.
#include <gtest/gtest.h>

#include <limits>

#include "Containers/PropertyList.h"
#include "Support/TemporaryFolder.h"
#include "ostrelctl/HostCommand.h"
#include "ostrelctl/JsonForm.h"
#include "ostrelctl/RequestArguments.h"
#include "ostrelctl/TextForm.h"

namespace ostrel {
namespace {

PlistValue everyKind() {
  return PlistValue::dictionaryOf(
      {{"text", "two\nlines\x1b[2J"},
       {"yes", true},
       {"int", -5},
       {"large", std::uint64_t{18446744073709551615U}},
       {"real", 0.1},
       {"inf", std::numeric_limits<double>::infinity()},
       {"date", PlistDate{1313424505.25}},
       {"data", PlistData{std::string_view("\0\1\2", 3)}},
       {"array", PlistValue::arrayOf({1, PlistValue::dictionaryOf({{"a", "b"}}), PlistValue::mutableArray()})}});
}

TEST(OutputForms, TextShowsEachMemberAndNothingThatSteersATerminal) {
  EXPECT_EQ(readableText(everyKind()),
            "text:\n  two\n  lines\\x1B[2J\nyes: true\nint: -5\nlarge: 18446744073709551615\nreal: 0.1\ninf: inf\n"
            "date: 2011-08-15T16:08:25.25Z\ndata: AAEC\narray:\n  - 1\n  -\n    a: b\n  - (none)\n");
}

TEST(OutputForms, JsonKeepsOrderAndEveryDigit) {
  EXPECT_EQ(jsonText(everyKind()),
            "{\n  \"text\": \"two\\nlines\\u001b[2J\",\n  \"yes\": true,\n  \"int\": -5,\n"
            "  \"large\": 18446744073709551615,\n  \"real\": 0.1,\n  \"inf\": \"inf\",\n"
            "  \"date\": \"2011-08-15T16:08:25.25Z\",\n  \"data\": \"AAEC\",\n  \"array\": [\n    1,\n    {\n"
            "      \"a\": \"b\"\n    },\n    []\n  ]\n}\n");
}

TEST(OutputForms, TheHostsPageLeavesOutWhatIsNotKnown) {
  const PlistValue wired =
      PlistValue::dictionaryOf({{"interfaceName", "eth0"},
                                {"UserDefinedName", "Office"},
                                {"Hardware", "Ethernet"},
                                {"router", "192.0.2.254"},
                                {"isActive", true},
                                {"ipv4Addresses", PlistValue::arrayOf({"192.0.2.1", "192.0.2.2", 7})},
                                {"ipv4SubnetMasks", PlistValue::arrayOf({"255.255.255.0", "255.255.255.0"})},
                                {"ipv4BroadcastAddresses", PlistValue::arrayOf({"192.0.2.255"})},
                                {"hasIPV4", true},
                                {"ethernetAddr", "0:1c:42:0:0:8"}});
  const PlistValue bare = PlistValue::dictionaryOf({{"interfaceName", "x"}, {"UserDefinedName", "x"}});
  const PlistValue disk = PlistValue::dictionaryOf({{"path", "/"},
                                                    {"device", "/dev/dm-0"},
                                                    {"fileSystem", "ext4"},
                                                    {"fullSync", "supported"},
                                                    {"interconnects", PlistValue::arrayOf({"SATA", "", "SAS"})}});
  const PlistValue failed = PlistValue::dictionaryOf(
      {{"path", "/n"}, {"device", "s:/x"}, {"fileSystem", "nfs4"}, {"fullSync", "not examined"}, {"failure", "gone"}});
  EXPECT_EQ(readableText(hostPage(PlistValue::dictionaryOf(
                {{"hostName", "server"},
                 {"failoverRole", "master"},
                 {"failoverState", 1},
                 {"interfaces", PlistValue::dictionaryOf({{"eth0", wired}, {"x", bare}, {"odd", 5}})},
                 {"volumes", PlistValue::arrayOf({disk, failed})}}))),
            "host: server\nfail-over: master (1)\ninterfaces:\n  eth0:\n    display name: Office\n    type: Ethernet\n"
            "    state: active\n    router: 192.0.2.254\n    addresses:\n"
            "      - 192.0.2.1 (mask 255.255.255.0, broadcast 192.0.2.255)\n      - 192.0.2.2 (mask 255.255.255.0)\n"
            "      -\n    link-layer address: 0:1c:42:0:0:8\n  x:\n    state: no IPv4 address\n"
            "  odd:\n    state: no IPv4 address\nvolumes:\n  /:\n    device: /dev/dm-0 (ext4)\n"
            "    full flush: supported (SATA, unknown, SAS)\n  /n:\n    device: s:/x (nfs4)\n"
            "    full flush: not examined (gone)\n");
  EXPECT_EQ(readableText(hostPage(PlistValue::dictionaryOf({{"interfaces", "x"}, {"volumes", 3}}))),
            "interfaces: (empty)\nvolumes: (empty)\n");
}

TEST(RequestArguments, TakesEachType) {
  const testing::TemporaryFolder folder;
  testing::writeFile(folder / "file", "7\n");
  std::string fault;
  const auto made = requestFromWords(
      "go",
      {"a=b=c@d", "empty=", "n:int=-9223372036854775808", "u:int=18446744073709551615", "r:real=1e3", "t:bool=true",
       "f:bool=false", "d:date=2011-08-15T16:08:25Z", "b:data=AAEC", "j:json=[1,{\"k\":2.5}]",
       "file@" + folder / "file", "n2:int@" + folder / "file", "b2:data@" + folder / "file"},
      fault);
  ASSERT_TRUE(made) << fault;
  EXPECT_EQ(*made, PlistValue::dictionaryOf({{"command", "go"},
                                             {"a", "b=c@d"},
                                             {"empty", ""},
                                             {"n", std::numeric_limits<std::int64_t>::min()},
                                             {"u", std::uint64_t{18446744073709551615U}},
                                             {"r", 1000.0},
                                             {"t", true},
                                             {"f", false},
                                             {"d", PlistDate{1313424505}},
                                             {"b", PlistData{std::string_view("\0\1\2", 3)}},
                                             {"j", PlistValue::arrayOf({1, PlistValue::dictionaryOf({{"k", 2.5}})})},
                                             {"file", "7\n"},
                                             {"n2", 7},
                                             {"b2", PlistData{"7\n"}}}));
}

TEST(RequestArguments, RefusesWhatIsNotOfItsType) {
  const std::string cases[] = {
      "word",
      "=x",
      ":int=5",
      "a:int=",
      "a:int=5x",
      "a:int= 5",
      "a:int=18446744073709551616",
      "a:int=0x5",
      "a:real=1,5",
      "a:bool=yes",
      "a:date=2011-02-30T00:00:00Z",
      "a:date=2011-08-15",
      "a:date=2011-08-15T16:08:25",
      "a:data=AAE",
      "a:json={",
      "a:json=null",
      "a:json=[null]",
      "a:json={\"k\":1,\"k\":2}",
      "a:json=1 2",
      "a:what=5",
      "command=x",
      "a@/does/not/exist",
      "a=\xff",
      "a:json=" + std::string(100'000, '['),
      "a:json=" + std::string(maximumPlistDepth + 1, '[') + std::string(maximumPlistDepth + 1, ']'),
  };
  for (const std::string& word : cases) {
    std::string fault;
    EXPECT_FALSE(requestFromWords("go", {word}, fault)) << word.substr(0, 40);
    EXPECT_NE(fault, "") << word.substr(0, 40);
  }
  std::string fault;
  EXPECT_FALSE(requestFromWords("go", {"a=1", "a=2"}, fault));
}

}  // namespace
}  // namespace ostrel
