// Sessions, nodes, records and searches of the directory service, on the local node.
#include "Platform/DirectoryService.h"

#include <gmock/gmock.h>

#include "Support/DirectoryFixture.h"

using namespace ostrel;
using namespace ostrel::testing;
using ::testing::ElementsAre;

namespace {

using DirectoryService = DirectoryFixture;

TEST_F(DirectoryService, KeepsOrderedValuesWithIdentifiers) {
  DirectoryHandle record = 0;
  ASSERT_EQ(create(usersType, "ada", record), 0);
  std::uint32_t first = 0;
  std::string value;
  for (const char* text : {"one", "two", "three"}) ASSERT_EQ(add(record, "dsAttrTypeNative:list", text), 0);
  ASSERT_EQ(valueAt(record, "dsAttrTypeNative:list", 1, value, &first), 0);
  EXPECT_EQ(value, "one");

  const auto entryFor = [](std::uint32_t identifier, std::string_view text) {
    return DirectoryItem<DirectoryAttributeValueEntry>(
        dsAllocAttributeValueEntry(identifier, text.data(), static_cast<std::uint32_t>(text.size())));
  };
  const auto attribute = dataNode("dsAttrTypeNative:list");
  EXPECT_EQ(dsSetAttributeValue(record, attribute.get(), entryFor(first, "uno").get()), 0);
  EXPECT_EQ(dsSetAttributeValue(record, attribute.get(), entryFor(first + 99, "?").get()),
            directoryStatus::noSuchValue);
  std::uint32_t second = 0;
  ASSERT_EQ(valueAt(record, "dsAttrTypeNative:list", 2, value, &second), 0);
  EXPECT_EQ(dsRemoveAttributeValue(record, attribute.get(), second), 0);
  EXPECT_EQ(dsRemoveAttributeValue(record, attribute.get(), second), directoryStatus::noSuchValue);
  const auto found = search(node, {usersType}, nameAttribute, directoryMatch::exact, {"ada"}, {"dsAttributesAll"});
  ASSERT_EQ(found.size(), 1U);
  EXPECT_THAT(found[0].values("dsAttrTypeNative:list"), ElementsAre("uno", "three"));
  EXPECT_THAT(found[0].values(nameAttribute), ElementsAre("ada"));

  EXPECT_EQ(dsSetAttributeValues(record, attribute.get(), dataList({"x", "y"}).get()), 0);
  EXPECT_EQ(valueAt(record, "dsAttrTypeNative:list", 2, value), 0);
  EXPECT_EQ(value, "y");
  EXPECT_EQ(valueAt(record, "dsAttrTypeNative:list", 3, value), directoryStatus::noSuchValue);
  EXPECT_EQ(dsRemoveAttribute(record, attribute.get()), 0);
  EXPECT_EQ(dsRemoveAttribute(record, attribute.get()), 0);
  EXPECT_EQ(valueAt(record, "dsAttrTypeNative:list", 1, value), directoryStatus::noSuchValue);
  EXPECT_EQ(dsDeleteRecord(record), 0);
  EXPECT_EQ(valueAt(record, nameAttribute, 1, value), directoryStatus::recordNotFound);
  EXPECT_EQ(open(usersType, "ada", record), directoryStatus::recordNotFound);
}

}  // namespace
