// ostrelctl ports: the list of port mappings, and the rules that are made of it.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include <filesystem>

#include "Containers/PropertyList.h"
#include "Support/NetworkNamespace.h"
#include "Tools/ChildProcess.h"
#include "ostrelctl/PortRules.h"

namespace ostrel {
namespace {

using nlohmann::json;
using ::testing::HasSubstr;
using testing::inNetworkNamespace;
using testing::NotPossibleHere;
using testing::Outcome;
using testing::runProgram;
using testing::TemporaryFolder;
using testing::writeFile;

class PortsCommand : public ::testing::Test {
 protected:
  Outcome ports(std::vector<std::string> words) {
    words.insert(words.begin(), {OSTRELCTL_PROGRAM, "--root", folder.path(), "ports"});
    return runProgram(words);
  }
  json asJson(std::vector<std::string> words) {
    words.emplace_back("--json");
    const Outcome outcome = ports(words);
    EXPECT_EQ(outcome.status, 0) << outcome.errors;
    return json::parse(outcome.output);
  }
  bool isUntouched() { return std::filesystem::is_empty(folder.path()); }

  TemporaryFolder folder;
  const std::string path = folder / "private/etc/nat/autoportmap.plist";
};

TEST_F(PortsCommand, AddsListsAndRemoves) {
  EXPECT_EQ(ports({"list"}).output, "");
  EXPECT_THAT(ports({"add", "80", "--dry-run"}).output, HasSubstr("+ any  *:80 "));
  EXPECT_TRUE(isUntouched()) << "reading and trying make no file";

  const json web = {{"localHostIpPort", 8080},   {"remoteHostIpPort", 80},        {"protocol", "TCP"},
                    {"localHostIp", "10.0.0.5"}, {"externalHostIp", "192.0.2.1"}, {"description", "Web\nserver"}};
  EXPECT_EQ(ports({"add", "80", "--protocol", "tcp", "--to", "10.0.0.5", "--to-port", "8080", "--external", "192.0.2.1",
                   "--description", "Web\nserver"})
                .status,
            0);
  EXPECT_EQ(asJson({"add", "53"})["added"], json::array({{{"localHostIpPort", 53}, {"remoteHostIpPort", 53}}}));
  EXPECT_EQ(asJson({"list"})["portMappings"][0], web);
  EXPECT_EQ(ports({"list"}).output,
            "tcp  192.0.2.1:80                 -> 10.0.0.5:8080                Web server\n"
            "any  *:53                         -> this machine:53\n");

  const std::vector<std::string> removal{"remove",   "80",        "--protocol", "TCP",      "--to",
                                         "10.0.0.5", "--to-port", "8080",       "--dry-run"};
  EXPECT_EQ(asJson(removal), json({{"saved", false}, {"removed", {web}}, {"added", json::array()}}));
  EXPECT_EQ(ports({removal.begin(), removal.end() - 1}).status, 0);
  EXPECT_EQ(asJson({"list"})["portMappings"].size(), 1U);
}

TEST_F(PortsCommand, SaysWhatIsWrong) {
  ASSERT_EQ(ports({"add", "53"}).status, 0);
  const struct {
    std::vector<std::string> words;
    int status;
    const char* reason;
  } cases[] = {
      {{}, 2, "subcommand is required"},
      {{"add"}, 2, "PORT is required"},
      {{"add", "65536"}, 2, "65536"},
      {{"add", "80", "--to", ""}, 2, "is empty"},
      {{"add", "80", "--protocol", "icmp"}, 1, "neither tcp nor udp"},
      {{"add", "80", "--to", "www.example.org"}, 1, "no numeric"},
      {{"add", "80", "--to", "224.0.0.1"}, 1, "none by which a host can be reached"},
      {{"add", "80", "--description", "\xFF"}, 1, "no text"},
      {{"add", "53"}, 1, "there already"},
      {{"add", "53", "--protocol", "udp"}, 1, "same packets"},
      {{"remove", "53", "--protocol", "udp"}, 1, "no such mapping"},
  };
  for (const auto& [words, status, reason] : cases) {
    const Outcome outcome = ports(words);
    EXPECT_EQ(outcome.status, status) << reason;
    EXPECT_THAT(outcome.errors, HasSubstr(reason));
  }
  writeFile(path, "rubbish");
  for (const char* verb : {"list", "render"}) {
    const Outcome outcome = ports({verb});
    EXPECT_EQ(outcome.status, 3);
    EXPECT_THAT(outcome.errors, HasSubstr("no list of port mappings"));
  }
}

TEST(PortRules, AreTakenByThePacketFilter) {
  inNetworkNamespace([] {
    const std::string program = "/usr/sbin/nft";
    if (!std::filesystem::exists(program)) throw NotPossibleHere("there is no nft");
    const TemporaryFolder folder;
    writeFile(folder / "probe", "table inet probe {\n}\n");
    if (const Outcome probe = runProgram({program, "-c", "-f", folder / "probe"}); probe.status != 0)
      throw NotPossibleHere("nft cannot check here: " + probe.errors);

    const auto ports = [&](std::vector<std::string> words) {
      words.insert(words.begin(), {OSTRELCTL_PROGRAM, "--root", folder.path(), "ports"});
      const Outcome outcome = runProgram(words);
      EXPECT_EQ(outcome.status, 0) << outcome.errors;
      return outcome.output;
    };
    const std::vector<std::string> additions[] = {
        {"80", "--protocol", "tcp", "--to", "10.0.0.5", "--to-port", "8080"},
        {"80", "--protocol", "tcp", "--to", "2001:db8::5"},
        {"81", "--protocol", "udp", "--external", "192.0.2.1", "--to", "10.0.0.5"},
        {"82", "--external", "2001:db8::1", "--to", "2001:db8::5"},
        {"83", "--external", "2001:db8::1", "--to-port", "8083"},
        {"84"},
    };
    for (std::vector<std::string> words : additions) {
      words.insert(words.begin(), "add");
      ports(words);
    }
    const std::string rules = ports({"render"});
    writeFile(folder / "rules", rules);
    for (const char* mode : {"--check", "--numeric", "--numeric"}) {
      const Outcome outcome = runProgram({program, mode, "-f", folder / "rules"});
      EXPECT_EQ(outcome.status, 0) << mode << '\n' << outcome.errors << rules;
    }
    const std::string loaded = runProgram({program, "list", "table", "inet", "ostrel_ports"}).output;
    for (const char* rule :
         {"meta nfproto ipv4 fib daddr type local tcp dport 80 dnat ip to 10.0.0.5:8080",
          "meta nfproto ipv6 fib daddr type local tcp dport 80 dnat ip6 to [2001:db8::5]:80",
          "ip daddr 192.0.2.1 udp dport 81 dnat ip to 10.0.0.5:81",
          "ip6 daddr 2001:db8::1 tcp dport 82 dnat ip6 to [2001:db8::5]:82",
          "ip6 daddr 2001:db8::1 udp dport 83 redirect to :8083", "fib daddr type local udp dport 84 redirect to :84"})
      EXPECT_THAT(loaded, HasSubstr(rule));
    EXPECT_EQ(std::ranges::count(loaded, '\n'), 5 + 9) << "none twice: the second time replaced the first\n" << loaded;
  });
}

// The list is a file that others write, too.
TEST_F(PortsCommand, NothingButNumbersAndAddressesBecomesARule) {
  const std::string evil = "1.2.3.4\n\t\taccept; } } flush ruleset #";
  PlistValue mappings = PlistValue::mutableArray();
  for (const char* key : {"protocol", "localHostIp", "externalHostIp", "description", "other"}) {
    PlistValue entry = PlistValue::mutableDictionaryOf({{"localHostIpPort", 80}, {"remoteHostIpPort", 80}});
    entry.set(key, evil);
    mappings.append(entry);
  }
  mappings.append(PlistValue::dictionaryOf({{"localHostIpPort", evil}}));
  mappings.append(PlistValue::dictionaryOf({{"localHostIpPort", 80}, {"remoteHostIpPort", evil}}));
  writeFile(path, *writeXmlPropertyList(PlistValue::dictionaryOf({{"portMappings", mappings}})));

  const Outcome outcome = ports({"render"});
  EXPECT_EQ(outcome.status, 0);
  EXPECT_THAT(outcome.errors, HasSubstr("5 elements of the list are no mappings"));
  PortMapping plain;
  plain.localPort = plain.externalPort = 80;
  EXPECT_EQ(outcome.output, nftablesRules(std::vector<PortMapping>{plain, plain}));
  EXPECT_EQ(outcome.output.find("flush"), std::string::npos);
}

}  // namespace
}  // namespace ostrel
