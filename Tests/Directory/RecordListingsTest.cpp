// Listings of users and groups, on every kind of node.
#include <gmock/gmock.h>

#include <algorithm>

#include "Directory/NodeFixture.h"
#include "Directory/RecordListings.h"

using namespace ostrel;
using namespace ostrel::testing;
using ::testing::IsEmpty;
using ::testing::UnorderedElementsAre;
using ::testing::UnorderedElementsAreArray;

namespace {

constexpr const char* realNameAttribute = "dsAttrTypeStandard:RealName";
constexpr const char* groupIdAttribute = "dsAttrTypeStandard:PrimaryGroupID";
constexpr const char* memberAttribute = "dsAttrTypeStandard:Member";

SeedRecord user(const std::string& name, int uid, int gid, const std::string& realName) {
  return {usersType,
          name,
          {{idAttribute, {std::to_string(uid)}},
           {groupIdAttribute, {std::to_string(gid)}},
           {realNameAttribute, {realName}}}};
}
SeedRecord group(const std::string& name, int gid, const std::vector<std::string>& members = {}) {
  return {groupsType, name, {{groupIdAttribute, {std::to_string(gid)}}, {memberAttribute, members}}};
}

PlistValue texts(std::initializer_list<const char*> strings) {
  PlistValue array = PlistValue::mutableArray();
  for (const char* text : strings) array.append(text);
  return array;
}

// The (first) names of the listed records.
std::vector<std::string> namesIn(const PlistValue& listing) {
  std::vector<std::string> names;
  const PlistValue records = listing.get("recordsArray");
  for (const PlistValue& record : records.elements()) {
    const PlistValue name = record.get(nameAttribute);
    names.emplace_back(name.isArray() ? name.at(0).stringValue() : name.stringValue());
  }
  return names;
}

class RecordListings : public NodeFixture {
 protected:
  PlistValue byValues(const char* attribute, const PlistValue& values, std::uint32_t match = directoryMatch::exact,
                      const PlistValue& maximum = {}) {
    return DSGetRecordsByRecordTypeAndAttributeValues(session, node, usersType, attribute, values, match, maximum);
  }
};
OSTREL_ON_EVERY_NODE(RecordListings);

TEST_P(RecordListings, FindsRecordsByAnyOfTheValues) {
  add({user("ada", 1001, 20, "Ada"), user("grace", 1002, 20, "Grace"), user("tony", 1003, 20, "Tony")});
  PlistValue mixed = texts({"1003", "1001", "9999"});
  mixed.append(1002);
  mixed.append(std::string_view("1002\0", 5));
  const PlistValue found = byValues(idAttribute, mixed);
  EXPECT_THAT(namesIn(found), UnorderedElementsAre("ada", "tony"));
  EXPECT_EQ(found.get("recordType"), PlistValue(usersType));
  EXPECT_EQ(found.get("attributeType"), PlistValue(idAttribute));
  EXPECT_TRUE(found.get("attributeValues").isIdentical(mixed));
  EXPECT_EQ(found.get("nbRecords"), PlistValue(2));
  EXPECT_EQ(found.get("status"), PlistValue(0));
  const PlistValue record = byValues(idAttribute, texts({"1001"})).get("recordsArray").at(0);
  EXPECT_EQ(record,
            PlistValue::dictionaryOf({{nameAttribute, "ada"}, {idAttribute, "1001"}, {realNameAttribute, "Ada"}}));

  struct Case {
    PlistValue maximum;
    std::size_t records;
    bool more;
  };
  const PlistValue all = texts({"20"});
  for (const Case& bound : {Case{2, 2, true}, Case{3, 3, false}, Case{0, 0, true}, Case{-1, 3, false},
                            Case{"2", 3, false}, Case{{}, 3, false}, Case{1e300, 3, false}}) {
    const PlistValue listing = byValues(groupIdAttribute, all, directoryMatch::exact, bound.maximum);
    EXPECT_EQ(listing.get("recordsArray").count(), bound.records) << bound.maximum.description();
    EXPECT_EQ(listing.get("moreRecords"), PlistValue(bound.more)) << bound.maximum.description();
  }
}

TEST_P(RecordListings, ValueListingsAnswerFailuresWithTheStatusAlone) {
  add({user("ada", 1001, 20, "Ada")});
  const auto statusOf = [](const PlistValue& listing) {
    return listing.count() == 1 ? listing.get("status") : listing;
  };
  EXPECT_EQ(statusOf(byValues(idAttribute, texts({"1001"}), 0x7777)), PlistValue(directoryStatus::matchUnknown));
  EXPECT_EQ(statusOf(DSGetRecordsByRecordTypeAndAttributeValues(0, 0, usersType, idAttribute, texts({"1"}), 0x2001)),
            PlistValue(directoryStatus::invalidHandle));
  EXPECT_EQ(statusOf(DSGetRecordsByRecordTypeAndAttributeValues(session, node, usersType, {}, texts({"1"}), 0x2001)),
            PlistValue(directoryStatus::outOfMemory));
  for (const PlistValue& nothing : {PlistValue(), PlistValue("1001"), texts({}), PlistValue::arrayOf({1001})})
    EXPECT_THAT(namesIn(byValues(idAttribute, nothing)), IsEmpty()) << nothing.description();
  EXPECT_THAT(namesIn(DSGetRecordsByRecordTypeAndAttributeValues(session, node, {}, idAttribute, texts({"1001"}), 1)),
              IsEmpty());
}

// Which names match: by the rule that applies first.
TEST_P(RecordListings, ChooseHowToMatchNames) {
  add({user("ad", 1001, 20, "A"), user("ada", 1002, 20, "B"), user("Nadia", 1003, 20, "C"),
       user("brad", 1004, 20, "D")});
  struct Case {
    PlistValue startsWith, contains, endsWith;
    std::vector<std::string> names;
  };
  const std::vector<std::string> all = {"ad", "ada", "Nadia", "brad"};
  for (const Case& asked : std::vector<Case>{
           {"AD", {}, "AD", {"ad"}},
           {"ad", "x", "a", {"ad", "ada"}},
           {"ad", {}, "AD", {"ad", "ada"}},  // not the same text
           {"*", "DI", {}, {"Nadia"}},
           {"*", {}, "*", all},
           {"*", "*", "D", {"ad", "brad"}},
           {{}, "ad", "x", all},
           {"", "", "", all},
           {7, PlistValue::mutableArray(), true, all},
           {"a*", {}, {}, {}},
           {"a%", {}, {}, {}},
           {"')(uid=*", {}, {}, {}},
           {{}, "*)(uid=*))(|(uid=*", {}, {}},
           {{}, "\\", {}, {}},
           {std::string(65535, 'a'), {}, {}, {}},
       }) {
    const PlistValue listing =
        DSGetListOfRecords(testNode->path(), {}, {}, asked.startsWith, asked.contains, asked.endsWith);
    EXPECT_THAT(namesIn(listing), UnorderedElementsAreArray(asked.names)) << listing.description();
    EXPECT_EQ(listing.get("status"), PlistValue(0)) << listing.description();
  }
  // Names that no record has, but that must not be cut at the NUL or be taken for others.
  for (const std::string& hostile : {std::string("ad\0a", 4), std::string("ad\xFF"), std::string(1, '\0')}) {
    const PlistValue listing = DSGetListOfRecords(testNode->path(), {}, {}, hostile, {}, {});
    EXPECT_EQ(listing, PlistValue::dictionaryOf({{"status", -14050}}));
  }
}

TEST_P(RecordListings, AnswerWhatWasAskedForAndWhetherThereIsMore) {
  add({user("ada", 1001, 20, "Ada"), user("grace", 1002, 20, "Grace"), group("staff", 20, {"ada"})});
  PlistValue types = texts({groupsType, "dsRecTypeStandard:GroupAliases", usersType, "dsRecTypeStandard:UserAliases"});
  types.append(5);
  const PlistValue attributes = texts({nameAttribute, "", memberAttribute, idAttribute, "dsAttrTypeVirtual:x", "none"});
  const PlistValue listing = DSGetListOfRecords({}, types, attributes, "*", "a", "zz");
  const auto records = listing.get("recordsArray");
  EXPECT_THAT(std::vector<PlistValue>(records.elements().begin(), records.elements().end()),
              UnorderedElementsAre(PlistValue::dictionaryOf({{nameAttribute, "staff"}, {memberAttribute, "ada"}}),
                                   PlistValue::dictionaryOf({{nameAttribute, "ada"}, {idAttribute, "1001"}}),
                                   PlistValue::dictionaryOf({{nameAttribute, "grace"}, {idAttribute, "1002"}})));
  EXPECT_TRUE(listing.get("recordTypesArray").isIdentical(types));
  EXPECT_EQ(listing.get("startsWithName"), PlistValue("*"));
  EXPECT_EQ(listing.get("containsName"), PlistValue("a"));
  EXPECT_EQ(listing.get("nodePath"), PlistValue("/Search"));
  EXPECT_EQ(listing.get("nbRecords"), PlistValue(3));
  EXPECT_EQ(listing.count(), 8U) << listing.description();
  EXPECT_EQ(DSGetListOfRecords(testNode->path(), {}, {}, {}, {}, {}).allKeys(),
            PlistValue(texts({"recordsArray", "nbRecords", "moreRecords", "status"})));

  for (const PlistValue& unusable : {PlistValue(), PlistValue("x"), texts({}), PlistValue::arrayOf({5, usersType})}) {
    const PlistValue users = DSGetListOfRecords(testNode->path(), unusable, unusable, {}, {}, {});
    EXPECT_THAT(namesIn(users), UnorderedElementsAre("ada", "grace")) << unusable.description();
  }
  const PlistValue onlyAliases = texts({"dsRecTypeStandard:UserAliases"});
  EXPECT_EQ(DSGetListOfRecords(testNode->path(), onlyAliases, {}, {}, {}, {}).get("nbRecords"), PlistValue(0));
  EXPECT_EQ(DSGetListOfRecords("/No/Such", {}, {}, {}, {}, {}), PlistValue::dictionaryOf({{"status", -14008}}));
  EXPECT_EQ(DSGetListOfRecords(std::string_view("/Local\0", 7), {}, {}, {}, {}, {}),
            PlistValue::dictionaryOf({{"status", -14050}}));
}

// Records larger than the pieces in which they are read, and more of them than a piece holds.
TEST_P(RecordListings, CountAcrossPieces) {
  std::vector<SeedRecord> users;
  for (int number = 0; number < 50; ++number)
    users.push_back(user("user" + std::to_string(number), 1000 + number, 20, std::string(20000, 'x')));
  add(users);
  const PlistValue attributes = texts({nameAttribute, realNameAttribute});
  for (const auto& [maximum, records] : {std::pair{0, 0}, {13, 13}, {49, 49}, {50, 50}, {51, 50}, {-1, 50}}) {
    const PlistValue listing = DSGetListOfRecords(testNode->path(), {}, attributes, {}, {}, {}, maximum);
    EXPECT_EQ(listing.get("nbRecords"), PlistValue(records)) << maximum;
    EXPECT_EQ(listing.get("moreRecords"), PlistValue(records < 50)) << maximum;
  }

  char** names = nullptr;
  long count = 0;
  ASSERT_EQ(DSGetAnyRecordsInfo(session, node, usersType, nullptr, 1, 0, -1, &names, &count), 0);
  ASSERT_EQ(count, 50);
  struct Case {
    long first, last, count;
  };
  for (const Case& asked :
       {Case{10, 19, 10}, Case{10, -1, 40}, Case{0, 0, 1}, Case{-5, 4, 5}, Case{20, 10, 0}, Case{50, -1, 0}}) {
    DSUserRecord* records = nullptr;
    long found = -1;
    long total = -1;
    EXPECT_EQ(DSGetUserRecordsInfo(session, node, "*", directoryMatch::startsWithIgnoringCase, asked.first, asked.last,
                                   &records, &found, &total),
              0);
    EXPECT_EQ(found, asked.count);
    EXPECT_EQ(total, 50);
    for (long at = 0; at < found; ++at)
      EXPECT_STREQ(records[at].name, names[std::max(asked.first, 0L) + at]) << asked.first;
    DSDeallocUserRecs(&records, &found);
    EXPECT_EQ(records, nullptr);
    EXPECT_EQ(found, 0);
  }
  DSDeallocAnyRecs(&names, &count);
  EXPECT_EQ(names, nullptr);
}

// A walk along a prefix is taken up behind a long name, and meets a shorter one twice, and a longer one.
TEST_P(RecordListings, GoOnAlongAPrefix) {
  std::vector<SeedRecord> records = {
      user("ab", 1100, 20, "x"), group("ab", 1100), user("ac" + std::string(200, 'c'), 1101, 20, "x"),
      user("ad", 1102, 20, "x"), group("ad", 1102), user("b", 1103, 20, "x")};
  for (int number = 10; number < 40; ++number)
    records.push_back(user("aa-long-name-" + std::to_string(number), 1000 + number, 20, std::string(20000, 'x')));
  add(records);
  const PlistValue listing = DSGetListOfRecords(testNode->path(), texts({usersType, groupsType}),
                                                texts({nameAttribute, realNameAttribute}), "a", {}, {});
  EXPECT_EQ(listing.get("nbRecords"), PlistValue(35));
  EXPECT_EQ(std::ranges::count(namesIn(listing), "ab"), 2);
  EXPECT_EQ(std::ranges::count(namesIn(listing), "ad"), 2);
}

// Records share keys by their place; those with other and with many attributes must get their own all the same.
TEST_P(RecordListings, KeepAttributesApartWhereRecordsDiffer) {
  if (testNode->path() != "/Local") GTEST_SKIP() << "other nodes hold known attributes only";
  std::vector<SeedRecord> users;
  for (int number = 0; number < 40; ++number) {
    users.push_back({usersType, "u" + std::to_string(number), {}});
    for (int at = number % 7; at < number; ++at)
      users.back().attributes.push_back({"dsAttrTypeNative:a" + std::to_string(at), {std::to_string(at), "x"}});
  }
  add(users);
  const PlistValue records =
      DSGetListOfRecords(testNode->path(), {}, texts({"dsAttributesAll"}), {}, {}, {}).get("recordsArray");
  ASSERT_EQ(records.count(), 40U);
  for (int number = 0; number < 40; ++number) {
    const PlistValue record = records.at(static_cast<std::size_t>(number));
    EXPECT_EQ(record.count(), static_cast<std::size_t>(1 + number - number % 7)) << number;
    for (int at = number % 7; at < number; ++at)
      EXPECT_EQ(record.get("dsAttrTypeNative:a" + std::to_string(at)), texts({std::to_string(at).c_str(), "x"}));
  }
}

TEST_P(RecordListings, FillPlainRecords) {
  SeedRecord ada = user("ada", 1001, 20, "Ada");
  ada.attributes.push_back({nameAttribute, {"countess"}});
  ada.attributes.push_back({"dsAttrTypeNative:home", {"/home/ada"}});
  ada.attributes.push_back({"dsAttrTypeStandard:UserShell", {"/bin/sh"}});
  std::vector<std::string> members;
  for (int number = 0; number < 30000; ++number) members.push_back("member" + std::to_string(number));
  add({ada, user("*", 1002, 20, "Star"), group("staff", 20, members), group("empty", 21)});

  DSUserRecord* users = nullptr;
  long count = 0;
  ASSERT_EQ(DSGetUserRecordsInfo(session, node, "ADA", directoryMatch::exactIgnoringCase, 0, -1, &users, &count), 0);
  ASSERT_EQ(count, 1);
  const PlistValue names =
      DSGetListOfRecords(testNode->path(), {}, {}, "ada", {}, "ada").get("recordsArray").at(0).get(nameAttribute);
  ASSERT_EQ(names.count(), 2U);
  EXPECT_EQ(PlistValue(users->name), names.at(1));
  EXPECT_EQ(users->uniqueID, 1001);
  EXPECT_EQ(users->primaryGroupID, 20);
  EXPECT_STREQ(users->realName, "Ada");
  EXPECT_STREQ(users->home, "/home/ada");
  EXPECT_STREQ(users->shell, "/bin/sh");
  EXPECT_EQ(users->hasPassword, users->password == nullptr ? 0 : 1);
  DSDeallocUserRecs(&users, &count);

  // An exact "*" is a name like any other.
  ASSERT_EQ(DSGetUserRecordsInfo(session, node, "*", directoryMatch::exact, 0, -1, &users, &count), 0);
  EXPECT_EQ(count, 1);
  DSDeallocUserRecs(&users, &count);

  DSGroupRecord* groups = nullptr;
  ASSERT_EQ(DSGetGroupRecordsInfo(session, node, "staff", directoryMatch::exact, 0, -1, &groups, &count), 0);
  ASSERT_EQ(count, 1);
  EXPECT_STREQ(groups->name, "staff");
  EXPECT_EQ(groups->groupID, 20);
  std::size_t found = 0;
  while (groups->members != nullptr && groups->members[found] != nullptr) ++found;
  ASSERT_EQ(found, members.size());
  EXPECT_EQ(groups->members[29999], members[29999]);
  DSDeallocGroupRecs(&groups, count);
  EXPECT_EQ(groups, nullptr);
  EXPECT_EQ(count, 1);
  ASSERT_EQ(DSGetGroupRecordsInfo(session, node, "empty", directoryMatch::exact, 0, -1, &groups, &count), 0);
  EXPECT_EQ(groups->members, nullptr);
  DSDeallocGroupRecs(&groups, count);
}

TEST_P(RecordListings, PlainListingsLeaveNothingBehindAFailure) {
  SeedRecord odd = user("odd", 1001, 20, "Odd");
  odd.attributes[0].second = {"abc"};
  add({user("ada", 1002, 20, "Ada")});
  long count = 5;
  long total = 5;
  DSUserRecord* users = nullptr;
  EXPECT_EQ(DSGetUserRecordsInfo(session, 0, nullptr, 1, 0, -1, &users, &count, &total),
            directoryStatus::invalidHandle);
  EXPECT_EQ(count, 0);
  EXPECT_EQ(total, 0);
  EXPECT_EQ(DSGetUserRecordsInfo(session, node, "x", 0x7777, 0, -1, &users, &count), directoryStatus::matchUnknown);
  EXPECT_EQ(DSGetUserRecordsInfo(session, node, "x", 1, 0, -1, nullptr, &count), directoryStatus::invalidArgument);
  if (testNode->path() != "/Local") return;  // others do not hold what is no number
  add({odd});
  EXPECT_EQ(DSGetUserRecordsInfo(session, node, nullptr, 1, 0, -1, &users, &count, &total), -14243);
  EXPECT_EQ(users, nullptr);
  EXPECT_EQ(count, 0);
  EXPECT_EQ(total, 0);
  DSDeallocUserRecs(nullptr, nullptr);
  DSDeallocGroupRecFields(nullptr);
}

TEST_P(RecordListings, MarkAdministrators) {
  SeedRecord alias = user("second", 1003, 20, "Second");
  alias.attributes.push_back({nameAttribute, {"chief"}});
  add({user("ada", 1001, 80, "Ada"), user("grace", 1002, 20, "Grace"), alias, user("tony", 1004, 20, "Tony"),
       group("admin", 80, {"grace", "chief"}), group("administrators", 20, {"tony"})});
  const PlistValue users = texts({usersType});
  const PlistValue attributes = texts({nameAttribute, groupIdAttribute, "dsAttrTypeVirtual:isAdmin"});
  const auto administrators = [](const PlistValue& listing) {
    std::vector<std::string> names;
    const PlistValue records = listing.get("recordsArray");
    for (const PlistValue& record : records.elements()) {
      if (!record.contains("dsAttrTypeVirtual:isAdmin")) continue;
      EXPECT_TRUE(record.get("dsAttrTypeVirtual:isAdmin").isIdentical(true));
      const PlistValue name = record.get(nameAttribute);
      names.emplace_back(name.isArray() ? name.at(0).stringValue() : name.stringValue());
    }
    return names;
  };
  for (const PlistValue& path : {PlistValue(testNode->path()), PlistValue()}) {
    EXPECT_THAT(administrators(DSGetListOfRecords(path, users, attributes, {}, {}, {})),
                UnorderedElementsAre("ada", "grace", "second"));
    EXPECT_THAT(administrators(DSGetValueMatchedListOfRecords(path, users, attributes, "nameIs", "*")),
                UnorderedElementsAre("ada", "grace", "second"));
  }
  EXPECT_THAT(administrators(DSGetListOfRecords({}, users, texts({nameAttribute}), {}, {}, {})), IsEmpty());
}

TEST_P(RecordListings, HideSystemAccountsUnlessAskedFor) {
  std::vector<SeedRecord> records;
  for (const int gid : {-2, 9, 10, 12, 16, 20, 25, 50, 61, 62, 80, 99, 100, 499, 500})
    records.push_back(group("g" + std::to_string(gid), gid));
  records.push_back(group("com.brantle.access", 600));
  records.push_back(group("netbootgroup", 601));
  for (const int uid : {-2, 0, 499, 500}) records.push_back(user("u" + std::to_string(uid), uid, 25, "U"));
  records.push_back(user("netboot001", 700, 20, "N"));
  records.push_back(user("com.brantle.user", 701, 20, "B"));
  add(records);

  const PlistValue path = testNode->path();
  const PlistValue names = texts({nameAttribute});
  const PlistValue groups = texts({groupsType, "dsRecTypeStandard:GroupAliases"});
  const PlistValue users = texts({usersType});
  const PlistValue visible = DSGetValueMatchedListOfRecords(path, groups, names, "nameIs", {});
  EXPECT_THAT(namesIn(visible),
              UnorderedElementsAre("g10", "g12", "g16", "g20", "g50", "g61", "g62", "g80", "g99", "g500"));
  EXPECT_EQ(visible.get("nbSkippedRecords"), PlistValue(7));
  EXPECT_EQ(visible.get("recordTypesArray"), texts({groupsType}));
  EXPECT_THAT(namesIn(DSGetValueMatchedListOfRecords(path, users, names, "nameIs", {})),
              UnorderedElementsAre("u500", "com.brantle.user"));

  const auto counted = [&](const PlistValue& types, const char* key, const PlistValue& text = {}) {
    return DSGetValueMatchedListOfRecords(path, types, names, key, text).get("nbRecords").int64Value();
  };
  // All but "netbootgroup": what hides users looks at every record, and users were not asked for.
  EXPECT_EQ(counted(groups, "nameIs+returnSystemAccounts"), 16);
  EXPECT_EQ(counted(users, "nameIs+returnSystemAccounts+more"), 6);
  EXPECT_EQ(counted(users, "nameIs+returnsystemaccounts"), 2);
  EXPECT_EQ(counted(users, "nameIs+x+returnSystemAccounts"), 2);
  EXPECT_EQ(counted(texts({usersType, groupsType}), "+returnSystemAccounts"), 23);
  // Users are asked for with their system accounts, groups are not among the types.
  EXPECT_EQ(counted(users, "idIsLessThan+returnSystemAccounts", "500"), 3);
}

// A record with a user id and a group id: a group id of the system's decides, but for 99.
TEST_P(RecordListings, LetTheGroupIdOverruleTheUserId) {
  if (testNode->path() != "/Local") GTEST_SKIP() << "only here has a group a user id";
  for (const int gid : {20, 25, 99, 1000})
    for (const int uid : {100, 600})
      add({{groupsType,
            "g" + std::to_string(gid) + "u" + std::to_string(uid),
            {{groupIdAttribute, {std::to_string(gid)}}, {idAttribute, {std::to_string(uid)}}}}});
  EXPECT_THAT(namesIn(DSGetValueMatchedListOfRecords({}, texts({groupsType}), texts({nameAttribute}), "nameIs", {})),
              UnorderedElementsAre("g20u100", "g20u600", "g99u600", "g1000u600"));
}

TEST_P(RecordListings, MatchValuesByTheirKey) {
  add({user("ada", 1500, 20, "1500"), user("adam", 1501, 20, "x"), user("grace", 2150, 20, "x"), group("ada", 1500),
       group("staff", 2500)});
  const PlistValue path = testNode->path();
  const PlistValue attributes = texts({realNameAttribute, nameAttribute, "none"});
  struct Case {
    const char* type;
    const char* key;
    PlistValue text;
    std::vector<std::string> names;
  };
  for (const Case& asked : std::vector<Case>{
           {usersType, "nameIs", "ADA", {"ada"}},
           {usersType, "nameContains", "da", {"ada", "adam"}},
           {usersType, "nameStartsWith", "ada", {"ada", "adam"}},
           {usersType, "nameEndsWith", "E", {"grace"}},
           {usersType, "idContains", "150", {"ada", "adam", "grace"}},
           {usersType, "idIs", "1500", {"ada"}},
           {usersType, "idIsGreaterThan", "1500", {"adam", "grace"}},
           {usersType, "idIsLessThan", "1501", {"ada"}},
           {usersType, "commentContains", "1500", {"ada"}},
           {groupsType, "idIs", "1500", {"ada"}},
           {groupsType, "idIsGreaterThan", "1500", {"staff"}},
           {groupsType, "commentContains", "50", {"ada", "staff"}},
           {usersType, "nameIs", "*", {"ada", "adam", "grace"}},
           {usersType, "idIs", 1500, {"ada", "adam", "grace"}},
           {usersType, "unknown", {}, {"ada", "adam", "grace"}},
       }) {
    const PlistValue listing =
        DSGetValueMatchedListOfRecords(path, texts({asked.type}), attributes, asked.key, asked.text);
    EXPECT_THAT(namesIn(listing), UnorderedElementsAreArray(asked.names)) << asked.key << listing.description();
    EXPECT_EQ(listing.get("patternKey"), PlistValue(asked.key));
    EXPECT_EQ(listing.get("patternText"), asked.text.isString() ? asked.text : PlistValue());
    EXPECT_EQ(listing.get("nodePath"), path);
  }
  const PlistValue two = DSGetValueMatchedListOfRecords(path, texts({usersType}), attributes, "nameIs", "*", 2);
  EXPECT_EQ(two.get("nbRecords"), PlistValue(2));
  EXPECT_TRUE(two.get("moreRecords").isIdentical(false));

  // What fails and what finds nothing look alike.
  const PlistValue nothing = PlistValue::dictionaryOf({{"status", 0}});
  EXPECT_EQ(DSGetValueMatchedListOfRecords(path, texts({usersType}), attributes, "unknown", "ada"), nothing);
  EXPECT_EQ(DSGetValueMatchedListOfRecords("/No/Such", texts({usersType}), attributes, "nameIs", "*"), nothing);
  EXPECT_EQ(DSGetValueMatchedListOfRecords(path, texts({"dsRecTypeStandard:UserAliases"}), attributes, "nameIs", "*"),
            nothing);
  for (const PlistValue& hostile :
       {PlistValue(), PlistValue(usersType), texts({}), PlistValue::arrayOf({5, PlistValue::mutableArray()})})
    EXPECT_EQ(DSGetValueMatchedListOfRecords(path, hostile, attributes, "nameIs", "*"), nothing);
  for (const std::string& text : {std::string("ada\0", 4), std::string("ada\xFF"), std::string("*)(uid=*"),
                                  std::string(65536, 'a'), std::string("' OR 1=1 --")})
    EXPECT_EQ(DSGetValueMatchedListOfRecords(path, texts({usersType}), attributes, "nameContains", text), nothing);
}

// A page fills although a hundred of what was found is hidden.
TEST_P(RecordListings, FillPagesInSpiteOfWhatIsHidden) {
  std::vector<SeedRecord> users;
  for (int number = 0; number < 210; ++number)
    users.push_back(user("u" + std::to_string(number), number < 105 ? number : 1000 + number, 20, "x"));
  add(users);
  const PlistValue listing =
      DSGetValueMatchedListOfRecords(testNode->path(), texts({usersType}), texts({nameAttribute}), "nameIs", "*", 10);
  EXPECT_EQ(listing.get("nbSkippedRecords"), PlistValue(105));
  EXPECT_EQ(listing.get("nbRecords"), PlistValue(5));
}

}  // namespace
