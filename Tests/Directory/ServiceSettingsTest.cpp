// The frame around service settings, and the matrix of nodes.
#include "Directory/ServiceSettings.h"

#include <gmock/gmock.h>

#include "Directory/DirectoryRecords.h"
#include "Directory/DirectorySessions.h"
#include "Platform/DirectoryNode.h"
#include "Platform/Files.h"
#include "Support/DirectoryFixture.h"

using namespace ostrel;
using namespace ostrel::testing;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

namespace {

const PlistValue noNames = PlistValue::arrayOf({});

/// What the callbacks answer, and which were called with which record.
struct Module {
  DirectoryStatus names = 0;
  DirectoryStatus reads = 0;
  DirectoryStatus prepares = 0;
  DirectoryStatus writes = 0;
  DirectoryStatus removes = 0;
  PlistValue kept;
  std::vector<std::string> calls;

  DirectoryStatus called(const char* what, DirectoryHandle node, const PlistValue& recordName, DirectoryStatus status) {
    long flag = 0;
    EXPECT_EQ(DSIsNodeWritable(0, node, &flag), 0) << "the node is open";
    calls.push_back(std::string(what) + " " + recordName.description());
    return status;
  }
  static Module& of(void* context) { return *static_cast<Module*>(context); }

  static DirectoryStatus namesOf(DirectoryHandle, DirectoryHandle node, PlistValue* names, void* context) {
    *names = PlistValue::arrayOf({"mail", "spare"});
    return of(context).called("names", node, "", of(context).names);
  }
  static DirectoryStatus read(DirectoryHandle, DirectoryHandle node, const PlistValue& name, PlistValue* configuration,
                              void* context) {
    *configuration = of(context).kept;
    return of(context).called("read", node, name, of(context).reads);
  }
  static DirectoryStatus prepare(DirectoryHandle, DirectoryHandle node, const PlistValue& name, void* context) {
    return of(context).called("prepare", node, name, of(context).prepares);
  }
  static DirectoryStatus write(DirectoryHandle, DirectoryHandle node, const PlistValue& name,
                               const PlistValue& configuration, void* context) {
    of(context).kept = configuration;
    return of(context).called("write", node, name, of(context).writes);
  }
  static DirectoryStatus remove(DirectoryHandle, DirectoryHandle node, const PlistValue& name, void* context) {
    return of(context).called("remove", node, name, of(context).removes);
  }
};

class ServiceSettings : public DirectoryFixture {
 protected:
  PlistValue read(const PlistValue& incoming, bool skip = false, const PlistValue& local = "/Local") {
    return DSReadServiceSettings(incoming, skip, local, "mail", Module::namesOf, Module::read, &module);
  }
  PlistValue write(const PlistValue& incoming, const PlistValue& configuration) {
    return DSWriteServiceSettings(incoming, true, "/Local", "mail", configuration, Module::prepare, Module::write,
                                  Module::remove, Module::namesOf, Module::read, &module);
  }
  Module module;
};

TEST_F(ServiceSettings, AreReadFromTheNodeAndRecordInUse) {
  module.kept = PlistValue::dictionaryOf({{"port", 25}});
  const PlistValue incoming =
      PlistValue::dictionaryOf({{"nodePath", 7}, {"recordName", "other"}, {"extra", "kept"}, {"localNodePath", "old"}});
  const PlistValue response = read(incoming);
  EXPECT_EQ(response.get("configuration"), module.kept);
  EXPECT_EQ(response.get("readStatus"), PlistValue(0));
  EXPECT_EQ(
      response.get("dsConfiguration"),
      PlistValue::dictionaryOf(
          {{"nodePath", "/Local"},
           {"recordName", "other"},
           {"extra", "kept"},
           {"localNodePath", "/Local"},
           {"nodePathsArray", PlistValue::arrayOf({PlistValue::arrayOf({"Local"}), PlistValue::arrayOf({"Host"})})},
           {"defaultRecordName", "mail"},
           {"recordNamesArray", PlistValue::arrayOf({"mail", "spare"})}}));
  EXPECT_THAT(module.calls, ElementsAre("names ", "read other"));
  EXPECT_EQ(incoming.count(), 4U) << "what came is not changed";
  EXPECT_EQ(read(nullptr, true).allKeys(), PlistValue::arrayOf({"configuration", "readStatus"}));
  EXPECT_EQ(read("no dictionary").get("dsConfiguration").get("recordName"), PlistValue("mail"));
  EXPECT_EQ(read(PlistValue::dictionaryOf({{"nodePath", "/Host"}})).get("dsConfiguration").get("nodePath"),
            PlistValue("/Host"));

  module.reads = directoryStatus::recordNotFound;
  module.kept = nullptr;
  EXPECT_EQ(read(nullptr).allKeys(), PlistValue::arrayOf({"dsConfiguration", "readStatus"}));
  module.calls.clear();
  module.names = -14050;
  EXPECT_EQ(read(nullptr), PlistValue::dictionaryOf({{"readStatus", 18446744073709537566ULL}}));
  EXPECT_THAT(module.calls, ElementsAre("names "));
  EXPECT_EQ(read(nullptr, false, nullptr), PlistValue::dictionaryOf({{"readStatus", 18446744073709537566ULL}}))
      << "no node path at all";
  EXPECT_TRUE(read(PlistValue::dictionaryOf({{"nodePath", "/None"}})).get("readStatus").uint64Value() > INT64_MAX);

  module.names = 0;
  const PlistValue nodes = DSGetServiceNodesAndRecords(nullptr, "/Local", nullptr, Module::namesOf, &module);
  EXPECT_EQ(nodes.allKeys(), PlistValue::arrayOf({"dsConfiguration", "getNodesStatus"}));
  EXPECT_EQ(nodes.get("dsConfiguration").get("recordName"), PlistValue(""));
  EXPECT_EQ(nodes.get("dsConfiguration").get("defaultRecordName"), PlistValue(""));
}

TEST_F(ServiceSettings, AreWrittenInOrderUntilAStepFails) {
  const PlistValue settings = PlistValue::dictionaryOf({{"port", 26}});
  const PlistValue response = write(nullptr, settings);
  EXPECT_THAT(module.calls, ElementsAre("prepare mail", "write mail", "remove mail", "names ", "read mail"));
  EXPECT_EQ(response,
            PlistValue::dictionaryOf(
                {{"configuration", settings}, {"readStatus", 0}, {"writeStatus", 0}, {"removedRecordName", "mail"}}));
  struct Case {
    DirectoryStatus Module::*failing;
    std::vector<std::string> calls;
  };
  const Case cases[] = {{&Module::prepares, {"prepare mail", "names ", "read mail"}},
                        {&Module::writes, {"prepare mail", "write mail", "names ", "read mail"}},
                        {&Module::removes, {"prepare mail", "write mail", "remove mail", "names ", "read mail"}}};
  for (const Case& each : cases) {
    module = {};
    module.*each.failing = -14050;
    const PlistValue failed = write(nullptr, settings);
    EXPECT_EQ(module.calls, each.calls);
    EXPECT_EQ(failed.get("writeStatus"), PlistValue(18446744073709537566ULL));
    EXPECT_EQ(failed.get("readStatus"), PlistValue(0));
    EXPECT_FALSE(failed.contains("removedRecordName"));
  }
  module = {};
  write(nullptr, nullptr);
  EXPECT_THAT(module.calls, ElementsAre("prepare mail", "remove mail", "names ", "read mail")) << "nothing to write";
  const PlistValue bare = DSWriteServiceSettings(nullptr, true, "/Local", "mail", settings, nullptr, nullptr, nullptr,
                                                 nullptr, nullptr, {});
  EXPECT_EQ(bare, PlistValue::dictionaryOf({{"readStatus", 0}, {"writeStatus", 0}}));
}

TEST_F(ServiceSettings, AreWrittenOnlyWithRightCredentials) {
  makeUser("ada", {{"dsAttrTypeStandard:Password", "right"}});
  const auto as = [](const PlistValue& user, const PlistValue& password) {
    return PlistValue::dictionaryOf({{"nodePathUserName", user}, {"nodePathPassword", password}});
  };
  EXPECT_EQ(write(as("ada", "right"), nullptr).get("writeStatus"), PlistValue(0));
  EXPECT_THAT(module.calls, ElementsAre("prepare mail", "remove mail", "names ", "read mail"));
  module.calls.clear();
  const PlistValue refused = write(as("ada", "wrong"), nullptr);
  EXPECT_EQ(refused.get("writeStatus").int64Value(), directoryStatus::passwordRefused);
  EXPECT_EQ(refused.get("readStatus"), PlistValue(0));
  EXPECT_THAT(module.calls, ElementsAre("names ", "read mail"));
  for (const PlistValue& incoming : {as("", "wrong"), as("ada", 7), as(7, "wrong")})
    EXPECT_EQ(write(incoming, nullptr).get("writeStatus"), PlistValue(0)) << "nobody to authenticate";
  module.calls.clear();
  EXPECT_NE(write(PlistValue::dictionaryOf({{"nodePath", "/None"}}), nullptr).get("writeStatus"), PlistValue(0));
  EXPECT_THAT(module.calls, IsEmpty());
}

TEST_F(ServiceSettings, AMatrixLargerThanTheBufferIsFetchedWhole) {
  registerDirectoryNodeKind(
      "Silent", [](const std::string& path, const PlistValue&, std::string&) -> std::unique_ptr<DirectoryNode> {
        class Silent final : public DirectoryNode {
         public:
          explicit Silent(std::string path) : path_(std::move(path)) {}
          const std::string& path() const override { return path_; }
          DirectoryStatus search(const DirectorySearchRequest&, const DirectoryIdentityPointer&,
                                 std::unique_ptr<DirectorySearch>&) override {
            return directoryStatus::unreachable;
          }
          DirectoryStatus openRecord(std::string_view, std::string_view, const DirectoryIdentityPointer&,
                                     std::unique_ptr<DirectoryRecord>&) override {
            return directoryStatus::unreachable;
          }
          DirectoryStatus authenticate(std::string_view, std::string_view, DirectoryIdentityPointer&) override {
            return directoryStatus::unreachable;
          }

         private:
          std::string path_;
        };
        return std::make_unique<Silent>(path);
      });
  constexpr std::size_t many = 3000;
  std::string text = "<plist><dict><key>HostNode</key><false/><key>SearchPath</key><array/><key>Nodes</key><array>";
  for (std::size_t number = 0; number < many; ++number)
    text += "<dict><key>Kind</key><string>Silent</string><key>Path</key><string>/Silent/" + std::string(200, 'n') +
            std::to_string(number) + "</string></dict>";
  writeFile(folder / "etc/ostreld/directory.plist", text + "</array></dict></plist>");
  DirectoryHandle large = 0;
  ASSERT_EQ(dsOpenDirService(&large), 0);
  PlistValue matrix;
  EXPECT_EQ(DSGetMatrixOfNodes(large, &matrix), 0);
  EXPECT_EQ(matrix.count(), many + 1);
  EXPECT_FALSE(matrix.isMutable());
  EXPECT_EQ(matrix.at(0), PlistValue::arrayOf({"Local"}));
  EXPECT_EQ(matrix.at(many), PlistValue::arrayOf({"Silent", std::string(200, 'n') + std::to_string(many - 1)}));
  EXPECT_EQ(dsCloseDirService(large), 0);
  EXPECT_EQ(DSGetMatrixOfNodes(large, &matrix), directoryStatus::invalidHandle);
  EXPECT_TRUE(matrix.isNull());
}

TEST(NodeMatrix, IsChosenFromLevelByLevel) {
  const auto path = [](std::initializer_list<PlistValue> components) { return PlistValue::arrayOf(components); };
  const PlistValue matrix = PlistValue::arrayOf(
      {path({"b", "z"}), path({"A", "x"}), path({"A", "y", "deep"}), "no path", path({7, "w"}), path({"c", 8})});
  const auto all = [&](const PlistValue& parent, long level) {
    std::vector<std::string> found;
    long count = 99;
    for (long index = 0; index == 0 || index < count; ++index) {
      const PlistValue component = DSGetNodeFromMatrixOfNodes(matrix, parent, index, level, &count);
      if (!component.isNull()) found.push_back(component.description());
    }
    EXPECT_EQ(count, static_cast<long>(found.size()));
    EXPECT_TRUE(DSGetNodeFromMatrixOfNodes(matrix, parent, count, level, nullptr).isNull());
    EXPECT_TRUE(DSGetNodeFromMatrixOfNodes(matrix, parent, -1, level, nullptr).isNull());
    return found;
  };
  EXPECT_THAT(all(nullptr, 0), ElementsAre("A", "b", "c"));
  EXPECT_THAT(all("b", 0), ElementsAre("A", "b", "c"));
  EXPECT_THAT(all("A", 1), ElementsAre("x", "y"));
  EXPECT_THAT(all("a", 1), IsEmpty()) << "exactly";
  EXPECT_THAT(all(nullptr, 1), IsEmpty());
  EXPECT_THAT(all("y", 2), ElementsAre("deep"));
  EXPECT_THAT(all("y", 9), IsEmpty());
  EXPECT_THAT(all("y", -1), IsEmpty());
}

}  // namespace
