// One group: read with its members' names, made, changed and deleted, on every kind of node.
#include "Directory/GroupRecords.h"

#include <gmock/gmock.h>

#include "Directory/NodeFixture.h"

using namespace ostrel;
using namespace ostrel::testing;

namespace {

constexpr const char* groupIdAttribute = "dsAttrTypeStandard:PrimaryGroupID";
constexpr const char* identifierAttribute = "dsAttrTypeStandard:GeneratedUID";
constexpr const char* realNameAttribute = "dsAttrTypeStandard:RealName";
constexpr const char* membersAttribute = "dsAttrTypeStandard:GroupMembers";
constexpr const char* membershipAttribute = "dsAttrTypeStandard:GroupMembership";
constexpr const char* nestedAttribute = "dsAttrTypeStandard:NestedGroups";
constexpr const char* adaIdentifier = "3F2504E0-4F89-11D3-9A0C-0305E82C3301";
constexpr const char* staffIdentifier = "3F2504E0-4F89-11D3-9A0C-0305E82C3302";
constexpr const char* unknownIdentifier = "3F2504E0-4F89-11D3-9A0C-0305E82C3303";

PlistValue texts(std::initializer_list<const char*> strings) {
  PlistValue array = PlistValue::mutableArray();
  for (const char* text : strings) array.append(text);
  return array;
}

class GroupRecords : public NodeFixture {
 protected:
  PlistValue read(const PlistValue& name, DirectoryStatus expected = 0) {
    PlistValue group = "stale";
    EXPECT_EQ(DSGetGroupRecordInfo(testNode->path(), name, group), expected) << name.description();
    EXPECT_TRUE(group.isDictionary() && group.isMutable());
    return group;
  }
  DirectoryStatus write(const PlistValue& name, const PlistValue& attributes) {
    return DSSetGroupRecordInfo(testNode->path(), name, attributes);
  }
};
OSTREL_ON_EVERY_NODE(GroupRecords);

TEST_P(GroupRecords, NamesMembersInTheirOrder) {
  add({{usersType,
        "ada",
        {{idAttribute, {"1001"}}, {identifierAttribute, {adaIdentifier}}, {realNameAttribute, {"Ada"}}}},
       {usersType, "grace", {{idAttribute, {"501"}}}},
       {usersType, "minus", {{idAttribute, {"-2"}}, {realNameAttribute, {"Minus", "Two"}}}},
       {groupsType, "staff", {{groupIdAttribute, {"20"}}, {identifierAttribute, {staffIdentifier}}}},
       {groupsType, "wheel", {{groupIdAttribute, {"100"}}, {realNameAttribute, {"Wheels"}}}},
       {groupsType,
        "all",
        {{groupIdAttribute, {"600"}},
         {membersAttribute,
          {unknownIdentifier, "FFFFEEEE-DDDD-CCCC-BBBB-AAAA000001F5", adaIdentifier,
           "FFFFEEEE-DDDD-CCCC-BBBB-AAAAFFFFFFFE", "FFFFEEEE-DDDD-CCCC-BBBB-AAAA0000FFFF", adaIdentifier}},
         {membershipAttribute, {"ada"}},
         {nestedAttribute, {"AAAABBBB-CCCC-DDDD-EEEE-FFFF00000064", staffIdentifier}}}},
       {groupsType, "one", {{membersAttribute, {adaIdentifier}}}}});
  const PlistValue all = read("all");
  if (testNode->holdsAnything()) {
    EXPECT_EQ(all.get("dsAttrTypeVirtual:UserMemberNames"),
              texts({unknownIdentifier, "grace", "ada", "minus", "FFFFEEEE-DDDD-CCCC-BBBB-AAAA0000FFFF", "ada"}));
    EXPECT_EQ(all.get("dsAttrTypeVirtual:UserMemberDistinguishedNames"),
              texts({unknownIdentifier, "grace", "Ada", "Minus", "FFFFEEEE-DDDD-CCCC-BBBB-AAAA0000FFFF", "Ada"}));
    EXPECT_EQ(all.get("dsAttrTypeVirtual:GroupMemberNames"), texts({"wheel", "staff"}));
    EXPECT_EQ(all.get("dsAttrTypeVirtual:GroupMemberDistinguishedNames"), texts({"Wheels", "staff"}));
    EXPECT_EQ(all.get(membershipAttribute), texts({"ada"}));
    EXPECT_EQ(read("one").get(membersAttribute), texts({adaIdentifier}));
  } else {
    EXPECT_EQ(all.get(membersAttribute), texts({adaIdentifier}));
    EXPECT_EQ(all.get("dsAttrTypeVirtual:UserMemberNames"), texts({"ada"}));
    EXPECT_EQ(all.get("dsAttrTypeVirtual:UserMemberDistinguishedNames"), texts({"Ada"}));
  }
  EXPECT_EQ(all.get(groupIdAttribute), PlistValue("600"));
  EXPECT_EQ(read("staff").get(nameAttribute), PlistValue("staff"));
  EXPECT_FALSE(read("staff").contains("dsAttrTypeVirtual:UserMemberNames"));

  EXPECT_EQ(read("ALL").count(), 0U);  // byte by byte
  EXPECT_EQ(read("ada").count(), 0U);
  EXPECT_EQ(read("dsRecordsAll").count(), 0U) << "nobody's name";
  for (const PlistValue& nameless : {PlistValue(), PlistValue(5), PlistValue(std::string_view("all\0", 4))})
    EXPECT_EQ(read(nameless, directoryStatus::outOfMemory).count(), 0U);
  PlistValue group;
  EXPECT_EQ(DSGetGroupRecordInfo("/No/Such", "all", group), directoryStatus::nodeNotFound);
  EXPECT_EQ(group, PlistValue::mutableDictionary());
}

// What asks for every record elsewhere is a member like any other, whom nobody knows.
TEST_P(GroupRecords, NamesMembersBesideOneThatAsksForAll) {
  if (!testNode->holdsAnything()) GTEST_SKIP() << "members are somebody here";
  for (const char* name : {"a", "b", "c", "d"}) add({{usersType, name, {{identifierAttribute, {unknownIdentifier}}}}});
  add({{usersType, "ada", {{identifierAttribute, {adaIdentifier}}}},
       {groupsType, "odd", {{membersAttribute, {"dsRecordsAll", adaIdentifier}}}}});
  EXPECT_EQ(read("odd").get("dsAttrTypeVirtual:UserMemberNames"), texts({"dsRecordsAll", "ada"}));
}

TEST_P(GroupRecords, MakesChangesAndDeletesGroups) {
  // A text attribute of any number of values: not every node holds groups in groups.
  const std::string nested = testNode->holdsAnything() ? nestedAttribute : realNameAttribute;
  const PlistValue attributes = PlistValue::mutableDictionaryOf(
      {{nameAttribute, "other"}, {membershipAttribute, texts({"ada", "grace"})}, {nested, staffIdentifier}});
  const DirectoryStatus status = write("team", attributes);
  if (status == directoryStatus::readOnly) GTEST_SKIP() << "this node takes no changes";
  ASSERT_EQ(status, 0);
  const PlistValue made = read("team");
  EXPECT_EQ(made.get(nameAttribute), PlistValue("team"));
  EXPECT_EQ(made.get(groupIdAttribute), PlistValue("500"));
  EXPECT_EQ(made.get(identifierAttribute).stringValue().size(), 36U);
  EXPECT_EQ(made.get(membershipAttribute), texts({"ada", "grace"}));
  if (testNode->holdsAnything()) {
    EXPECT_EQ(made.get(nestedAttribute), texts({staffIdentifier}));
  }
  ASSERT_EQ(write("next", PlistValue::mutableDictionaryOf({{identifierAttribute, adaIdentifier}})), 0);
  EXPECT_EQ(read("next").get(groupIdAttribute), PlistValue("501"));
  if (testNode->holdsAnything()) {
    EXPECT_EQ(read("next").get(identifierAttribute), PlistValue(adaIdentifier));
  }

  // A group that is there keeps what identifies it; what is neither text nor array is removed.
  PlistValue mixed = texts({"tony", "ada"});
  mixed.insert(1, 7);
  ASSERT_EQ(write("team", PlistValue::mutableDictionaryOf({{groupIdAttribute, "999"},
                                                           {identifierAttribute, adaIdentifier},
                                                           {membershipAttribute, mixed},
                                                           {nested, 5}})),
            0);
  const PlistValue changed = read("team");
  EXPECT_EQ(changed.get(groupIdAttribute), PlistValue("500"));
  EXPECT_EQ(changed.get(identifierAttribute), made.get(identifierAttribute));
  EXPECT_EQ(changed.get(membershipAttribute), texts({"tony", "ada"}));
  EXPECT_FALSE(changed.contains(nestedAttribute));

  // The first failure is told, and the attributes behind it are written all the same.
  EXPECT_EQ(write("team", PlistValue::mutableDictionaryOf({{membershipAttribute, std::string_view("a\0b", 3)},
                                                           {membersAttribute, std::string(70000, 'x')},
                                                           {nested, staffIdentifier}})),
            directoryStatus::outOfMemory);
  EXPECT_FALSE(read("team").contains(membershipAttribute));
  if (testNode->holdsAnything()) {
    EXPECT_EQ(read("team").get(nestedAttribute), texts({staffIdentifier}));
  }

  EXPECT_EQ(write("team", "delete?"), directoryStatus::invalidArgument);
  EXPECT_EQ(write({}, attributes), directoryStatus::outOfMemory);
  EXPECT_EQ(write(5, {}), directoryStatus::outOfMemory);
  EXPECT_GT(read("team").count(), 0U);
  EXPECT_EQ(write("team", {}), 0);
  EXPECT_EQ(read("team").count(), 0U);
  EXPECT_EQ(write("team", {}), directoryStatus::recordNotFound);
}

}  // namespace
