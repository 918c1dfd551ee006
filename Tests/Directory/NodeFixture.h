// Tests that ask the same questions of every kind of node: the kind is their parameter.
#pragma once

#include <gtest/gtest.h>

#include <memory>
#include <ostream>
#include <string>
#include <utility>
#include <vector>

#include "Platform/DirectoryService.h"
#include "Platform/HostRoot.h"
#include "Platform/Internal/Directory/LocalNode.h"
#include "Support/DirectoryFixture.h"
#include "Support/SlapdFixture.h"
#include "Support/TemporaryFolder.h"

namespace ostrel::testing {

/// A record to fill a node with. Its name is the first of its names; further ones are values of the name attribute.
struct SeedRecord {
  std::string type;
  std::string name;
  std::vector<std::pair<std::string, std::vector<std::string>>> attributes;  ///< in addition to the name
};

/// A node below a host root of the test's own, whose search path leads to it and not to the host's own accounts.
class TestNode {
 public:
  virtual ~TestNode() = default;
  virtual std::string path() const = 0;
  /// Adds records. A node that cannot hold an attribute leaves it out.
  virtual void add(const std::vector<SeedRecord>& records) = 0;
  /// Whether groups in groups, members that are nobody's, and identifiers that callers choose can be here.
  virtual bool holdsAnything() const { return true; }
};

struct NodeKind {
  std::string name;
  std::unique_ptr<TestNode> (*make)(const std::string& hostRoot);

  friend void PrintTo(const NodeKind& kind, std::ostream* out) { *out << kind.name; }
};

class LocalTestNode final : public TestNode {
 public:
  explicit LocalTestNode(const std::string& hostRoot) : database_(hostRoot + "/var/ostreld/directory/local.db") {
    writeFile(hostRoot + "/etc/ostreld/directory.plist", "<plist><dict><key>HostNode</key><false/></dict></plist>");
  }

  std::string path() const override { return "/Local"; }
  void add(const std::vector<SeedRecord>& records) override {
    std::vector<std::vector<std::vector<DirectoryValue>>> values;
    std::vector<std::vector<DirectoryAttribute>> attributes(records.size());
    std::vector<DirectoryRecordView> views;
    for (const SeedRecord& record : records) {
      auto& ofRecord = values.emplace_back(record.attributes.size());
      for (std::size_t at = 0; at < ofRecord.size(); ++at) {
        for (const std::string& text : record.attributes[at].second) ofRecord[at].push_back({0, text});
        attributes[views.size()].push_back({record.attributes[at].first, ofRecord[at]});
      }
      views.push_back({record.type, record.name, attributes[views.size()]});
    }
    ASSERT_EQ(detail::importRecords(database_, views), 0);
    for (const SeedRecord& record : records)
      for (const auto& [attribute, texts] : record.attributes)
        if (attribute == directoryName::recordName || attribute == directoryName::password)
          addValues(record, attribute, texts);
  }

 private:
  // What an import does not take.
  static void addValues(const SeedRecord& to, const std::string& attribute, const std::vector<std::string>& texts) {
    DirectoryHandle session = 0;
    DirectoryHandle node = 0;
    DirectoryHandle record = 0;
    ASSERT_EQ(dsOpenDirService(&session), 0);
    ASSERT_EQ(dsOpenDirNode(session, dataList({"Local"}).get(), &node), 0);
    ASSERT_EQ(dsOpenRecord(node, dataNode(to.type).get(), dataNode(to.name).get(), &record), 0);
    for (const std::string& text : texts)
      ASSERT_EQ(dsAddAttributeValue(record, dataNode(attribute).get(), dataNode(text).get()), 0) << text;
    dsCloseDirService(session);
  }

  std::string database_;
};

/// A node on a server of its own.
std::unique_ptr<TestNode> makeLdapTestNode(const std::string& hostRoot);

/// Every kind of node that the tests ask.
inline std::vector<NodeKind> nodeKinds() {
  std::vector<NodeKind> kinds = {{"Local", [](const std::string& hostRoot) -> std::unique_ptr<TestNode> {
                                    return std::make_unique<LocalTestNode>(hostRoot);
                                  }}};
  if (Slapd::isInstalled()) kinds.push_back({"Ldap", &makeLdapTestNode});
  return kinds;
}

/// An open node of the kind, empty at first.
class NodeFixture : public ::testing::TestWithParam<NodeKind> {
 protected:
  void SetUp() override {
    ASSERT_TRUE(testNode);
    ASSERT_EQ(dsOpenDirService(&session), 0);
    const DirectoryItem<DirectoryDataList> path(dsBuildFromPath(testNode->path().c_str(), "/"));
    ASSERT_EQ(dsOpenDirNode(session, path.get(), &node), 0);
  }
  void TearDown() override { dsCloseDirService(session); }

  void add(const std::vector<SeedRecord>& records) { testNode->add(records); }

  TemporaryFolder folder;
  ScopedHostRoot root{folder.path()};
  std::unique_ptr<TestNode> testNode = GetParam().make(folder.path());
  DirectoryHandle session = 0;
  DirectoryHandle node = 0;
};

/// Runs the tests of a suite on every kind of node.
#define OSTREL_ON_EVERY_NODE(Suite)                                     \
  INSTANTIATE_TEST_SUITE_P(On, Suite, ::testing::ValuesIn(nodeKinds()), \
                           [](const auto& kind) { return kind.param.name; })

}  // namespace ostrel::testing
