// The accounts module in its host.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>

#include "Containers/ErrorCodes.h"
#include "Directory/DirectoryRecords.h"
#include "Directory/DirectorySessions.h"
#include "Platform/DirectoryMembership.h"
#include "Platform/HostRoot.h"
#include "PluginFramework/BundleManager.h"
#include "Support/TemporaryFolder.h"

namespace ostrel {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Not;

constexpr const char* realName = "dsAttrTypeStandard:RealName";
constexpr const char* uniqueId = "dsAttrTypeStandard:UniqueID";
constexpr const char* groupId = "dsAttrTypeStandard:PrimaryGroupID";
constexpr const char* comment = "dsAttrTypeStandard:Comment";
constexpr const char* member = "dsAttrTypeStandard:Member";

class AccountsHandlerTest : public ::testing::Test {
 protected:
  AccountsHandlerTest() {
    const std::filesystem::path bundles = folder_ / "usr/share/ostreld/bundles";
    for (const char* folder : {"usr/share/ostreld/bundles", "private/var/ostreld", "var/ostreld"})
      std::filesystem::create_directories(folder_ / folder);
    std::filesystem::copy_file(OSTREL_ACCOUNTS_BUNDLE, bundles / "ostrel_accounts.bundle");
    std::filesystem::permissions(bundles / "ostrel_accounts.bundle", std::filesystem::perms(0755));
    testing::writeFile(folder_ / "etc/ostreld/directory.plist",
                       "<plist><dict><key>HostNode</key><false/></dict></plist>");
    host_ = std::make_unique<BundleManager>();
  }

  PlistValue send(const char* command, std::initializer_list<PlistValue::KeyValue> arguments) {
    PlistValue request = PlistValue::mutableDictionaryOf(arguments);
    request.set("command", command);
    return host_->doCommand(request, "ostrel_accounts", "alice");
  }
  PlistValue make(const char* command, const char* name, std::initializer_list<PlistValue::KeyValue> attributes = {}) {
    return send(command, {{"name", name}, {"attributes", PlistValue::dictionaryOf(attributes)}}).get("record");
  }
  static std::vector<std::string> namesIn(const PlistValue& listing) {
    std::vector<std::string> names;
    const PlistValue records = listing.get("recordsArray");
    for (const PlistValue& record : records.elements())
      names.emplace_back(record.get(directoryName::recordName).stringValue());
    return names;
  }
  static DirectoryStatus authenticate(const char* user, const char* password) {
    DirectoryHandle session = 0;
    DirectoryHandle node = 0;
    DSOpenDirectoryServices(nullptr, 0, nullptr, nullptr, &session);
    DSOpenNodeByPath(session, "/Local", &node);
    const DirectoryStatus status = DSAuthenticateNode(session, node, user, password);
    DSCloseDirectoryServices(&session);
    return status;
  }
  static bool isMember(const char* user, const char* group) {
    auto memberships = DirectoryMemberships::ofUser(user);
    return memberships && memberships->include(group);
  }

  testing::TemporaryFolder folder_;
  ScopedHostRoot root_{folder_.path()};
  std::unique_ptr<BundleManager> host_;
};

TEST_F(AccountsHandlerTest, MakesShowsChangesAndDeletesUsers) {
  const PlistValue ada = send("createUser", {{"name", "ada"}, {"password", "analytical engine"}});
  EXPECT_EQ(ada.get("nodePath"), PlistValue("/Local"));
  EXPECT_EQ(ada.get("record").get(uniqueId), PlistValue("1000"));
  EXPECT_EQ(ada.get("record").get(realName), PlistValue("ada"));
  EXPECT_EQ(ada.get("record").get("dsAttrTypeStandard:GeneratedUID").stringValue().size(), 36U);
  EXPECT_EQ(ada.get("record").get("hasPassword"), PlistValue(true));
  EXPECT_THAT(ada.description(), Not(HasSubstr("engine")));
  EXPECT_EQ(authenticate("ada", "analytical engine"), 0);
  EXPECT_EQ(make("createUser", "bob", {{uniqueId, "1001"}}).get(uniqueId), PlistValue("1001"));
  EXPECT_EQ(make("createUser", "cid").get(uniqueId), PlistValue("1002"));

  const PlistValue changed =
      send("changeUser", {{"name", "ADA"},
                          {"password", "difference engine"},
                          {"attributes", PlistValue::dictionaryOf(
                                             {{realName, "Ada King"}, {comment, PlistValue::arrayOf({"x", "y"})}})}})
          .get("record");
  EXPECT_EQ(changed.get(realName), PlistValue("Ada King"));
  EXPECT_EQ(changed.get(comment), PlistValue::arrayOf({"x", "y"}));
  EXPECT_EQ(authenticate("ada", "difference engine"), 0);
  EXPECT_NE(authenticate("ada", "analytical engine"), 0);
  EXPECT_FALSE(make("changeUser", "ada", {{comment, PlistValue::arrayOf({})}}).contains(comment));

  EXPECT_EQ(send("createUser", {{"name", "Ada"}}).get("status"), PlistValue(directoryStatus::recordExists));
  EXPECT_EQ(send("createUser", {{"name", "eve"}, {"attributes", PlistValue::dictionaryOf({{uniqueId, "1001"}})}}),
            PlistValue::dictionaryOf({{"error", errors::invalidArgument}, {"status", directoryStatus::recordExists}}));
  EXPECT_EQ(make("changeUser", "bob", {{uniqueId, "1001"}}).get(uniqueId), PlistValue("1001")) << "his own";
  EXPECT_EQ(send("deleteUser", {{"name", "bob"}}).get("deleted"), PlistValue("bob"));
  for (const char* command : {"deleteUser", "showUser", "changeUser"})
    EXPECT_EQ(send(command, {{"name", "bob"}}).get("status"), PlistValue(directoryStatus::recordNotFound)) << command;
  EXPECT_EQ(make("createUser", "dan").get(uniqueId), PlistValue("1001")) << "free again";
  EXPECT_EQ(send("showUser", {{"name", "dan"}, {"nodePath", "/Search"}}).get("record").get(uniqueId),
            PlistValue("1001"));
  EXPECT_EQ(send("createUser", {{"name", "x"}, {"nodePath", "/Search"}}).get("status"),
            PlistValue(directoryStatus::readOnly));
}

TEST_F(AccountsHandlerTest, KeepsMembersByNameAndIdentifier) {
  const PlistValue ada = make("createUser", "ada");
  make("createUser", "bob");
  const PlistValue staff =
      send("createGroup", {{"name", "staff"}, {"addMembers", PlistValue::arrayOf({"ADA", "bob", "ada"})}})
          .get("record");
  EXPECT_EQ(staff.get(groupId), PlistValue("500"));
  EXPECT_EQ(staff.get(member), PlistValue::arrayOf({"ada", "bob"}));
  EXPECT_EQ(staff.get("dsAttrTypeVirtual:UserMemberNames"), PlistValue::arrayOf({"ada", "bob"}));
  EXPECT_EQ(staff.get("dsAttrTypeStandard:GroupMembers").at(0), ada.get("dsAttrTypeStandard:GeneratedUID"));
  EXPECT_TRUE(isMember("ada", "staff"));
  EXPECT_EQ(make("createGroup", "other", {{groupId, "777"}, {realName, "Others"}}).get(groupId), PlistValue("777"));
  EXPECT_EQ(send("createGroup", {{"name", "STAFF"}}).get("status"), PlistValue(directoryStatus::recordExists));
  EXPECT_EQ(send("createGroup", {{"name", "g"}, {"addMembers", PlistValue::arrayOf({"nobody"})}}).get("status"),
            PlistValue(directoryStatus::recordNotFound));
  EXPECT_EQ(send("showGroup", {{"name", "g"}}).get("status"), PlistValue(directoryStatus::recordNotFound))
      << "made whole or not at all";

  EXPECT_EQ(send("deleteUser", {{"name", "ada"}}).get("deleted"), PlistValue("ada"));
  make("createUser", "ada");
  EXPECT_FALSE(isMember("ada", "staff")) << "whoever gets the name next is no member";
  const PlistValue left =
      send("changeGroup", {{"name", "staff"}, {"removeMembers", PlistValue::arrayOf({"bob", "never"})}}).get("record");
  EXPECT_FALSE(left.contains(member) || left.contains("dsAttrTypeStandard:GroupMembers"));
  EXPECT_EQ(send("deleteGroup", {{"name", "staff"}}).get("deleted"), PlistValue("staff"));
}

TEST_F(AccountsHandlerTest, ListsInPages) {
  for (const char* name : {"ada", "adam", "bob", "cid"}) make("createUser", name);
  make("createUser", "old", {{uniqueId, "99"}});
  const PlistValue page = send("listUsers", {{"maximum", 4}});
  EXPECT_EQ(page.get("nbRecords"), PlistValue(4));
  EXPECT_EQ(page.get("moreRecords"), PlistValue(true));
  EXPECT_EQ(send("listUsers", {{"maximum", 5}}).get("moreRecords"), PlistValue(false));
  EXPECT_THAT(namesIn(send("listUsers", {{"startsWith", "AD"}})), ElementsAre("ada", "adam"));
  EXPECT_THAT(namesIn(send("listUsers", {{"contains", "i"}})), ElementsAre("cid"));

  const PlistValue matched = send("listUsers", {{"patternKey", "nameContains"}, {"maximum", 3}});
  EXPECT_THAT(namesIn(matched), ElementsAre("ada", "adam", "bob"));
  EXPECT_EQ(matched.get("moreRecords"), PlistValue(true));
  EXPECT_EQ(matched.get("nbRecords"), PlistValue(3));
  const PlistValue all = send("listUsers", {{"patternKey", "nameContains"}, {"maximum", 4}});
  EXPECT_EQ(all.get("moreRecords"), PlistValue(false)) << "'old' is a system account";
  EXPECT_EQ(
      send("listUsers", {{"patternKey", "idIs"}, {"patternText", "99"}, {"systemAccounts", true}}).get("nbRecords"),
      PlistValue(1));
  const PlistValue none = send("listUsers", {{"patternKey", "nameIs"}, {"patternText", "zoe"}});
  EXPECT_EQ(none.get("recordsArray"), PlistValue::arrayOf({}));
  EXPECT_EQ(none.get("moreRecords"), PlistValue(false));
  make("createGroup", "admin", {{groupId, "80"}});
  send("changeGroup", {{"name", "admin"}, {"addMembers", PlistValue::arrayOf({"ada"})}});
  EXPECT_EQ(send("listUsers", {{"startsWith", "ada"}}).get("recordsArray").at(0).get("dsAttrTypeVirtual:isAdmin"),
            PlistValue(true));
  EXPECT_THAT(namesIn(send("listGroups", {})), ElementsAre("admin"));
}

TEST_F(AccountsHandlerTest, RefusesWhatIsMalformed) {
  make("createUser", "ada");
  const auto attributes = [](std::string_view name, const PlistValue& value) {
    PlistValue dictionary = PlistValue::mutableDictionary();
    dictionary.set(name, value);
    return dictionary;
  };
  const PlistValue badNames[] = {nullptr, 7,     "", "*", "dsRecordsAll", std::string("a\0b", 3), std::string(256, 'n'),
                                 "a\nb",  "\xFF"};
  for (const PlistValue& name : badNames)
    for (const char* command : {"showUser", "createUser", "changeUser", "deleteUser", "createGroup", "deleteGroup"})
      EXPECT_EQ(send(command, {{"name", name}}), PlistValue::dictionaryOf({{"error", errors::invalidArgument}}))
          << command << " " << name.description();
  const std::pair<const char*, PlistValue> badArguments[] = {
      {"nodePath", 7},
      {"nodePath", "Local"},
      {"nodePath", std::string("/Local\0", 7)},
      {"attributes", "text"},
      {"attributes", attributes(comment, 7)},
      {"attributes", attributes(comment, PlistValue::arrayOf({"x", 7}))},
      {"attributes", attributes(comment, std::string("a\0b", 3))},
      {"attributes", attributes(comment, std::string(65'536, 'v'))},
      {"attributes", attributes("dsAttrTypeStandard:Password", "secret")},
      {"attributes", attributes("dsAttrTypeStandard:RecordName", "eve")},
      {"attributes", attributes("dsAttrTypeVirtual:isAdmin", "1")},
      {"attributes", attributes(uniqueId, "12x")},
      {"attributes", attributes(uniqueId, "-1")},
      {"attributes", attributes(uniqueId, "4294967295")},
      {"attributes", attributes(groupId, PlistValue::arrayOf({"1", "2"}))},
      {"password", 7},
      {"password", "short"},
      {"password", "********"},
      {"password", std::string(512, 'p')},
      {"addMembers", PlistValue::arrayOf({"ada"})},
  };
  for (const auto& [key, value] : badArguments)
    for (const char* command : {"createUser", "changeUser"})
      EXPECT_EQ(send(command, {{"name", "ada"}, {key, value}}).get("error"), PlistValue(errors::invalidArgument))
          << command << " " << key << " " << value.description().substr(0, 40);
  EXPECT_EQ(send("createGroup", {{"name", "g"}, {"password", "long enough"}}).get("error"),
            PlistValue(errors::invalidArgument));
  const std::pair<const char*, PlistValue> badLists[] = {
      {"maximum", 0},    {"maximum", "5"},  {"maximum", 100'001},   {"patternKey", "nameLooksLike"},
      {"patternKey", 7}, {"startsWith", 7}, {"attributes", "name"}, {"attributes", PlistValue::arrayOf({7})}};
  for (const auto& [key, value] : badLists)
    EXPECT_EQ(send("listUsers", {{key, value}}), PlistValue::dictionaryOf({{"error", errors::invalidArgument}})) << key;
  EXPECT_EQ(send("listUsers", {{"nodePath", "/None"}}).get("status"), PlistValue(directoryStatus::nodeNotFound));
  EXPECT_THAT(namesIn(send("listUsers", {})), ElementsAre("ada"));
  EXPECT_THAT(namesIn(send("listGroups", {})), IsEmpty());
}

TEST_F(AccountsHandlerTest, TellsOfADamagedDatabase) {
  testing::writeFile(folder_ / "var/ostreld/directory/local.db", "no database");
  std::filesystem::permissions(folder_ / "var/ostreld/directory", std::filesystem::perms(0700));
  std::filesystem::permissions(folder_ / "var/ostreld/directory/local.db", std::filesystem::perms(0600));
  for (const char* command : {"listUsers", "showUser", "createUser", "deleteUser", "createGroup"}) {
    const PlistValue answer = send(command, {{"name", "ada"}});
    EXPECT_EQ(answer.get("error"), PlistValue(errors::cannotRunBundle)) << command;
    EXPECT_EQ(answer.get("status"), PlistValue(directoryStatus::dataDamaged)) << command;
  }
}

}  // namespace
}  // namespace ostrel
