#include "Network/PortMappings.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cerrno>
#include <memory>
#include <thread>
#include <vector>

#include "Containers/PropertyList.h"
#include "Network/PortmapList.h"
#include "Platform/HostRoot.h"
#include "Support/Fakes.h"
#include "Support/TemporaryFolder.h"

namespace ostrel {
namespace {

using testing::readFile;
using testing::writeFile;

PlistValue mapping(const char* operation, int port, std::initializer_list<PlistValue::KeyValue> more = {}) {
  PlistValue made = PlistValue::mutableDictionaryOf({{"operation", operation}, {"localHostIpPort", port}});
  for (const auto& [key, value] : more) made.set(key, value);
  return made;
}

class PortMappings : public ::testing::Test {
 protected:
  struct Outcome {
    std::int32_t status;
    PlistValue description;
  };
  Outcome change(const PlistValue& mappings, bool rollback = false, PlistValue slot = {}) {
    const std::int32_t status = KpChangePortMappings(mappings, nullptr, rollback, &slot);
    return {status, slot};
  }
  PlistValue entries() { return readPropertyList(readFile(path)).get("portMappings"); }
  bool isUntouched() const { return !std::filesystem::exists(folder / "private"); }

  testing::TemporaryFolder folder;
  ScopedHostRoot root{folder.path()};
  const std::string path = folder / "private/etc/nat/autoportmap.plist";
};

TEST_F(PortMappings, ASimpleSetIsAppliedAndTakenBack) {
  PlistValue set = KpCreateSimplePortMappingsSet(80, true, true);
  EXPECT_EQ(set.count(), 1U);
  EXPECT_EQ(set.at(0), PlistValue::dictionaryOf({{"operation", "add"},
                                                 {"protocol", "TCP"},
                                                 {"localHostIp", "*"},
                                                 {"remoteHostIp", "*"},
                                                 {"localHostIpPort", 80},
                                                 {"remoteHostIpPort", 80}}));
  EXPECT_EQ(change(set).status, 0);
  EXPECT_EQ(entries().at(0),
            PlistValue::dictionaryOf(
                {{"localHostIpPort", 80}, {"remoteHostIpPort", 80}, {"protocol", "TCP"}, {"description", "Halvane"}}));
  EXPECT_EQ(change(KpCreateSimplePortMappingsSet(80, false, false)).status, ENOENT) << "UDP was not added";
  EXPECT_EQ(change(KpCreateSimplePortMappingsSet(80, true, false)).status, 0);
  EXPECT_EQ(entries().count(), 0U);
  struct stat status {};
  ASSERT_EQ(stat((path + ".lock").c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 07777U, 0600U) << "who can open the lock can keep it";
}

TEST_F(PortMappings, TellsEarlyFailuresOnlyToASlotThatHoldsAValue) {
  EXPECT_EQ(change(nullptr).status, 22);
  EXPECT_TRUE(change(nullptr).description.isNull());
  EXPECT_EQ(change(nullptr, false, "old").description, PlistValue("The portMappings argument is NULL"));
  EXPECT_TRUE(change(PlistValue::mutableArray(), true).description.isNull());
  EXPECT_EQ(change(nullptr, true, "old").description, PlistValue("Rollback not supported in this implementation"));
  EXPECT_EQ(KpChangePortMappings(nullptr, nullptr, true, nullptr), 22);
  EXPECT_EQ(change(PlistValue::mutableArray(), false, "old").description, PlistValue("old"));
  EXPECT_TRUE(isUntouched()) << "none of these opens the list";
}

TEST_F(PortMappings, KeepsWhatWasAppliedBeforeAFailure) {
  constexpr const char* noOperation = "Invalid or inexistent operation type";
  constexpr const char* raised = "Exception thrown during port mapping operation";
  const struct {
    const char* what;
    PlistValue second;
    std::int32_t status;
    PlistValue description;
  } cases[] = {
      {"another operation", mapping("ADD", 2), 22, noOperation},
      {"no operation", PlistValue::dictionaryOf({{"localHostIpPort", 2}}), 22, noOperation},
      {"an operation that is no text", PlistValue::dictionaryOf({{"operation", 1}}), 22, noOperation},
      {"no port", PlistValue::dictionaryOf({{"operation", "add"}}), 22, "Unspecified local port"},
      {"a port that is text", mapping("add", 2, {{"localHostIpPort", "80"}}), -1, raised},
      {"an external port that is text", mapping("add", 2, {{"remoteHostIpPort", "*"}}), -1, raised},
      {"no dictionary", "add", -1, raised},
      {"port 0", mapping("add", 0), ERANGE, {}},
      {"a port beyond 65535", mapping("add", 2, {{"remoteHostIpPort", 65536}}), ERANGE, {}},
      {"a port that is 80 in 32 bits", mapping("add", 2, {{"localHostIpPort", 4294967376}}), ERANGE, {}},
      {"a protocol in small letters", mapping("add", 2, {{"protocol", "tcp"}}), EPROTONOSUPPORT, {}},
      {"a protocol that is no text", mapping("add", 2, {{"protocol", 6}}), EPROTONOSUPPORT, {}},
      {"an address that is a name", mapping("add", 2, {{"localHostIp", "localhost"}}), EAFNOSUPPORT, {}},
      {"an address and more", mapping("add", 2, {{"localHostIp", "10.0.0.1; drop"}}), EAFNOSUPPORT, {}},
      {"an address that is no text", mapping("remove", 2, {{"localHostIp", 10}}), EAFNOSUPPORT, {}},
      {"two families",
       mapping("add", 2, {{"localHostIp", "10.0.0.1"}, {"externalHostIp", "2001:db8::1"}}),
       EAFNOSUPPORT,
       {}},
      {"nobody's address", mapping("add", 2, {{"localHostIp", "0.0.0.0"}}), EADDRNOTAVAIL, {}},
      {"everybody's address", mapping("add", 2, {{"externalHostIp", "ff02::1"}}), EADDRNOTAVAIL, {}},
      {"an address of one link", mapping("add", 2, {{"localHostIp", "fe80::1"}}), EADDRNOTAVAIL, {}},
      {"a description that XML cannot hold", mapping("add", 2, {{"description", "a\x01"}}), EILSEQ, {}},
      {"what is not there", mapping("remove", 2), ENOENT, {}},
      {"the first once more", mapping("add", 1, {{"description", "twice"}}), EEXIST, {}},
      {"one protocol of the first", mapping("add", 1, {{"protocol", "UDP"}}), EADDRINUSE, {}},
      {"the first's port for others", mapping("add", 9, {{"remoteHostIpPort", 1}}), EADDRINUSE, {}},
      {"one address of the first", mapping("add", 1, {{"externalHostIp", "192.0.2.1"}}), EADDRINUSE, {}},
  };
  for (const auto& [what, second, status, description] : cases) {
    std::filesystem::remove(path);
    const Outcome outcome = change(PlistValue::arrayOf({mapping("add", 1), second, mapping("add", 3)}));
    EXPECT_EQ(outcome.status, status) << what;
    EXPECT_EQ(outcome.description, description) << what;
    EXPECT_EQ(entries().count(), 1U) << what;
    EXPECT_EQ(entries().at(0).get("remoteHostIpPort"), PlistValue(1)) << what;
  }
  EXPECT_EQ(change("no array").status, -1);
}

TEST_F(PortMappings, TakesEveryPartOfAMapping) {
  const Outcome outcome = change(PlistValue::arrayOf({
      mapping("add", 8080,
              {{"remoteHostIpPort", 80.9},
               {"protocol", "TCP"},
               {"localHostIp", "2001:DB8:0::5"},
               {"externalHostIp", "2001:db8::1"},
               {"remoteHostIp", 7},
               {"description", "Web"}}),
      mapping("add", 80, {{"protocol", "*"}, {"localHostIp", "10.0.0.5"}, {"description", "*"}}),
      mapping("add", 80, {{"protocol", "UDP"}, {"externalHostIp", "2001:db8::1"}}),
  }));
  EXPECT_EQ(outcome.status, 0) << "other families, protocols and external addresses do not meet";
  EXPECT_EQ(entries().at(0), PlistValue::dictionaryOf({{"localHostIpPort", 8080},
                                                       {"remoteHostIpPort", 80},
                                                       {"protocol", "TCP"},
                                                       {"localHostIp", "2001:db8::5"},
                                                       {"externalHostIp", "2001:db8::1"},
                                                       {"description", "Web"}}));
  EXPECT_EQ(entries().at(1), PlistValue::dictionaryOf({{"localHostIpPort", 80},
                                                       {"remoteHostIpPort", 80},
                                                       {"localHostIp", "10.0.0.5"},
                                                       {"description", "Halvane"}}));
  EXPECT_EQ(change(PlistValue::arrayOf({mapping("remove", 80)})).status, ENOENT) << "absent removes only absent";
  const PlistValue spelledOtherwise =
      mapping("remove", 8080, {{"remoteHostIpPort", 80}, {"protocol", "TCP"}, {"localHostIp", "2001:db8::0:5"}});
  EXPECT_EQ(change(PlistValue::arrayOf({spelledOtherwise})).status, 0);
  EXPECT_EQ(entries().count(), 2U);
}

TEST_F(PortMappings, KeepsWhatItDoesNotKnow) {
  const PlistValue strange = PlistValue::arrayOf({"a text", PlistValue::dictionaryOf({{"localHostIpPort", 70000}}),
                                                  PlistValue::dictionaryOf({{"localHostIpPort", 5}, {"own", "kept"}})});
  const PlistValue list = PlistValue::dictionaryOf({{"version", 3}, {"portMappings", strange}, {"more", "yes"}});
  writeFile(path, *writeBinaryPropertyList(list));
  chmod(path.c_str(), 0640);
  EXPECT_EQ(change(PlistValue::arrayOf({mapping("add", 6)})).status, 0);
  const PlistValue written = readBinaryPropertyList(readFile(path));
  EXPECT_EQ(written.get("version"), PlistValue(3));
  EXPECT_EQ(written.get("more"), PlistValue("yes"));
  for (std::size_t at = 0; at < strange.count(); ++at)
    EXPECT_EQ(written.get("portMappings").at(at), strange.at(at)) << at;
  struct stat status {};
  ASSERT_EQ(stat(path.c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 07777U, 0640U);

  KpPortmapListRef opened = nullptr;
  ASSERT_EQ(openPortmapListForReading(path, &opened), 0);
  std::size_t unknown = 0;
  EXPECT_EQ(portMappingsOf(opened, &unknown).size(), 2U);
  EXPECT_EQ(unknown, 2U);
  EXPECT_EQ(KpAddPortToList(opened, 7, 7, nullptr, nullptr, nullptr, nullptr), 0);
  EXPECT_EQ(KpUpdatePortmapListFile(opened), EROFS);
  KpReleasePortmapListRef(opened);
}

TEST_F(PortMappings, NeverReplacesAFileThatItCannotRead) {
  const std::pair<std::string, int> cases[] = {
      {"", EBADMSG},
      {"rubbish", EBADMSG},
      {*writeXmlPropertyList(PlistValue::arrayOf({1})), EBADMSG},
      {*writeXmlPropertyList(PlistValue::dictionaryOf({{"portMappings", "none"}})), EBADMSG},
      {std::string((16U << 20U) + 1, ' '), EFBIG},
  };
  for (const auto& [bytes, status] : cases) {
    writeFile(path, bytes);
    EXPECT_EQ(change(PlistValue::arrayOf({mapping("add", 6)})).status, status);
    EXPECT_EQ(readFile(path), bytes);
  }
  std::filesystem::remove(path);
  ASSERT_EQ(mkfifo(path.c_str(), 0600), 0);
  EXPECT_EQ(change(PlistValue::arrayOf({mapping("add", 6)})).status, EINVAL) << "a pipe is not waited for";
  std::filesystem::remove(path);
  std::filesystem::create_directory(path);
  EXPECT_EQ(change(PlistValue::arrayOf({mapping("add", 6)})).status, EISDIR);
}

TEST_F(PortMappings, AListHasOneHolderAtATime) {
  testing::FakeClock clock;
  const ScopedOverride<Clock> override(clock);
  KpPortmapListRef held = nullptr;
  ASSERT_EQ(KpPortmapListRefCreateFromFile(path.c_str(), &held), 0);
  EXPECT_FALSE(std::filesystem::exists(path)) << "opening writes no list";
  KpPortmapListRef second = held;
  EXPECT_EQ(KpPortmapListRefCreateFromFile(path.c_str(), &second), EWOULDBLOCK);
  EXPECT_EQ(second, nullptr);
  EXPECT_EQ(clock.monotonic(), std::chrono::seconds(10));

  ASSERT_EQ(KpAddPortToList(held, 1, 1, nullptr, nullptr, nullptr, nullptr), 0);
  ASSERT_EQ(KpUpdatePortmapListFile(held), 0);
  EXPECT_EQ(change(PlistValue::arrayOf({mapping("add", 2)})).status, EWOULDBLOCK) << "held beyond the file's inode";

  ASSERT_EQ(KpAddPortToList(held, 3, 3, nullptr, nullptr, nullptr, nullptr), 0);
  writeFile(path, "an editor was here");
  EXPECT_EQ(KpUpdatePortmapListFile(held), ESTALE);
  EXPECT_EQ(readFile(path), "an editor was here");
  KpReleasePortmapListRef(held);
  std::filesystem::remove(path);
  EXPECT_EQ(change(PlistValue::arrayOf({mapping("add", 2)})).status, 0);
}

TEST_F(PortMappings, NoneIsLostWhenManyChangeTheList) {
  std::vector<std::thread> threads;
  for (int thread = 0; thread < 4; ++thread) {
    threads.emplace_back([thread] {
      for (int i = 0; i < 10; ++i) {
        const PlistValue one = PlistValue::arrayOf({mapping("add", 1 + thread * 100 + i)});
        EXPECT_EQ(KpChangePortMappings(one, nullptr, false, nullptr), 0);
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(entries().count(), 40U);
}

}  // namespace
}  // namespace ostrel
