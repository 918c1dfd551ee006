// Sessions, nodes, handles, buffers and records of the directory service, on the local node.
#include "Platform/DirectoryService.h"

#include <gmock/gmock.h>
#include <sys/stat.h>

#include <cstring>
#include <filesystem>
#include <set>
#include <thread>

#include "Platform/DirectoryNode.h"
#include "Platform/DirectoryQuery.h"
#include "Platform/UserDatabase.h"
#include "Support/DirectoryFixture.h"

using namespace ostrel;
using namespace ostrel::testing;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::UnorderedElementsAre;

namespace {

constexpr const char* listAttribute = "dsAttrTypeNative:list";
constexpr const char* passwordAttribute = "dsAttrTypeStandard:Password";

using DirectoryService = DirectoryFixture;

TEST_F(DirectoryService, KeepsOrderedValuesWithIdentifiers) {
  DirectoryHandle record = 0;
  ASSERT_EQ(create(usersType, "ada", record), 0);
  std::uint32_t first = 0;
  std::string value;
  for (const char* text : {"one", "two", "three"}) ASSERT_EQ(add(record, listAttribute, text), 0);
  ASSERT_EQ(valueAt(record, listAttribute, 1, value, &first), 0);
  EXPECT_EQ(value, "one");

  const auto entryFor = [](std::uint32_t identifier, std::string_view text) {
    return DirectoryItem<DirectoryAttributeValueEntry>(
        dsAllocAttributeValueEntry(identifier, text.data(), static_cast<std::uint32_t>(text.size())));
  };
  const auto attribute = dataNode(listAttribute);
  EXPECT_EQ(dsSetAttributeValue(record, attribute.get(), entryFor(first, "uno").get()), 0);
  EXPECT_EQ(dsSetAttributeValue(record, attribute.get(), entryFor(first + 99, "?").get()),
            directoryStatus::noSuchValue);
  std::uint32_t second = 0;
  ASSERT_EQ(valueAt(record, listAttribute, 2, value, &second), 0);
  EXPECT_EQ(dsRemoveAttributeValue(record, attribute.get(), second), 0);
  EXPECT_EQ(dsRemoveAttributeValue(record, attribute.get(), second), directoryStatus::noSuchValue);
  const auto found = search(node, {usersType}, nameAttribute, directoryMatch::exact, {"ada"}, {"dsAttributesAll"});
  ASSERT_EQ(found.size(), 1U);
  EXPECT_THAT(found[0].values(listAttribute), ElementsAre("uno", "three"));
  EXPECT_THAT(found[0].values(nameAttribute), ElementsAre("ada"));

  EXPECT_EQ(dsSetAttributeValues(record, attribute.get(), dataList({"x", "y"}).get()), 0);
  EXPECT_EQ(valueAt(record, listAttribute, 2, value), 0);
  EXPECT_EQ(value, "y");
  EXPECT_EQ(valueAt(record, listAttribute, 3, value), directoryStatus::noSuchValue);
  EXPECT_EQ(dsRemoveAttribute(record, attribute.get()), 0);
  EXPECT_EQ(dsRemoveAttribute(record, attribute.get()), 0);
  EXPECT_EQ(valueAt(record, listAttribute, 1, value), directoryStatus::noSuchValue);
  EXPECT_EQ(dsDeleteRecord(record), 0);
  EXPECT_EQ(valueAt(record, nameAttribute, 1, value), directoryStatus::recordNotFound);
  EXPECT_EQ(add(record, listAttribute, "late"), directoryStatus::recordNotFound);
  EXPECT_EQ(open(usersType, "ada", record), directoryStatus::recordNotFound);
  EXPECT_THAT(namesOf(nameAttribute, directoryMatch::containsIgnoringCase, "ada"), IsEmpty());
}

TEST_F(DirectoryService, NamesAreUniqueOfTheirTypeIgnoringCase) {
  makeUser("ada");
  makeUser("bob");
  makeRecord(groupsType, "Ada");
  DirectoryHandle record = 0;
  EXPECT_EQ(create(usersType, "ADA", record), directoryStatus::recordExists);
  ASSERT_EQ(open(usersType, "BOB", record), 0);
  EXPECT_EQ(add(record, nameAttribute, "Ada"), directoryStatus::recordExists);
  EXPECT_EQ(add(record, nameAttribute, "Bob Éclair"), 0);
  std::string value;
  EXPECT_EQ(valueAt(record, nameAttribute, 2, value), 0);
  EXPECT_EQ(valueAt(record, nameAttribute, 3, value), directoryStatus::noSuchValue) << "the refused name stayed";
  DirectoryHandle byAlias = 0;
  EXPECT_EQ(open(usersType, "bob éCLAIR", byAlias), 0);
  EXPECT_EQ(dsRemoveAttribute(record, dataNode(nameAttribute).get()), directoryStatus::invalidValue)
      << "a record without a name";
  EXPECT_EQ(open(usersType, "bob", byAlias), 0);
}

TEST_F(DirectoryService, RefusesNamesAndValuesThatNoneCanHave) {
  DirectoryHandle record = 0;
  const std::string large(65536, 'x');
  const std::string nul("a\0b", 3);
  for (const std::string& name : {std::string(), nul, large, std::string("\xC3("), std::string("a\nb"),
                                  std::string("dsRecordsAll"), std::string(256, 'n')}) {
    EXPECT_EQ(create(usersType, name, record), directoryStatus::invalidName) << name.substr(0, 20);
    EXPECT_EQ(record, 0U);
    EXPECT_EQ(create(name.c_str(), "x", record),
              name == nul || name == "dsRecordsAll" ? 0 : directoryStatus::invalidName);
  }
  makeUser("quotes");
  ASSERT_EQ(open(usersType, "quotes", record), 0);
  for (const std::string& value : {nul, large, std::string("\xFF")}) {
    EXPECT_EQ(add(record, listAttribute, value), directoryStatus::invalidValue);
    EXPECT_EQ(open(usersType, value, record), directoryStatus::recordNotFound);
    ASSERT_EQ(open(usersType, "quotes", record), 0);
    search(node, {usersType}, nameAttribute, directoryMatch::containsIgnoringCase,
           {value.substr(0, 0) + value + value});
    EXPECT_EQ(status, value == nul ? 0 : directoryStatus::invalidValue) << "lists end strings at a NUL";
  }
  // What means something to a query language is plain text here.
  const std::vector<std::string> odd = {"'; DROP TABLE record; --", "100%_*?", "\" OR NEAR(a b) *", "a AND b"};
  for (const std::string& text : odd) {
    ASSERT_EQ(create(usersType, text, record), 0) << text;
    for (const std::uint32_t match : {directoryMatch::exact, directoryMatch::startsWithIgnoringCase,
                                      directoryMatch::endsWithIgnoringCase, directoryMatch::contains})
      EXPECT_THAT(namesOf(nameAttribute, match, text), ElementsAre(text)) << match;
  }
  EXPECT_THAT(namesOf(nameAttribute, directoryMatch::containsIgnoringCase, "%"), ElementsAre("100%_*?"));
}

TEST_F(DirectoryService, StaleForeignAndMadeUpHandlesGetAStatus) {
  makeUser("ada");
  DirectoryHandle record = 0;
  ASSERT_EQ(open(usersType, "ada", record), 0);
  const auto buffer = dataBuffer(4096);
  std::uint32_t count = 0;
  DirectoryHandle continuation = 0;
  DirectoryHandle attributes = 0;
  ASSERT_EQ(
      dsGetDirNodeInfo(node, dataList({"dsAttributesAll"}).get(), buffer.get(), &count, &attributes, &continuation), 0);
  const DirectoryHandle handles[] = {0, 1, 0xFFFFFFFF, session, node, record, attributes};
  constexpr DirectoryStatus bad = directoryStatus::invalidHandle;
  for (const DirectoryHandle handle : handles) {
    std::string value;
    DirectoryHandle out = 0;
    DirectoryAttributeEntry* entry = nullptr;
    if (handle != session) {
      EXPECT_EQ(dsFindDirNodes(handle, buffer.get(), directoryNodeType::local, &count, &continuation), bad);
      EXPECT_EQ(dsCloseDirService(handle), bad);
    }
    if (handle != node) {
      EXPECT_EQ(dsOpenRecord(handle, dataNode("t").get(), dataNode("n").get(), &out), bad);
      EXPECT_EQ(dsCloseDirNode(handle), bad);
    }
    if (handle != record) {
      EXPECT_EQ(valueAt(handle, nameAttribute, 1, value), bad);
    }
    if (handle != attributes) {
      EXPECT_EQ(dsGetAttributeEntry(node, buffer.get(), handle, 1, &out, &entry), bad);
    }
    EXPECT_EQ(dsReleaseContinueData(node, handle), bad);
    EXPECT_EQ(dsCloseAttributeValueList(handle), bad);
  }
  // A buffer that was filled again does not belong to the list.
  DirectoryHandle values = 0;
  DirectoryAttributeEntry* entry = nullptr;
  ASSERT_EQ(dsFindDirNodes(session, buffer.get(), directoryNodeType::local, &count, &continuation), 0);
  EXPECT_NE(dsGetAttributeEntry(node, buffer.get(), attributes, 1, &values, &entry), 0);
  // Closing goes down; a handle is not given out again at once.
  DirectoryHandle other = 0;
  ASSERT_EQ(openNode("/Local", other), 0);
  ASSERT_EQ(dsCloseDirNode(other), 0);
  DirectoryHandle another = 0;
  ASSERT_EQ(openNode("/Local", another), 0);
  EXPECT_NE(other, another);
  ASSERT_EQ(dsCloseDirService(session), 0);
  std::string value;
  EXPECT_EQ(valueAt(record, nameAttribute, 1, value), bad);
  EXPECT_EQ(dsCloseDirNode(node), bad);
  EXPECT_EQ(dsCloseAttributeList(attributes), bad);
}

TEST_F(DirectoryService, BuffersThatCallersSpoiltGetAStatus) {
  makeUser("ada", {{listAttribute, "one"}});
  const auto buffer = dataBuffer(4096);
  for (std::size_t at = 0; at < 160; ++at) {
    std::uint32_t count = 0;
    DirectoryHandle continuation = 0;
    ASSERT_EQ(dsGetRecordList(node, buffer.get(), dataList({"dsRecordsAll"}).get(), directoryMatch::any,
                              dataList({usersType}).get(), dataList({"dsAttributesAll"}).get(), &count, &continuation),
              0);
    ASSERT_LT(at, buffer->length);
    const std::uint32_t huge = 0xFFFFFF00U + static_cast<std::uint32_t>(at);
    std::memcpy(buffer->bytes() + at, &huge, sizeof huge);
    DirectoryHandle attributes = 0;
    DirectoryHandle values = 0;
    DirectoryRecordEntry* record = nullptr;
    DirectoryAttributeEntry* attribute = nullptr;
    DirectoryAttributeValueEntry* value = nullptr;
    dsGetRecordEntry(node, buffer.get(), 1, &attributes, &record);
    for (std::uint32_t index = 1; index <= 3; ++index) {
      dsGetAttributeEntry(node, buffer.get(), attributes, index, &values, &attribute);
      dsGetAttributeValue(node, buffer.get(), 1, values, &value);
      dsDeallocAttributeEntry(attribute);
      dsDeallocAttributeValueEntry(value);
      dsCloseAttributeValueList(values);
    }
    dsDeallocRecordEntry(record);
    dsCloseAttributeList(attributes);
  }  // the address sanitizer watches
}

TEST_F(DirectoryService, AnswersInStepsAndTellsWhenThereIsMore) {
  for (int number = 0; number < 50; ++number) makeUser("user" + std::to_string(number), {{idAttribute, "7"}});
  for (const std::uint32_t limit : {0U, 1U, 7U, 50U})
    for (const std::uint32_t capacity : {400U, 0x40000U})
      for (const std::uint32_t match : {directoryMatch::any, directoryMatch::startsWithIgnoringCase,
                                        directoryMatch::containsIgnoringCase, directoryMatch::greaterThan}) {
        const bool byId = match == directoryMatch::greaterThan;
        const auto found = search(node, {usersType}, byId ? idAttribute : nameAttribute, match, {byId ? "6" : "user"},
                                  {nameAttribute, idAttribute}, capacity, limit);
        std::set<std::string> names;
        for (const FoundRecord& record : found) names.insert(record.name);
        EXPECT_EQ(found.size(), 50U) << limit << " " << capacity << " " << match;
        EXPECT_EQ(names.size(), 50U);
      }

  const auto buffer = dataBuffer(0x40000);
  const auto step = [&](std::uint32_t limit, std::uint32_t& count, DirectoryHandle& continuation,
                        DirectoryDataBuffer& in) {
    count = limit;
    return dsGetRecordList(node, &in, dataList({"*", "dsRecordsAll"}).get(), directoryMatch::exact,
                           dataList({usersType}).get(), dataList({nameAttribute}).get(), &count, &continuation);
  };
  std::uint32_t count = 0;
  DirectoryHandle continuation = 0;
  ASSERT_EQ(step(49, count, continuation, *buffer), 0);
  EXPECT_EQ(count, 49U);
  const DirectoryHandle first = continuation;
  ASSERT_NE(continuation, 0U);
  ASSERT_EQ(step(1, count, continuation, *buffer), 0);
  EXPECT_EQ(count, 1U);
  EXPECT_EQ(continuation, 0U) << "exactly what there was";
  EXPECT_EQ(dsReleaseContinueData(node, first), directoryStatus::invalidHandle);
  const auto tiny = dataBuffer(20);
  EXPECT_EQ(step(0, count, continuation, *tiny), directoryStatus::bufferTooSmall);
  ASSERT_NE(continuation, 0U) << "the call can be made again";
  EXPECT_EQ(step(0, count, continuation, *buffer), 0);
  EXPECT_EQ(count, 50U);
  EXPECT_EQ(dsGetDirNodeList(session, tiny.get(), &count, &continuation), directoryStatus::bufferTooSmall);
  search(node, {usersType}, nameAttribute, 0, {"user"});
  EXPECT_EQ(status, directoryStatus::matchUnknown);
  EXPECT_EQ(search(node, {usersType}, nameAttribute, 0, {"dsRecordsAll"}).size(), 50U);
}

TEST_F(DirectoryService, RecordsTooLargeForThePackedCopyAreTheSame) {
  DirectoryHandle record = 0;
  makeRecord(groupsType, "staff");
  DirectoryDataList* members = dsDataListAllocate();
  for (int number = 0; number < 3000; ++number)
    dsAppendStringToListAlloc(members, ("member" + std::to_string(number)).c_str());
  const DirectoryItem<DirectoryDataList> owned(members);
  DirectoryHandle opened = 0;
  ASSERT_EQ(open(groupsType, "staff", opened), 0);
  ASSERT_EQ(dsSetAttributeValues(opened, dataNode(listAttribute).get(), members), 0);
  ASSERT_EQ(add(opened, "dsAttrTypeStandard:RealName", "Staff"), 0);
  const auto all =
      search(node, {groupsType}, listAttribute, directoryMatch::exact, {"member2999", "member7"}, {"dsAttributesAll"});
  ASSERT_EQ(all.size(), 1U) << "two of its values match: answered once";
  const auto values = all[0].values(listAttribute);
  ASSERT_EQ(values.size(), 3000U);
  EXPECT_EQ(values[2999], "member2999");
  const auto some =
      search(node, {groupsType}, nameAttribute, directoryMatch::any, {""}, {"dsAttrTypeStandard:RealName"});
  ASSERT_EQ(some.size(), 1U);
  EXPECT_EQ(some[0].name, "staff");
  EXPECT_THAT(some[0].attributes, ElementsAre(::testing::Pair("dsAttrTypeStandard:RealName", ElementsAre("Staff"))));
  ASSERT_EQ(dsRemoveAttribute(opened, dataNode(listAttribute).get()), 0);
  EXPECT_EQ(
      search(node, {groupsType}, nameAttribute, directoryMatch::any, {""}, {"dsAttributesAll"})[0].attributes.size(),
      2U);
  (void)record;
}

TEST_F(DirectoryService, PasswordsAreKeptAsHashesAndReadByNobody) {
  makeUser("ada", {{passwordAttribute, "correct horse"}});
  const auto authenticate = [&](DirectoryHandle at, std::string_view user, std::string_view password) {
    std::string bytes;
    for (const std::string_view text : {user, password}) {
      const auto length = static_cast<std::uint32_t>(text.size());
      bytes.append(reinterpret_cast<const char*>(&length), sizeof length).append(text);
    }
    DirectoryHandle continuation = 0;
    return dsDoDirNodeAuth(at, dataNode(directoryName::clearTextMethod).get(), false, dataNode(bytes).get(), nullptr,
                           &continuation);
  };
  EXPECT_EQ(authenticate(node, "ada", "correct horse"), 0);
  EXPECT_EQ(authenticate(node, "ADA", "correct horse"), 0);
  EXPECT_EQ(authenticate(node, "ada", "correct horsf"), directoryStatus::passwordRefused);
  EXPECT_EQ(authenticate(node, "ada", ""), directoryStatus::passwordRefused);
  EXPECT_EQ(authenticate(node, "ada", "********"), directoryStatus::passwordRefused);
  EXPECT_EQ(authenticate(node, "bob", "x"), directoryStatus::userUnknown);
  for (const std::string_view cut : {std::string_view("\x03\0\0\0ad", 6), std::string_view("\xFF\xFF\xFF\xFF", 4)})
    EXPECT_EQ(dsDoDirNodeAuth(node, dataNode(directoryName::clearTextMethod).get(), true, dataNode(cut).get(), nullptr,
                              nullptr),
              directoryStatus::invalidArgument);
  EXPECT_EQ(dsDoDirNodeAuth(node, dataNode("other").get(), true, dataNode("").get(), nullptr, nullptr),
            directoryStatus::methodUnknown);

  DirectoryHandle record = 0;
  std::string value;
  ASSERT_EQ(open(usersType, "ada", record), 0);
  EXPECT_EQ(valueAt(record, passwordAttribute, 1, value), 0);
  EXPECT_EQ(value, "********");
  EXPECT_EQ(add(record, passwordAttribute, "second"), directoryStatus::invalidValue);
  EXPECT_EQ(dsSetAttributeValues(record, dataNode(passwordAttribute).get(), dataList({"********"}).get()), 0);
  EXPECT_EQ(authenticate(node, "ada", "correct horse"), 0) << "writing back what was read changes nothing";
  for (const char* pattern : {"*", "correct", "$y$"})
    EXPECT_THAT(namesOf(passwordAttribute, directoryMatch::containsIgnoringCase, pattern), IsEmpty());
  for (const auto& entry : std::filesystem::directory_iterator(folder / "var/ostreld/directory")) {
    EXPECT_EQ(readFile(entry.path()).find("correct"), std::string::npos) << entry.path();
    struct stat file {};
    ASSERT_EQ(stat(entry.path().c_str(), &file), 0);
    EXPECT_EQ(file.st_mode & 0777U, 0600U) << entry.path();
  }
  struct stat directory {};
  ASSERT_EQ(stat((folder / "var/ostreld/directory").c_str(), &directory), 0);
  EXPECT_EQ(directory.st_mode & 0777U, 0700U);
  EXPECT_EQ(dsRemoveAttribute(record, dataNode(passwordAttribute).get()), 0);
  EXPECT_EQ(authenticate(node, "ada", "correct horse"), directoryStatus::passwordRefused);
}

TEST_F(DirectoryService, ListsItsNodesAndTellsOfThem) {
  const auto buffer = dataBuffer(4096);
  std::uint32_t count = 0;
  DirectoryHandle continuation = 0;
  const auto paths = [&] {
    std::vector<std::string> found;
    for (std::uint32_t index = 1; index <= count; ++index) {
      DirectoryDataList* name = nullptr;
      EXPECT_EQ(dsGetDirNodeName(session, buffer.get(), index, &name), 0);
      const DirectoryItem<DirectoryDataList> owned(name);
      char* path = dsGetPathFromList(name, "/");
      found.emplace_back(path);
      free(path);
    }
    return found;
  };
  ASSERT_EQ(dsGetDirNodeList(session, buffer.get(), &count, &continuation), 0);
  EXPECT_THAT(paths(), ElementsAre("/Local", "/Host"));
  DirectoryDataList* name = nullptr;
  EXPECT_EQ(dsGetDirNodeName(session, buffer.get(), 3, &name), directoryStatus::noSuchEntry);
  const std::pair<std::uint32_t, std::vector<std::string>> types[] = {{directoryNodeType::local, {"/Local"}},
                                                                      {directoryNodeType::search, {"/Search"}},
                                                                      {directoryNodeType::locallyHosted, {"/Local"}},
                                                                      {7, {}}};
  for (const auto& [type, expected] : types) {
    ASSERT_EQ(dsFindDirNodes(session, buffer.get(), type, &count, &continuation), 0);
    EXPECT_EQ(paths(), expected);
  }
  DirectoryHandle searchNode = 0;
  ASSERT_EQ(openNode("Search//", searchNode), 0);
  DirectoryHandle attributes = 0;
  ASSERT_EQ(
      dsGetDirNodeInfo(searchNode,
                       dataList({"dsAttrTypeStandard:SearchPath", "dsAttrTypeStandard:ReadOnlyNode", "none"}).get(),
                       buffer.get(), &count, &attributes, &continuation),
      0);
  FoundRecord info;
  readAttributes(searchNode, *buffer, attributes, count, info);
  EXPECT_THAT(info.values("dsAttrTypeStandard:SearchPath"), ElementsAre("/Local", "/Host"));
  EXPECT_THAT(info.values("dsAttrTypeStandard:ReadOnlyNode"), ElementsAre("ReadOnly"));
  EXPECT_EQ(info.attributes.size(), 2U);
  EXPECT_EQ(openNode("/Nowhere", searchNode), directoryStatus::nodeNotFound);
  const auto authentication = dataBuffer(16);
  EXPECT_EQ(dsOpenDirServiceProxy(&searchNode, "a/b", 0, dataNode("m").get(), authentication.get(), nullptr, nullptr),
            directoryStatus::invalidArgument);
}

TEST_F(DirectoryService, ManyThreadsAndSessionsAtOnce) {
  for (int number = 0; number < 20; ++number) makeUser("user" + std::to_string(number));
  std::vector<std::thread> threads;
  for (int number = 0; number < 4; ++number)
    threads.emplace_back([this, number] {
      const std::string mine = "thread" + std::to_string(number);
      for (int round = 0; round < 10; ++round) {
        DirectoryHandle record = 0;
        EXPECT_EQ(create(usersType, mine, record), 0);
        EXPECT_EQ(add(record, idAttribute, std::to_string(number)), 0);
        DirectoryHandle own = 0;
        EXPECT_EQ(dsOpenDirService(&own), 0);
        std::string value;
        EXPECT_EQ(valueAt(record, idAttribute, 1, value), 0);
        EXPECT_EQ(value, std::to_string(number));
        const auto buffer = dataBuffer(600);
        DirectoryHandle continuation = 0;
        std::size_t found = 0;
        do {
          std::uint32_t count = 0;
          ASSERT_EQ(
              dsGetRecordList(node, buffer.get(), dataList({"user"}).get(), directoryMatch::startsWithIgnoringCase,
                              dataList({usersType}).get(), dataList({nameAttribute}).get(), &count, &continuation),
              0);
          found += readAll(node, *buffer, count).size();
        } while (continuation != 0);
        EXPECT_EQ(found, 20U);
        EXPECT_EQ(dsDeleteRecord(record), 0);
        EXPECT_EQ(dsCloseRecord(record), 0);
        EXPECT_EQ(dsCloseDirService(own), 0);
      }
    });
  for (std::thread& thread : threads) thread.join();
}

TEST_F(DirectoryService, AnswersQueriesAsObjects) {
  makeUser("ada", {{idAttribute, "501"}, {listAttribute, "x"}, {listAttribute, "y"}});
  makeUser("bob", {{idAttribute, "499"}});
  const auto opened = DirectorySession::defaultSession();
  ASSERT_NE(opened, nullptr);
  DirectoryStatus why = 0;
  EXPECT_EQ(opened->nodeNamed("/No", &why), nullptr);
  EXPECT_EQ(why, directoryStatus::nodeNotFound);
  const auto local = opened->nodeNamed("/Local");
  ASSERT_NE(local, nullptr);
  const auto found = local->results({{usersType}, idAttribute, directoryMatch::greaterThan, "500", {listAttribute}, 5});
  ASSERT_EQ(found.size(), 1U);
  EXPECT_EQ(found[0].recordType, usersType);
  EXPECT_EQ(found[0].attributes, PlistValue::dictionaryOf({{listAttribute, PlistValue::arrayOf({"x", "y"})}}));
  EXPECT_EQ(local->results({{usersType}, nameAttribute, directoryMatch::any, "", {}, 1}).size(), 1U);
  EXPECT_THAT(local->results({{usersType}, nameAttribute, 0, "a", {}, 0}, &why), IsEmpty());
  EXPECT_EQ(why, directoryStatus::matchUnknown);
  const auto everywhere = opened->nodeOfType(directoryNodeType::search);
  ASSERT_NE(everywhere, nullptr);
  EXPECT_EQ(everywhere->path(), "/Search");
  EXPECT_EQ(everywhere->results({{usersType}, nameAttribute, directoryMatch::exact, "ada", {nameAttribute}, 0}).size(),
            1U);
}

}  // namespace
