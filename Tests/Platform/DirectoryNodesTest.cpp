// The nodes of the directory service: the local node's indexes and file, the host node, the search node and where they
// are configured.
#include <gmock/gmock.h>
#include <sqlite3.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <set>

#include "Platform/DirectoryNode.h"
#include "Platform/DirectoryQuery.h"
#include "Platform/Files.h"
#include "Platform/Internal/Directory/LocalSearchPlan.h"
#include "Platform/UserDatabase.h"
#include "Support/DirectoryFixture.h"

using namespace ostrel;
using namespace ostrel::testing;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

namespace {

constexpr const char* valueAttribute = "dsAttrTypeNative:value";

class LocalNode : public DirectoryFixture {
 protected:
  std::string database() const { return folder / "var/ostreld/directory/local.db"; }
};

// Every match type over every pattern must find what comparing value by value finds.
TEST_F(LocalNode, IndexesFindWhatComparingFinds) {
  const std::vector<std::string> values = {"",
                                           "a",
                                           "A",
                                           "ab",
                                           "aB",
                                           "abc",
                                           "xABCx",
                                           "bca",
                                           "é",
                                           "É",
                                           "Éa",
                                           "ß",
                                           "SS",
                                           "ΣΑΣ",
                                           "σας",
                                           "%",
                                           "a b",
                                           "12",
                                           "-12",
                                           "012",
                                           "12 ",
                                           "9223372036854775807",
                                           "9223372036854775808",
                                           "\x7F",
                                           std::string(256, 'q') + "ab",
                                           std::string(257, 'q') + "Ab",
                                           "日本語",
                                           "本",
                                           "ab\xF0\x9F\x98\x80"};
  for (std::size_t at = 0; at < values.size(); ++at)
    makeUser("user" + std::to_string(at), {{valueAttribute, values[at]}});
  makeUser("other", {{"dsAttrTypeNative:another", "abc"}});
  const std::vector<std::string> patterns = {"",
                                             "a",
                                             "A",
                                             "ab",
                                             "AB",
                                             "abc",
                                             "b",
                                             "c",
                                             "é",
                                             "É",
                                             "ÉA",
                                             "ss",
                                             "ς",
                                             "Σ",
                                             "%",
                                             " ",
                                             "12",
                                             "-13",
                                             "9223372036854775806",
                                             "x",
                                             "本",
                                             "語",
                                             "q",
                                             "qab",
                                             "qqA",
                                             "1x",
                                             std::string(260, 'q'),
                                             "\xF0\x9F\x98\x80"};
  using namespace directoryMatch;
  for (const std::uint32_t match : {exact, contains, lessThan, greaterThan, exactIgnoringCase, startsWithIgnoringCase,
                                    endsWithIgnoringCase, containsIgnoringCase})
    for (const std::string& pattern : patterns) {
      std::set<std::string> expected;
      for (std::size_t at = 0; at < values.size(); ++at)
        if (directoryValueMatches(match, pattern, values[at])) expected.insert("user" + std::to_string(at));
      const auto names = namesOf(valueAttribute, match, pattern);
      EXPECT_EQ(status, 0);
      EXPECT_EQ(std::set<std::string>(names.begin(), names.end()), expected) << match << " '" << pattern << "'";
    }
  EXPECT_TRUE(directoryValueMatches(exactIgnoringCase, "É", "é") &&
              directoryValueMatches(exactIgnoringCase, "ΣΑΣ", "σας"));
  EXPECT_FALSE(directoryValueMatches(exactIgnoringCase, "ß", "SS"));
}

TEST_F(LocalNode, NoSearchScansTheValues) {
  makeUser("ada");
  sqlite3* connection = nullptr;
  ASSERT_EQ(sqlite3_open_v2(database().c_str(), &connection, SQLITE_OPEN_READONLY, nullptr), SQLITE_OK);
  using Walk = detail::SearchPlan::Walk;
  const std::pair<Walk, const char*> walks[] = {
      {Walk::allOfType, "SEARCH record USING INDEX record_by_type"},
      {Walk::text, "SEARCH v USING INDEX value_by_text (attribute=? AND folded=?"},
      {Walk::textRange, "SEARCH v USING INDEX value_by_text (attribute=? AND"},
      {Walk::grams, "VIRTUAL TABLE INDEX"},
      {Walk::longValues, "SEARCH v USING INDEX value_long"},
      {Walk::lessThan, "SEARCH v USING INDEX value_by_number (attribute=? AND"},
      {Walk::greaterThan, "SEARCH v USING INDEX value_by_number (attribute=? AND"}};
  for (const auto& [walk, expected] : walks) {
    sqlite3_stmt* plan = nullptr;
    const std::string text = std::string("EXPLAIN QUERY PLAN ") + detail::statementOf(walk);
    ASSERT_EQ(sqlite3_prepare_v2(connection, text.c_str(), -1, &plan, nullptr), SQLITE_OK)
        << sqlite3_errmsg(connection);
    std::string steps;
    while (sqlite3_step(plan) == SQLITE_ROW)
      steps += reinterpret_cast<const char*>(sqlite3_column_text(plan, 3)) + std::string("\n");
    sqlite3_finalize(plan);
    EXPECT_THAT(steps, HasSubstr(expected));
    EXPECT_EQ(steps.find("SCAN v"), std::string::npos) << steps;
    EXPECT_EQ(steps.find("SCAN record"), std::string::npos) << steps;
    EXPECT_EQ(steps.find("TEMP B-TREE"), std::string::npos) << steps;
  }
  sqlite3_close(connection);
}

TEST_F(LocalNode, ProcessesShareTheFile) {
  dsCloseDirService(session);
  constexpr int processes = 3;
  constexpr int each = 15;
  std::vector<pid_t> children;
  for (int number = 0; number < processes; ++number) {
    const pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
      alarm(60);
      bool good = dsOpenDirService(&session) == 0 && openNode("/Local", node) == 0;
      for (int at = 0; good && at < each; ++at) {
        DirectoryHandle record = 0;
        good = create(usersType, "p" + std::to_string(number) + "-" + std::to_string(at), record) == 0 &&
               add(record, idAttribute, "1") == 0;
      }
      _exit(good ? 0 : 1);
    }
    children.push_back(child);
  }
  for (const pid_t child : children) {
    int result = -1;
    ASSERT_EQ(waitpid(child, &result, 0), child);
    EXPECT_EQ(result, 0);
  }
  ASSERT_EQ(dsOpenDirService(&session), 0);
  ASSERT_EQ(openNode("/Local", node), 0);
  EXPECT_EQ(namesOf(idAttribute, directoryMatch::exact, "1").size(), std::size_t{processes * each});
}

TEST_F(LocalNode, DamagedOrForeignFilesAreToldAndKept) {
  makeUser("ada");
  dsCloseDirService(session);
  const std::string rubbish(8192, 'r');
  removeFile(database() + "-wal");
  removeFile(database() + "-shm");
  removeFile(database());
  writeFile(database(), rubbish);
  const auto listing = [&] {
    EXPECT_EQ(dsOpenDirService(&session), 0);
    EXPECT_EQ(openNode("/Local", node), 0);
    search(node, {usersType}, nameAttribute, directoryMatch::any, {""});
    dsCloseDirService(session);
    return status;
  };
  EXPECT_EQ(listing(), directoryStatus::storageFailed) << "readable by others";
  ASSERT_EQ(chmod(database().c_str(), 0600), 0);
  EXPECT_EQ(listing(), directoryStatus::dataDamaged);
  EXPECT_EQ(readFile(database()), rubbish);
  removeFile(database());
  sqlite3* foreign = nullptr;
  ASSERT_EQ(sqlite3_open(database().c_str(), &foreign), SQLITE_OK);
  ASSERT_EQ(sqlite3_exec(foreign, "CREATE TABLE theirs(x)", nullptr, nullptr, nullptr), SQLITE_OK);
  sqlite3_close(foreign);
  ASSERT_EQ(chmod(database().c_str(), 0600), 0);
  EXPECT_EQ(listing(), directoryStatus::dataDamaged);
  removeFile(database());
  ASSERT_EQ(symlink("/nonexistent", database().c_str()), 0);
  EXPECT_EQ(listing(), directoryStatus::storageFailed);
  removeFile(database());
  EXPECT_EQ(listing(), 0) << "made anew";
}

class FakeUsers final : public UserDatabase {
 public:
  std::optional<UserEntry> userNamed(const std::string& name) override {
    for (const UserEntry& user : users)
      if (user.name == name) return user;
    return std::nullopt;
  }
  std::optional<UserEntry> userWithId(uid_t uid) override {
    for (const UserEntry& user : users)
      if (user.uid == uid) return user;
    return std::nullopt;
  }
  std::optional<GroupEntry> groupNamed(const std::string& name) override {
    return name == group.name ? std::optional(group) : std::nullopt;
  }
  std::optional<GroupEntry> groupWithId(gid_t gid) override {
    return gid == group.gid ? std::optional(group) : std::nullopt;
  }
  std::vector<gid_t> groupsOfUser(const std::string&) override { return {}; }
  std::vector<UserEntry> allUsers() override { return users; }
  std::vector<GroupEntry> allGroups() override { return {group}; }
  std::optional<std::string> passwordHashOf(const std::string& name) override {
    // The hash of "secret", of crypt(5)'s SHA-512; a locked account has one that is none.
    return name == "eve" ? std::optional<std::string>(eveHash) : "!";
  }

  std::vector<UserEntry> users = {{"eve", 1001, 100, "Eve Adams,Room 1", "/home/eve", "/bin/sh"},
                                  {"locked", 1002, 100, "", "", ""}};
  GroupEntry group{"staff", 100, {"eve", "gone"}};
  std::string eveHash;
};

DirectoryStatus authenticateAt(DirectoryHandle node, std::string_view user, std::string_view password) {
  std::string bytes;
  for (const std::string_view text : {user, password}) {
    const auto length = static_cast<std::uint32_t>(text.size());
    bytes.append(reinterpret_cast<const char*>(&length), sizeof length).append(text);
  }
  return dsDoDirNodeAuth(node, dataNode(directoryName::clearTextMethod).get(), true, dataNode(bytes).get(), nullptr,
                         nullptr);
}

TEST_F(LocalNode, StandsBeforeTheHostOnTheSearchPath) {
  FakeUsers users;
  users.eveHash = "$6$saltsalt$TVLlQcbpFVof5W3Yz4DTP6gRstiNuHwwTt6GLc1E5n0U0aDehy0S5knV8wiOQSpT0Y77vwPZN.Pq.H91p5hVO1";
  const ScopedOverride<UserDatabase> override(users);
  DirectoryHandle host = 0;
  DirectoryHandle everywhere = 0;
  ASSERT_EQ(openNode("/Host", host), 0);
  ASSERT_EQ(openNode("/Search", everywhere), 0);
  makeUser("ada", {{"dsAttrTypeStandard:Password", "pw"}});

  const auto eve = search(host, {usersType}, idAttribute, directoryMatch::exact, {"1001"}, {"dsAttributesAll"});
  ASSERT_EQ(eve.size(), 1U);
  EXPECT_THAT(eve[0].values("dsAttrTypeStandard:RealName"), ElementsAre("Eve Adams"));
  EXPECT_THAT(eve[0].values("dsAttrTypeStandard:GeneratedUID"), ElementsAre("FFFFEEEE-DDDD-CCCC-BBBB-AAAA000003E9"));
  EXPECT_THAT(eve[0].values("dsAttrTypeStandard:Password"), ElementsAre("********"));
  const auto staff =
      search(host, {groupsType}, nameAttribute, directoryMatch::exactIgnoringCase, {"STAFF"}, {"dsAttributesAll"});
  ASSERT_EQ(staff.size(), 1U);
  EXPECT_THAT(staff[0].values("dsAttrTypeStandard:GroupMembership"), ElementsAre("eve", "gone"));
  EXPECT_THAT(staff[0].values("dsAttrTypeStandard:GroupMembers"), ElementsAre("FFFFEEEE-DDDD-CCCC-BBBB-AAAA000003E9"));
  DirectoryHandle record = 0;
  EXPECT_EQ(dsCreateRecordAndOpen(host, dataNode(usersType).get(), dataNode("new").get(), &record),
            directoryStatus::readOnly);
  ASSERT_EQ(dsOpenRecord(host, dataNode(usersType).get(), dataNode("eve").get(), &record), 0);
  EXPECT_EQ(add(record, idAttribute, "0"), directoryStatus::readOnly);

  const auto both = search(everywhere, {usersType}, nameAttribute, directoryMatch::any, {""}, {nameAttribute}, 200, 2);
  ASSERT_EQ(both.size(), 3U);
  EXPECT_EQ(both[0].name + both[1].name + both[2].name, "adaevelocked");
  ASSERT_EQ(dsOpenRecord(everywhere, dataNode(usersType).get(), dataNode("ada").get(), &record), 0);
  EXPECT_EQ(add(record, idAttribute, "5"), 0) << "a change goes to the node that has the record";

  EXPECT_EQ(authenticateAt(everywhere, "eve", "secret"), 0);
  EXPECT_EQ(authenticateAt(everywhere, "locked", "!"), directoryStatus::passwordRefused);
  EXPECT_EQ(authenticateAt(everywhere, "nobody", "secret"), directoryStatus::userUnknown);
  makeUser("eve");
  EXPECT_EQ(authenticateAt(everywhere, "eve", "secret"), directoryStatus::passwordRefused)
      << "the first that knows her";
}

// A node of a kind of its own, which answers with one status.
class OddNode final : public DirectoryNode {
 public:
  OddNode(std::string path, DirectoryStatus status) : path_(std::move(path)), status_(status) {}
  const std::string& path() const override { return path_; }
  bool isLocallyHosted() const override { return true; }
  DirectoryStatus search(const DirectorySearchRequest&, const DirectoryIdentityPointer&,
                         std::unique_ptr<DirectorySearch>&) override {
    return status_;
  }
  DirectoryStatus openRecord(std::string_view, std::string_view, const DirectoryIdentityPointer&,
                             std::unique_ptr<DirectoryRecord>&) override {
    return status_;
  }
  DirectoryStatus authenticate(std::string_view, std::string_view, DirectoryIdentityPointer&) override {
    return status_;
  }

 private:
  std::string path_;
  DirectoryStatus status_;
};

TEST(DirectoryConfiguration, NamesTheNodesAndTheirOrder) {
  registerDirectoryNodeKind("Odd", [](const std::string& path, const PlistValue& entry, std::string& fault) {
    if (!entry.get("Status").isNumber()) fault = "no status";
    return fault.empty() ? std::unique_ptr<DirectoryNode>(std::make_unique<OddNode>(
                               path, static_cast<DirectoryStatus>(entry.get("Status").int64Value())))
                         : nullptr;
  });
  const TemporaryFolder folder;
  const ScopedHostRoot root(folder.path());
  const std::string file = folder / "etc/ostreld/directory.plist";
  const auto configure = [&](const std::string& body, mode_t mode = 0600) {
    removeFile(file);
    writeFile(file, "<plist version=\"1.0\">" + body + "</plist>");
    EXPECT_EQ(chmod(file.c_str(), mode), 0);
  };
  const std::string nodes =
      "<key>Nodes</key><array><dict><key>Kind</key><string>Odd</string><key>Path</key><string>/Odd/one</string>"
      "<key>Status</key><integer>-14716</integer></dict></array>";
  configure("<dict><key>HostNode</key><false/>" + nodes +
            "<key>SearchPath</key><array><string>/Odd/one</string><string>/Local</string></array></dict>");
  DirectoryHandle session = 0;
  ASSERT_EQ(dsOpenDirService(&session), 0);
  const auto openPath = [&](const char* path) {
    DirectoryHandle node = 0;
    const DirectoryItem<DirectoryDataList> name(dsBuildFromPath(path, "/"));
    EXPECT_EQ(dsOpenDirNode(session, name.get(), &node), 0) << path;
    return node;
  };
  const DirectoryHandle everywhere = openPath("/Search");
  DirectoryHandle record = 0;
  ASSERT_EQ(dsCreateRecordAndOpen(openPath("/Local"), dataNode(usersType).get(), dataNode("ada").get(), &record), 0);
  EXPECT_EQ(dsOpenRecord(everywhere, dataNode(usersType).get(), dataNode("ada").get(), &record), 0)
      << "an unreachable node is passed over";
  EXPECT_EQ(authenticateAt(everywhere, "ada", "x"), directoryStatus::unreachable) << "it might know the user";
  const auto found = DirectorySession::defaultSession()
                         ->nodeOfType(directoryNodeType::search)
                         ->results({{usersType}, nameAttribute, directoryMatch::any, "", {nameAttribute}, 0});
  EXPECT_EQ(found.size(), 1U);
  EXPECT_EQ(dsCloseDirService(session), 0);

  const std::string body = "<dict>" + nodes + "</dict>";
  configure(body, 0622);
  EXPECT_EQ(dsOpenDirService(&session), directoryStatus::configurationFault) << "others may write it";
  for (const char* fault :
       {"<array/>", "<dict><key>Nodes</key><string/></dict>",
        "<dict><key>SearchPath</key><array><string>/X</string></array></dict>",
        "<dict><key>Nodes</key><array><dict><key>Kind</key><string>Odd</string><key>Path</key><string>/Local</string>"
        "<key>Status</key><integer>0</integer></dict></array></dict>",
        "<dict><key>Nodes</key><array><dict><key>Kind</key><string>No</string><key>Path</key><string>/N</string></"
        "dict></array></dict>",
        "<dict><key>Nodes</key><array><dict><key>Kind</key><string>Odd</string><key>Path</key><string>/N</string></"
        "dict></array></dict>",
        "<dict><key>Nodes</key><array><dict><key>Kind</key><string>Odd</string><key>Path</key><string>N//</string></"
        "dict></array></dict>",
        "<dict"}) {
    configure(fault);
    EXPECT_EQ(dsOpenDirService(&session), directoryStatus::configurationFault) << fault;
    EXPECT_EQ(session, 0U);
  }
  configure(body);
  EXPECT_EQ(dsOpenDirService(&session), 0) << "a repaired file is read at the next session";
  EXPECT_EQ(dsCloseDirService(session), 0);
}

}  // namespace
