// Sessions, nodes and what nodes tell of themselves, among nodes that answer as the tests want.
#include <gmock/gmock.h>

#include "Directory/DirectoryIdentifiers.h"
#include "Directory/DirectoryMemory.h"
#include "Directory/DirectoryRecords.h"
#include "Directory/DirectorySessions.h"
#include "Platform/DirectoryNode.h"
#include "Platform/Files.h"
#include "Support/DirectoryFixture.h"

using namespace ostrel;
using namespace ostrel::testing;

namespace {

constexpr const char* readOnlyAttribute = "dsAttrTypeStandard:ReadOnlyNode";

// A node that serves its data itself, whose facts stand in the configuration, and whose searches for group 501 fail.
class TellingNode final : public DirectoryNode {
 public:
  TellingNode(std::string path, PlistValue entry) : path_(std::move(path)), entry_(std::move(entry)) {}
  const std::string& path() const override { return path_; }
  bool isLocallyHosted() const override { return entry_.get("Hosted").boolValue(); }
  std::vector<Fact> facts() const override {
    std::vector<Fact> facts;
    const PlistValue told = entry_.get("Facts");
    for (const PlistEntry& fact : told.entries()) {
      facts.push_back({std::string(fact.keyText()), {}});
      for (const PlistValue& value : fact.value.elements()) facts.back().values.emplace_back(value.stringValue());
    }
    return facts;
  }
  DirectoryStatus search(const DirectorySearchRequest& request, const DirectoryIdentityPointer& /*identity*/,
                         std::unique_ptr<DirectorySearch>& search) override {
    class Empty final : public DirectorySearch {
      DirectoryStatus next(const DirectoryRecordView*& record) override {
        record = nullptr;
        return 0;
      }
    };
    if (request.patterns.at(0) < "503") return directoryStatus::busy;
    search = std::make_unique<Empty>();
    return 0;
  }
  DirectoryStatus openRecord(std::string_view /*type*/, std::string_view /*name*/,
                             const DirectoryIdentityPointer& /*identity*/,
                             std::unique_ptr<DirectoryRecord>& /*record*/) override {
    return directoryStatus::busy;
  }
  DirectoryStatus authenticate(std::string_view user, std::string_view password,
                               DirectoryIdentityPointer& /*identity*/) override {
    return user == "given" && password == "right" ? 0 : directoryStatus::passwordRefused;
  }

 private:
  std::string path_;
  PlistValue entry_;
};

class SessionsAndNodes : public ::testing::Test {
 protected:
  void SetUp() override {
    registerDirectoryNodeKind(
        "Telling",
        [](const std::string& path, const PlistValue& entry, std::string&) -> std::unique_ptr<DirectoryNode> {
          return std::make_unique<TellingNode>(path, entry);
        });
  }
  void TearDown() override { DSCloseDirectoryServices(&session); }

  /// Writes the configuration and opens a session: entries as path and body.
  void configure(const std::vector<std::pair<std::string, std::string>>& nodes, const std::string& searchPath = "") {
    std::string text = "<plist><dict><key>HostNode</key><false/><key>Nodes</key><array>";
    for (const auto& [path, body] : nodes)
      text += "<dict><key>Kind</key><string>Telling</string><key>Path</key><string>" + path + "</string>" + body +
              "</dict>";
    text += "</array>" + (searchPath.empty() ? "" : "<key>SearchPath</key><array>" + searchPath + "</array>");
    writeFile(folder / "etc/ostreld/directory.plist", text + "</dict></plist>");
    ASSERT_EQ(DSOpenDirectoryServices(nullptr, 0, nullptr, nullptr, &session), 0);
  }
  static std::string facts(const std::string& attribute, const std::string& values) {
    return "<key>Facts</key><dict><key>" + attribute + "</key><array>" + values + "</array></dict>";
  }
  DirectoryStatus openByType(std::uint32_t type, std::string& path) {
    DirectoryHandle node = 9;
    std::string stale;
    char* found = stale.data();
    const DirectoryStatus status = DSOpenNodeByType(session, type, &node, &found);
    EXPECT_EQ(node != 0, status == 0);
    EXPECT_EQ(found != nullptr, status == 0);
    path = found == nullptr ? "" : found;
    DSDeallocPointer(&found);
    EXPECT_EQ(DSCloseNode(0, &node), 0);
    EXPECT_EQ(node, 0U);
    return status;
  }

  TemporaryFolder folder;
  ScopedHostRoot root{folder.path()};
  DirectoryHandle session = 0;
};

TEST_F(SessionsAndNodes, OpenAndCloseByPathAndType) {
  configure({{"/T/a", ""}});
  std::string path;
  EXPECT_EQ(openByType(directoryNodeType::local, path), 0);
  EXPECT_EQ(path, "/Local");
  EXPECT_EQ(openByType(directoryNodeType::search, path), 0);
  EXPECT_EQ(path, "/Search");
  EXPECT_EQ(openByType(7, path), directoryStatus::noNodeOfType);
  EXPECT_EQ(DSGetDefaultLocalNodePath(session), PlistValue("/Local"));
  EXPECT_EQ(DSGetDefaultLocalNodePath(0), PlistValue("/Local"));
  EXPECT_TRUE(DSGetDefaultLocalNodePath(12345).isNull());
  DirectoryHandle node = 9;
  EXPECT_EQ(DSOpenNodeByPath(session, "/T/none", &node), directoryStatus::nodeNotFound);
  EXPECT_EQ(node, 0U);
  EXPECT_EQ(DSOpenNodeByPath(session, nullptr, &node), directoryStatus::outOfMemory);
  EXPECT_EQ(DSOpenNodeByPath(session, (std::string(65536, '/') + "Local").c_str(), &node), 0);
  EXPECT_EQ(DSCloseNode(session, &node), 0);
  EXPECT_EQ(DSCloseDirectoryServices(&session), 0);
  EXPECT_EQ(session, 0U);
  EXPECT_EQ(DSCloseDirectoryServices(&session), 0) << "nothing to close";
  EXPECT_EQ(openByType(directoryNodeType::local, path), directoryStatus::noNodeOfType) << "none found comes first";
  for (const PlistValue& host : {PlistValue(std::string("a\0b", 3)), PlistValue(7), PlistValue("\xFF")}) {
    EXPECT_EQ(DSOpenDirectoryServices(host, 1, "u", "p", &session), directoryStatus::outOfMemory);
    EXPECT_EQ(session, 0U);
  }
  EXPECT_EQ(DSOpenDirectoryServices("", 1, "u", nullptr, &session), 0) << "one is missing: this host's";
}

TEST_F(SessionsAndNodes, TakeTheHostedNodeFurthestBehindInTheSearchPath) {
  const std::string hosted = "<key>Hosted</key><true/>";
  configure({{"/T/a", hosted}, {"/T/b", hosted}, {"/T/c", ""}},
            "<string>/T/b</string><string>/Local</string><string>/T/c</string>");
  std::string path;
  EXPECT_EQ(openByType(directoryNodeType::locallyHosted, path), 0);
  EXPECT_EQ(path, "/Local");
  DSCloseDirectoryServices(&session);
  configure({{"/T/a", hosted}, {"/T/b", hosted}, {"/T/c", ""}}, "<string>/T/c</string>");
  EXPECT_EQ(openByType(directoryNodeType::locallyHosted, path), 0);
  EXPECT_EQ(path, "/T/b") << "all are outside: the last one";
  DSCloseDirectoryServices(&session);
  configure({{"/T/a", hosted}, {"/T/aa", hosted}, {"/T/b", hosted}}, "<string>/Local</string><string>/T/a</string>");
  EXPECT_EQ(openByType(directoryNodeType::locallyHosted, path), 0);
  EXPECT_EQ(path, "/T/aa") << "of one level by its prefix, the later one";
}

TEST_F(SessionsAndNodes, FindLevelsByLeadingParts) {
  configure({{"/T/a", ""}, {"/T/ab", ""}}, "<string>/Local</string><string>/T/a</string><string>/T/ab</string>");
  const std::pair<const char*, long> cases[] = {{"/Local", 0}, {"/Local/x", 0}, {"/T/a", 1}, {"/T/ab", 1},
                                                {"/Loca", -1}, {"", -1},        {"/T/A", -1}};
  for (const auto& [path, expected] : cases) {
    long level = 99;
    EXPECT_EQ(DSGetNodeLevelInSearchList(session, path, &level, nullptr),
              expected < 0 ? directoryStatus::nodeNotFound : 0)
        << path;
    EXPECT_EQ(level, expected) << path;
  }
  long level = 99;
  char* first = nullptr;
  EXPECT_EQ(DSGetNodeLevelInSearchList(session, "/T/a", &level, &first), 0);
  EXPECT_STREQ(first, "/Local");
  EXPECT_EQ(level, -1) << "the first entry was asked for, no level";
  DSDeallocPointer(&first);
  EXPECT_EQ(DSGetNodeLevelInSearchList(session, "/T/a", nullptr, nullptr), 0);
  EXPECT_EQ(DSGetNodeLevelInSearchList(0, "/T/a", &level, &first), directoryStatus::noNodeOfType);
}

TEST_F(SessionsAndNodes, TellReadOnlyInTheSenseThatCallersKnow) {
  const std::string readOnly = "<string>ReadOnly</string>";
  configure({{"/T/ro", facts(readOnlyAttribute, readOnly)},
             {"/T/rw", facts(readOnlyAttribute, "<string>ReadWrite</string>" + readOnly)},
             {"/T/case", facts(readOnlyAttribute, "<string>readonly</string>")},
             {"/T/empty", facts(readOnlyAttribute, "<string></string>" + readOnly)},
             {"/T/silent", facts("other", readOnly)}});
  const std::tuple<const char*, DirectoryStatus, long> cases[] = {
      {"/T/ro", 0, 1},          {"/T/rw", 0, 0},  {"/T/case", 0, 0}, {"/T/empty", -14210, 0},
      {"/T/silent", -14134, 0}, {"/Local", 0, 0}, {"/Search", 0, 1}};
  for (const auto& [path, status, expected] : cases) {
    DirectoryHandle node = 0;
    ASSERT_EQ(DSOpenNodeByPath(session, path, &node), 0) << path;
    long flag = 99;
    EXPECT_EQ(DSIsNodeWritable(session, node, &flag), status) << path;
    EXPECT_EQ(flag, expected) << path;
  }
  long flag = 99;
  EXPECT_EQ(DSIsNodeWritable(session, 0, &flag), directoryStatus::invalidHandle);
  EXPECT_EQ(flag, 0);
}

TEST_F(SessionsAndNodes, TellAllThatIsAskedFor) {
  configure({{"/T/a", facts("one", "<string>1</string><string>2</string>")}});
  const auto array = [](std::initializer_list<PlistValue> values) { return PlistValue::mutableArrayOf(values); };
  const PlistValue one = PlistValue::dictionaryOf({{"one", array({"1", "2"})}, {"status", 0}});
  const PlistValue none = PlistValue::dictionaryOf({{"status", 0}});
  EXPECT_EQ(DSGetNodeInfo("/T/a", nullptr), one);
  EXPECT_EQ(DSGetNodeInfo("/T/a", array({})), one);
  EXPECT_EQ(DSGetNodeInfo("/T/a", array({7, "two"})), one) << "begins with no string: everything";
  EXPECT_EQ(DSGetNodeInfo("/T/a", array({"two", 7, "one"})), one);
  EXPECT_EQ(DSGetNodeInfo("/T/a", array({"dsAttrTypeVirtual:x"})), none);
  EXPECT_EQ(DSGetNodeInfo("/T/none", nullptr), PlistValue::dictionaryOf({{"status", directoryStatus::nodeNotFound}}));
  EXPECT_EQ(DSGetNodeInfo(std::string("/T/a\0", 5), nullptr),
            PlistValue::dictionaryOf({{"status", directoryStatus::outOfMemory}}));
  EXPECT_EQ(DSGetNodeInfo(nullptr, array({"dsAttrTypeStandard:SearchPath"})).get("dsAttrTypeStandard:SearchPath"),
            array({"/Local", "/T/a"}));
}

TEST_F(SessionsAndNodes, GoOnWhereANodeFails) {
  configure({{"/T/a", ""}});
  DirectoryHandle node = 0;
  ASSERT_EQ(DSOpenNodeByPath(session, "/T/a", &node), 0);
  EXPECT_EQ(DSGenerateLegacyGID(session, node), PlistValue("503")) << "500 to 502 could not be asked for";
  EXPECT_EQ(DSAuthenticateNode(session, node, "given", "right"), 0) << "the short name could not be asked for";
  EXPECT_EQ(DSAuthenticateNode(session, node, "other", "right"), directoryStatus::passwordRefused);
  EXPECT_EQ(DSCreateRecordByName(session, node, usersType, "x"), directoryStatus::readOnly)
      << "whatever an open fails with, making the record is tried";
}

// With the tables all but full, a handle that a helper leaves open is one that the next call cannot have.
TEST_F(SessionsAndNodes, LeaveNoHandleOpen) {
  configure({{"/T/empty", facts(readOnlyAttribute, "<string></string>")}, {"/T/silent", facts("other", "")}});
  constexpr int spare = 3;
  constexpr int most = 65'535;
  const auto local = dataList({"Local"});
  const auto asked = dataList({readOnlyAttribute});
  const auto buffer = dataBuffer(4096);
  DirectoryHandle nodes[2] = {};
  ASSERT_EQ(DSOpenNodeByPath(session, "/T/empty", &nodes[0]), 0);
  ASSERT_EQ(DSOpenNodeByPath(session, "/T/silent", &nodes[1]), 0);
  DirectoryHandle node = 0;
  for (int at = 2; at < most - spare; ++at) ASSERT_EQ(dsOpenDirNode(session, local.get(), &node), 0) << at;
  for (int at = 0; at < most - spare; ++at) {
    std::uint32_t count = 0;
    DirectoryHandle attributes = 0;
    DirectoryHandle values = 0;
    DirectoryAttributeEntry* entry = nullptr;
    ASSERT_EQ(dsGetDirNodeInfo(node, asked.get(), buffer.get(), &count, &attributes, nullptr), 0) << at;
    ASSERT_EQ(dsGetAttributeEntry(node, buffer.get(), attributes, 1, &values, &entry), 0) << at;
    dsDeallocAttributeEntry(entry);
  }
  for (int round = 0; round <= spare; ++round) {
    std::string path;
    char* first = nullptr;
    long number = 0;
    for (const std::uint32_t type : {directoryNodeType::local, directoryNodeType::search})
      EXPECT_EQ(openByType(type, path), 0);
    EXPECT_EQ(openByType(directoryNodeType::locallyHosted, path), 0);
    EXPECT_EQ(DSGetNodeLevelInSearchList(session, "/Local", &number, nullptr), 0);
    EXPECT_EQ(DSGetNodeLevelInSearchList(session, "/None", &number, nullptr), directoryStatus::nodeNotFound);
    EXPECT_EQ(DSGetNodeLevelInSearchList(session, "/None", &number, &first), 0);
    DSDeallocPointer(&first);
    EXPECT_EQ(DSIsNodeWritable(session, node, &number), 0);
    EXPECT_EQ(DSIsNodeWritable(session, nodes[0], &number), directoryStatus::emptyValue);
    EXPECT_EQ(DSIsNodeWritable(session, nodes[1], &number), directoryStatus::noSuchAttribute);
    EXPECT_EQ(DSGetNodeInfo("/Local", nullptr).get("status"), PlistValue(0));
    EXPECT_EQ(DSGetNodeInfo("/None", nullptr).get("status"), PlistValue(directoryStatus::nodeNotFound));
  }
}

}  // namespace
