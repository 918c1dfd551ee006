// The LDAP node against Debian's slapd.
#include <gmock/gmock.h>

#include "Platform/DirectoryNode.h"
#include "Support/DirectoryFixture.h"
#include "Support/SlapdFixture.h"

using namespace ostrel;
using namespace ostrel::testing;
using ::testing::ElementsAre;

namespace {

class LdapNode : public DirectoryFixture {
 protected:
  void SetUp() override {
    if (!Slapd::isInstalled()) GTEST_SKIP() << "slapd is not installed";
    slapd = std::make_unique<Slapd>(options);
    configure(slapd->entry(folder.path()));
  }
  void configure(const PlistValue& entry) {
    if (session != 0) dsCloseDirService(session);
    writeDirectoryConfiguration(
        folder.path(), PlistValue::dictionaryOf({{"HostNode", false}, {"Nodes", PlistValue::arrayOf({entry})}}));
    ASSERT_EQ(dsOpenDirService(&session), 0);
    ASSERT_EQ(openNode("/LDAP/example", node), 0);
  }

  SlapdOptions options;
  std::unique_ptr<Slapd> slapd;
};

using Attributes = std::vector<std::pair<std::string, std::vector<std::string>>>;

TEST_F(LdapNode, ShowsUsersAndGroupsByTheirAttributesHere) {
  const auto all = [this](const char* type, const std::string& name) {
    const auto found = search(node, {type}, nameAttribute, directoryMatch::exact, {name}, {"dsAttributesAll"});
    EXPECT_EQ(found.size(), 1U);
    return found.empty() ? Attributes() : found.front().attributes;
  };
  EXPECT_EQ(search(node, {usersType}, nameAttribute, directoryMatch::any, {""}).size(), 20U);
  EXPECT_EQ(all(usersType, "user00019"), (Attributes{{nameAttribute, {"user00019"}},
                                                     {idAttribute, {"1019"}},
                                                     {"dsAttrTypeStandard:PrimaryGroupID", {"119"}},
                                                     {"dsAttrTypeStandard:RealName", {"Ada Surname 19"}},
                                                     {"dsAttrTypeStandard:NFSHomeDirectory", {"/home/user00019"}},
                                                     {"dsAttrTypeNative:home", {"/home/user00019"}},
                                                     {"dsAttrTypeStandard:UserShell", {"/bin/bash"}},
                                                     {"dsAttrTypeStandard:Password", {"********"}},
                                                     {"dsAttrTypeStandard:GeneratedUID", {Slapd::userIdentifier(19)}},
                                                     {"dsAttrTypeStandard:LastName", {"Surname"}},
                                                     {"dsAttrTypeStandard:EMailAddress", {"user00019@example.org"}}}));
  const Attributes group = all(groupsType, "group001");
  ASSERT_EQ(group.size(), 7U);
  EXPECT_EQ(group[4], (Attributes::value_type{"dsAttrTypeStandard:Member",
                                              {"user00007", "user00008", "user00009", "user00010"}}));
  EXPECT_EQ(group[6].second, (std::vector<std::string>{Slapd::userIdentifier(7), Slapd::userIdentifier(8),
                                                       Slapd::userIdentifier(9), Slapd::userIdentifier(10)}));
}

// Entries cannot be without some attributes; records are.
TEST_F(LdapNode, NewRecordsHaveTheirNameOnlyUntilMoreIsSet) {
  makeUser("ada");
  DirectoryHandle record = 0;
  ASSERT_EQ(open(usersType, "ADA", record), 0);
  std::string value;
  for (const char* attribute : {idAttribute, "dsAttrTypeStandard:RealName", "dsAttrTypeNative:home"})
    EXPECT_EQ(valueAt(record, attribute, 1, value), directoryStatus::noSuchValue) << attribute;
  EXPECT_EQ(add(record, idAttribute, "77"), 0);
  EXPECT_EQ(add(record, "dsAttrTypeStandard:RealName", "Ada L"), 0);
  EXPECT_THAT(namesOf(idAttribute, directoryMatch::lessThan, "78"), ElementsAre("ada"));
  EXPECT_THAT(namesOf("dsAttrTypeStandard:RealName", directoryMatch::containsIgnoringCase, "a l"), ElementsAre("ada"));
  EXPECT_EQ(dsRemoveAttribute(record, dataNode(idAttribute).get()), 0);
  EXPECT_EQ(valueAt(record, idAttribute, 1, value), directoryStatus::noSuchValue);
  EXPECT_EQ(dsDeleteRecord(record), 0);
  EXPECT_EQ(valueAt(record, nameAttribute, 1, value), directoryStatus::recordNotFound);
}

}  // namespace
