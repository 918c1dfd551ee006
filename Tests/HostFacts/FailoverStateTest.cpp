#include "HostFacts/FailoverState.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include "Containers/PropertyList.h"
#include "Platform/HostRoot.h"
#include "Support/TemporaryFolder.h"

namespace ostrel {
namespace {

TEST(FailoverState, IsReadFromThePreferences) {
  const testing::TemporaryFolder root;
  const ScopedHostRoot scope(root.path());
  const std::string file = root / "Library/Preferences/com.brantle.tavrond.plist";
  EXPECT_EQ(NIGetFailoverState(), 0) << "no file";

  const PlistValue nodes = PlistValue::arrayOf({"192.0.2.7"});
  const struct {
    PlistValue nodes;
    PlistValue role;
    std::int32_t state;
  } cases[] = {
      {nodes, "MASTER", 1},
      {nodes, "BACKUP", 2},
      {nodes, "master", 0},
      {nodes, "MASTER ", 0},
      {nodes, "", 0},
      {nodes, 1, 0},
      {nodes, {}, 0},
      {PlistValue::arrayOf({}), "MASTER", 0},
      {{}, "MASTER", 0},
      {"192.0.2.7", "MASTER", 0},
      {PlistValue::dictionaryOf({{"a", "192.0.2.7"}}), "BACKUP", 0},
  };
  for (const auto& [publicNodes, role, state] : cases) {
    PlistValue preferences = PlistValue::mutableDictionary();
    preferences.set("PublicNodes", publicNodes);
    preferences.set("FailoverRole", role);
    testing::writeFile(file, *writeXmlPropertyList(preferences));
    EXPECT_EQ(NIGetFailoverState(), state) << preferences.description();
    testing::writeFile(file, *writeBinaryPropertyList(preferences));
    EXPECT_EQ(NIGetFailoverState(), state) << preferences.description();
  }
  for (const PlistValue& other : {nodes, PlistValue("MASTER")}) {
    testing::writeFile(file, *writeXmlPropertyList(other));
    EXPECT_EQ(NIGetFailoverState(), 0) << "no dictionary";
  }
  testing::writeFile(file, "no property list");
  EXPECT_EQ(NIGetFailoverState(), 0);
  std::filesystem::remove(file);
  ASSERT_EQ(mkfifo(file.c_str(), 0600), 0);
  EXPECT_EQ(NIGetFailoverState(), 0) << "nobody writes into the pipe, and nobody waits for it";
}

}  // namespace
}  // namespace ostrel
