// Records by type and name, and identifiers, on every kind of node.
#include <gmock/gmock.h>

#include <chrono>

#include "Directory/DirectoryIdentifiers.h"
#include "Directory/DirectoryMemory.h"
#include "Directory/DirectoryRecords.h"
#include "Directory/DirectorySessions.h"
#include "Directory/NodeFixture.h"
#include "Platform/UuidSource.h"

using namespace ostrel;
using namespace ostrel::testing;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::MatchesRegex;

namespace {

constexpr const char* comment = "dsAttrTypeStandard:Comment";
constexpr const char* groupId = "dsAttrTypeStandard:PrimaryGroupID";

class RecordsByName : public NodeFixture {
 protected:
  DirectoryStatus create(const char* name) { return DSCreateRecordByName(session, node, usersType, name); }
  DirectoryStatus set(const char* value, const char* name = "ada") {
    return DSSetRecordAttributeValueByName(session, node, usersType, name, comment, value);
  }
  DirectoryStatus setAt(std::uint32_t index, const char* value) {
    return DSSetRecordAttributeValueByNameAndIndex(session, node, usersType, "ada", comment, index, value);
  }
  DirectoryStatus setAll(const DirectoryDataList* values, const char* name = "ada") {
    return DSSetRecordAttributeValuesByName(session, node, usersType, name, comment, values);
  }
  std::vector<std::string> values() {
    std::vector<std::string> found;
    char* value = nullptr;
    DirectoryStatus status = 0;
    for (std::uint32_t index = 1; status == 0; ++index) {
      status = DSGetRecordAttributeValueByNameAndIndex(session, node, usersType, "ada", comment, index, &value);
      if (status == 0) found.emplace_back(value);
      DSDeallocPointer(&value);
    }
    EXPECT_EQ(status, directoryStatus::noSuchValue);
    return found;
  }
};
OSTREL_ON_EVERY_NODE(RecordsByName);

TEST_P(RecordsByName, AreMadeOnceAndRemoved) {
  ASSERT_EQ(create("ada"), 0);
  ASSERT_EQ(set("first"), 0);
  EXPECT_EQ(create("ada"), directoryStatus::recordExists);
  EXPECT_EQ(create("ADA"), directoryStatus::recordExists);
  EXPECT_THAT(values(), ElementsAre("first")) << "nothing was changed";
  EXPECT_EQ(DSRemoveRecordByName(session, node, usersType, "ada"), 0);
  EXPECT_EQ(DSRemoveRecordByName(session, node, usersType, "ada"), directoryStatus::recordNotFound);

  DirectoryDataNode* type = nullptr;
  DirectoryDataNode* name = nullptr;
  DirectoryHandle record = 7;
  EXPECT_EQ(DSOpenNamedRecord(session, node, usersType, "ada", &type, &name, &record), directoryStatus::recordNotFound);
  EXPECT_EQ(record, 0U);
  ASSERT_TRUE(type != nullptr && name != nullptr) << "left for whoever makes the record";
  EXPECT_EQ(name->text(), "ada");
  EXPECT_EQ(DSCloseNamedRecord(session, &type, &name, &record), 0);
  EXPECT_TRUE(type == nullptr && name == nullptr);
  EXPECT_EQ(DSOpenNamedRecord(session, node, usersType, nullptr, &type, &name, &record), directoryStatus::outOfMemory);
  EXPECT_TRUE(type == nullptr && name == nullptr) << "no half of them";
  EXPECT_EQ(create(nullptr), directoryStatus::outOfMemory);
}

TEST_P(RecordsByName, SetTheFirstValueInEachCase) {
  ASSERT_EQ(create("ada"), 0);
  EXPECT_EQ(set(nullptr), directoryStatus::noSuchValue);
  EXPECT_EQ(set("one"), 0);
  EXPECT_THAT(values(), ElementsAre("one"));
  EXPECT_EQ(setAll(dataList({"one", "two", "three"}).get()), 0);
  EXPECT_EQ(set("uno"), 0);
  EXPECT_THAT(values(), ElementsAre("uno", "two", "three")) << "in the place of the first";
  EXPECT_EQ(set(nullptr), 0);
  EXPECT_THAT(values(), IsEmpty()) << "the whole attribute, not its first value";
  EXPECT_EQ(set("x", "nobody"), directoryStatus::recordNotFound);
}

TEST_P(RecordsByName, SetValuesByIndexInEachCase) {
  ASSERT_EQ(create("ada"), 0);
  EXPECT_EQ(setAt(3, nullptr), directoryStatus::noSuchValue);
  EXPECT_EQ(setAt(3, "one"), 0) << "without any value the index does not matter";
  EXPECT_EQ(setAt(9, "two"), 0) << "past the end: appended";
  EXPECT_EQ(setAt(3, "three"), 0);
  EXPECT_THAT(values(), ElementsAre("one", "two", "three"));
  EXPECT_EQ(setAt(2, "due"), 0);
  EXPECT_THAT(values(), ElementsAre("one", "due", "three"));
  EXPECT_EQ(setAt(9, nullptr), directoryStatus::noSuchValue);
  EXPECT_EQ(setAt(2, nullptr), 0);
  EXPECT_THAT(values(), ElementsAre("one", "three")) << "that one value";
}

TEST_P(RecordsByName, ReadAndReplaceWholeAttributes) {
  ASSERT_EQ(create("ada"), 0);
  std::string stale = "stale";
  char* value = stale.data();
  EXPECT_EQ(DSGetRecordAttributeValueByName(session, node, usersType, "ada", comment, &value), 0);
  EXPECT_EQ(value, nullptr) << "no value is no failure here";
  value = stale.data();
  EXPECT_EQ(DSGetRecordAttributeValueByNameAndIndex(session, node, usersType, "ada", comment, 1, &value),
            directoryStatus::noSuchValue);
  EXPECT_EQ(value, nullptr);
  EXPECT_EQ(DSGetRecordAttributeValueByName(session, node, usersType, "bob", comment, &value),
            directoryStatus::recordNotFound);
  ASSERT_EQ(setAll(dataList({"x", "y"}).get()), 0);
  EXPECT_THAT(values(), ElementsAre("x", "y"));
  EXPECT_EQ(setAll(dataList({"fits", std::string(1, '\xFF')}).get()), 0) << "a refused replacement is not told";
  EXPECT_THAT(values(), ElementsAre("x", "y"));
  EXPECT_EQ(setAll(dataList({"x"}).get(), "nobody"), directoryStatus::recordNotFound);
  EXPECT_EQ(setAll(nullptr), 0);
  EXPECT_EQ(setAll(nullptr), 0) << "what is not there is removed with success";
  ASSERT_EQ(set("again"), 0);
  EXPECT_EQ(DSRemoveRecordAttributeByName(session, node, usersType, "ada", comment), 0);
  EXPECT_THAT(values(), IsEmpty());
  EXPECT_EQ(DSRemoveRecordAttributeByName(session, node, usersType, "ada", nullptr), directoryStatus::outOfMemory);
}

TEST_P(RecordsByName, HostileNamesNameNothingElse) {
  ASSERT_EQ(create("ada"), 0);
  for (const std::string& name :
       {std::string("*"), std::string("a*"), std::string("' OR 1=1 --"), std::string("\"ada\""), std::string("a_a"),
        std::string("%"), std::string("*)(uid=*"), std::string("ada,ou=people"), std::string("\\2a"), std::string(),
        std::string(1, '\xFF'), std::string(65536, 'a'), std::string("ada\n")}) {
    char* value = nullptr;
    EXPECT_NE(DSGetRecordAttributeValueByName(session, node, usersType, name.c_str(), comment, &value), 0) << name;
    EXPECT_NE(DSRemoveRecordByName(session, node, usersType, name.c_str()), 0) << name;
  }
  const std::string odd = "o'Hara \"q\" (x)*\\,+";
  ASSERT_EQ(create(odd.c_str()), 0);
  ASSERT_EQ(set("hers", odd.c_str()), 0);
  EXPECT_THAT(values(), IsEmpty());
  EXPECT_EQ(DSRemoveRecordByName(session, node, usersType, odd.c_str()), 0);
  EXPECT_EQ(create("ada"), directoryStatus::recordExists);
}

TEST_P(RecordsByName, GiveTheLowestFreeGroupNumber) {
  std::vector<SeedRecord> groups = {{groupsType, "low", {{groupId, {"499"}}}}};
  add(groups);
  EXPECT_EQ(DSGenerateLegacyGID(session, node), PlistValue("500"));
  groups.clear();
  for (int number = 500; number < 10500; ++number)
    if (number != 502)
      groups.push_back({groupsType, "group" + std::to_string(number), {{groupId, {std::to_string(number)}}}});
  add(groups);
  EXPECT_EQ(DSGenerateLegacyGID(session, node), PlistValue("502"));
  add({{groupsType, "group502", {{groupId, {"502"}}}}});
  EXPECT_EQ(DSGenerateLegacyGID(session, node), PlistValue("10500"));
}

TEST_P(RecordsByName, AuthenticateByAnyNameWithBuffersThatFit) {
  const std::string longPassword(400, 'p');
  add({{usersType, "ada", {{nameAttribute, {"lovelace"}}, {"dsAttrTypeStandard:Password", {longPassword}}}}});
  EXPECT_EQ(DSAuthenticateNode(session, node, "ada", longPassword), 0) << "more than the usual buffer holds";
  EXPECT_EQ(DSAuthenticateNode(session, node, "lovelace", longPassword), 0);
  EXPECT_EQ(DSAuthenticateNode(session, node, "ada", std::string(400, 'q')), directoryStatus::passwordRefused);
  EXPECT_EQ(DSAuthenticateNode(session, node, "ada", ""), directoryStatus::passwordRefused);
  EXPECT_EQ(DSAuthenticateNode(session, node, "nobody", longPassword), directoryStatus::userUnknown);
  EXPECT_NE(DSAuthenticateNode(session, node, std::string(65536, 'u'), std::string(65536, 'p')), 0);
  const std::string withNul("ada\0x", 5);
  EXPECT_EQ(DSAuthenticateNode(session, node, withNul, longPassword), directoryStatus::outOfMemory);
  EXPECT_EQ(DSAuthenticateNode(session, node, "ada", longPassword + std::string(1, '\0')),
            directoryStatus::outOfMemory);
  EXPECT_EQ(DSAuthenticateNode(session, node, nullptr, nullptr), directoryStatus::outOfMemory);
}

TEST(AuthenticationBuffer, HoldsCountedTextsAndNeverOverflows) {
  const std::pair<std::pair<std::string, std::string>, std::string> cases[] = {
      {{"ab", ""}, std::string("\2\0\0\0ab\0\0\0\0", 10)},
      {{"", "x"}, std::string("\0\0\0\0\1\0\0\0x", 9)},
      {{std::string(248, 'u'), ""}, {}},
      {{std::string(248, 'u'), "p"}, {}},
      {{std::string(65536, 'u'), std::string(65536, 'p')}, {}}};
  for (const auto& [texts, bytes] : cases) {
    DirectoryDataBuffer* buffer = nullptr;
    ASSERT_EQ(DSBuildAuthenticationBuffer(0, texts.first.c_str(), texts.second.c_str(), &buffer), 0);
    const std::size_t length = 8 + texts.first.size() + texts.second.size();
    EXPECT_EQ(buffer->length, length);
    EXPECT_EQ(buffer->capacity, std::max<std::size_t>(length, 256));
    EXPECT_TRUE(bytes.empty() || buffer->text() == bytes);
    EXPECT_EQ(DSDataBufferDeAllocate(&buffer), 0);
    EXPECT_EQ(buffer, nullptr);
    EXPECT_EQ(DSDataBufferDeAllocate(&buffer), 0) << "nothing to release";
  }
}

TEST(AttributeValues, BecomeIntegersAsScanfReadsThem) {
  const std::pair<const char*, std::int32_t> cases[] = {
      {"501", 501}, {" -2x", -2}, {"+7", 7}, {"4294967294", -2}, {"2147483647", 2147483647}, {"0x10", 0}};
  for (const auto& [text, expected] : cases) {
    const DirectoryItem<DirectoryAttributeValueEntry> entry(
        dsAllocAttributeValueEntry(1, text, static_cast<std::uint32_t>(std::string_view(text).size())));
    std::int32_t value = 99;
    EXPECT_EQ(DSExtractAttributeValueAsInteger(entry.get(), &value), 0) << text;
    EXPECT_EQ(value, expected) << text;
  }
  for (const std::string_view text : {std::string_view(""), std::string_view("x1"), std::string_view("\0001", 2)}) {
    const DirectoryItem<DirectoryAttributeValueEntry> entry(
        dsAllocAttributeValueEntry(1, text.data(), static_cast<std::uint32_t>(text.size())));
    std::int32_t value = 99;
    EXPECT_EQ(DSExtractAttributeValueAsInteger(entry.get(), &value), directoryStatus::notAnInteger);
  }
}

TEST(DynamicArray, GrowsAndStaysTerminated) {
  char** array = nullptr;
  char texts[3] = {'a', 'b', 'c'};
  for (char& text : texts) ASSERT_EQ(DSAddMemberToDynamicArray(&array, &text), 0);
  for (std::size_t at = 0; at < 3; ++at) EXPECT_EQ(array[at], &texts[at]);
  EXPECT_EQ(array[3], nullptr);
  DSDeallocPointer(&array);
  EXPECT_EQ(array, nullptr);
}

TEST(Identifiers, CarryNumbersOfOld) {
  const std::string user = "FFFFEEEE-DDDD-CCCC-BBBB-AAAA";
  const std::string group = "AAAABBBB-CCCC-DDDD-EEEE-FFFF";
  const std::pair<PlistValue, PlistValue> cases[] = {{user + "000001F5", "501"},
                                                     {group + "00000064", "100"},
                                                     {user + "FFFFFFFE", "-2"},
                                                     {user + "0000001f", "31"},
                                                     {user + "7FFFFFFF", "2147483647"},
                                                     {user, nullptr},
                                                     {user + "G", nullptr},
                                                     {user + "1FFFFFFFF", nullptr},
                                                     {"0" + user + "00000001", nullptr},
                                                     {"FFFFEEEE-DDDD-CCCC-BBBB", nullptr},
                                                     {nullptr, nullptr},
                                                     {501, nullptr}};
  for (const auto& [identifier, expected] : cases)
    EXPECT_EQ(DSLegacyIDFromGeneratedUID(identifier), expected) << identifier.description();

  const auto record = [](const char* attribute, const PlistValue& value, const char* name) {
    return PlistValue::dictionaryOf({{attribute, value}, {nameAttribute, name}});
  };
  const std::string ada = user + "000001F5";
  const PlistValue records = PlistValue::arrayOf(
      {"no record", record(groupId, "501", "group"), record(idAttribute, PlistValue::arrayOf({"501"}), "several"),
       record(idAttribute, "501", "first"), record(idAttribute, "501", "second"),
       record("dsAttrTypeStandard:GeneratedUID", group + "00000001", "generated")});
  const auto matching = [&](const PlistValue& all, const std::string& identifier) {
    return DSRecordWithMatchingGeneratedUID(all, identifier).get(nameAttribute).description();
  };
  EXPECT_EQ(matching(records, ada), "first") << "user ids come before group ids, arrays match nothing";
  EXPECT_EQ(matching(records, group + "00000001"), "generated");
  EXPECT_EQ(matching(PlistValue::arrayOf({records.at(1)}), ada), "group");
  EXPECT_EQ(matching(records, group + "00000002"), "(null)");
  EXPECT_EQ(matching(records, "501"), "(null)") << "no identifier";
  EXPECT_TRUE(DSRecordWithMatchingGeneratedUID(nullptr, nullptr).isNull());
}

TEST(Identifiers, AreNewAndCanonical) {
  const std::string one(DSGenerateUniqueIdentifier().stringValue());
  EXPECT_THAT(one, MatchesRegex("[0-9A-F]{8}-[0-9A-F]{4}-4[0-9A-F]{3}-[89AB][0-9A-F]{3}-[0-9A-F]{12}"));
  EXPECT_NE(DSGenerateUniqueIdentifier(), PlistValue(one));
  class None final : public UuidSource {
    std::string make() override { return {}; }
  } none;
  const ScopedOverride<UuidSource> without(none);
  EXPECT_TRUE(DSGenerateUniqueIdentifier().isNull());
}

}  // namespace
