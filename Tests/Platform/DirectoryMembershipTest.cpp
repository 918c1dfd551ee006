#include "Platform/DirectoryMembership.h"

#include <algorithm>

#include "Platform/UserDatabase.h"
#include "Support/DirectoryFixture.h"

using namespace ostrel;
using namespace ostrel::testing;

namespace {

constexpr const char* uid = "dsAttrTypeStandard:GeneratedUID";
constexpr const char* gid = "dsAttrTypeStandard:PrimaryGroupID";
constexpr const char* member = "dsAttrTypeStandard:Member";
constexpr const char* nested = "dsAttrTypeStandard:NestedGroups";

std::string numbered(int number) { return "00000000-0000-4000-8000-" + std::to_string(100'000'000'000 + number); }

/// A host where "mallory" is in the group "games", which lists nobody, and of whose users one is called as one in
/// /Local.
class FakeHost final : public UserDatabase {
 public:
  std::optional<UserEntry> userNamed(const std::string& name) override {
    if (name == "mallory") return UserEntry{name, 1001, 1001, "", "", ""};
    if (name == "ada") return UserEntry{name, 1002, 60, "", "", ""};
    return std::nullopt;
  }
  std::optional<UserEntry> userWithId(uid_t) override { return std::nullopt; }
  std::optional<GroupEntry> groupNamed(const std::string& name) override {
    return name == "games" ? std::optional(GroupEntry{name, 60, {}}) : std::nullopt;
  }
  std::optional<GroupEntry> groupWithId(gid_t) override { return std::nullopt; }
  std::vector<gid_t> groupsOfUser(const std::string&) override { return {60}; }
};

class DirectoryMembership : public DirectoryFixture {
 protected:
  static bool belongs(std::string_view user, std::string_view group) {
    auto memberships = DirectoryMemberships::ofUser(user);
    return memberships && memberships->include(group);
  }

  FakeHost host;
  const ScopedOverride<UserDatabase> override_{host};
};

TEST_F(DirectoryMembership, GoesByNumberNameAndIdentifierAndThroughNestedGroups) {
  makeUser("ada", {{nameAttribute, "countess"}, {uid, numbered(1)}, {gid, "700"}});
  makeUser("bob", {{idAttribute, "501"}, {gid, "700000000000"}});
  makeUser("ghost");
  makeRecord(groupsType, "byNumber", {{gid, "700"}, {uid, numbered(20)}});
  makeRecord(groupsType, "byName",
             {{member, "eve"}, {member, "countess"}, {uid, "00000000-0000-4000-8000-a00000000021"}});
  makeRecord(groupsType, "byMembership", {{"dsAttrTypeStandard:GroupMembership", "bob"}, {gid, "701"}});
  makeRecord(groupsType, "byIdentifier",
             {{"dsAttrTypeStandard:GroupMembers", "ffffeeee-dddd-cccc-bbbb-aaaa000001f5"}, {uid, numbered(22)}});
  makeRecord(groupsType, "outer", {{nested, "00000000-0000-4000-8000-A00000000021"}, {uid, numbered(23)}});
  makeRecord(groupsType, "outermost", {{nested, numbered(23)}, {nested, numbered(25)}, {uid, numbered(24)}});
  makeRecord(groupsType, "circle", {{nested, numbered(24)}, {uid, numbered(25)}});
  makeRecord(groupsType, "nowhere", {{member, "ada"}, {member, "ghost"}});

  const std::vector<std::string> groups = {"byNumber",  "byName", "byMembership", "byIdentifier", "outer",
                                           "outermost", "circle", "nowhere",      "unknown",      "games"};
  const std::pair<const char*, std::vector<std::string>> expected[] = {
      {"ada", {"byNumber", "byName", "outer", "outermost", "circle"}},
      {"countess", {"byNumber", "byName", "outer", "outermost", "circle"}},
      {"bob", {"byMembership", "byIdentifier"}},
      {"mallory", {"games"}},
      {"ghost", {}},
      {"Ada", {}},
      {"", {}},
      {"dsRecordsAll", {}},

  };
  for (const auto& [user, in] : expected)
    for (const std::string& group : groups)
      EXPECT_EQ(belongs(user, group), std::ranges::find(in, group) != in.end()) << user << " in " << group;
  EXPECT_FALSE(belongs(std::string_view("ada\0", 4), "byNumber"));
  EXPECT_FALSE(belongs("ada", "dsRecordsAll"));
}

// Whoever may give a user of one node a further name must not make it a user of another.
TEST_F(DirectoryMembership, AnAliasThatLeadsElsewhereCountsForNothing) {
  makeRecord(groupsType, "admin", {{member, "mallory"}, {uid, numbered(30)}});
  ASSERT_TRUE(belongs("mallory", "admin"));
  makeUser("eve", {{nameAttribute, "mallory"}, {uid, numbered(31)}});
  EXPECT_TRUE(belongs("eve", "admin")) << "/Local comes first: there \"mallory\" is eve";
  writeFile(folder / "etc/ostreld/directory.plist",
            "<plist version=\"1.0\"><dict><key>SearchPath</key><array><string>/Host</string><string>/Local</string>"
            "</array></dict></plist>");
  EXPECT_TRUE(belongs("mallory", "admin"));
  EXPECT_FALSE(belongs("eve", "admin"));
}

TEST_F(DirectoryMembership, DepthIsBoundedAndADirectoryThatCannotBeAskedLetsNobodyIn) {
  makeUser("ada", {{uid, numbered(0)}});
  makeRecord(groupsType, "g0", {{member, "ada"}, {uid, numbered(100)}});
  for (int at = 1; at <= 40; ++at)
    makeRecord(groupsType, "g" + std::to_string(at), {{nested, numbered(99 + at)}, {uid, numbered(100 + at)}});
  EXPECT_TRUE(belongs("ada", "g16"));
  EXPECT_FALSE(belongs("ada", "g17"));
  writeFile(folder / "etc/ostreld/directory.plist", "no property list");
  EXPECT_FALSE(belongs("ada", "g0"));
}

}  // namespace
