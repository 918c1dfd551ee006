#include "Platform/ModuleBundle.h"

#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>

#include <gmock/gmock.h>

#include "Support/TemporaryFolder.h"

namespace ostrel {
namespace {

using ostrel::testing::TemporaryFolder;
using ostrel::testing::writeFile;
using ::testing::HasSubstr;

class ModuleLoaderTest : public ::testing::Test {
 protected:
  // Puts the built shared object NAME.so at PATH in the folder, with the permissions given.
  std::string install(const std::string& name, const std::string& path, mode_t mode = 0644) {
    const std::string target = folder_ / path;
    std::filesystem::create_directories(std::filesystem::path(target).parent_path());
    std::filesystem::copy_file(std::string(OSTREL_TEST_BUNDLES "/") + name + ".so", target);
    EXPECT_EQ(chmod(target.c_str(), mode), 0);
    return target;
  }
  // What the bundle's factory points to; -1 when it is refused, with the reason kept.
  int load(const std::string& path) {
    reason_.clear();
    const auto bundle = ModuleLoader::current().load(path, &reason_);
    if (!bundle) return -1;
    EXPECT_EQ(bundle->path(), path);
    return *static_cast<int*>(bundle->create());
  }

  TemporaryFolder folder_;
  std::string reason_;
};

TEST_F(ModuleLoaderTest, LoadsFilesAndFolders) {
  EXPECT_EQ(load(install("first", "one.bundle", 0755)), 1) << reason_;
  install("second", "two.part.bundle/two.part.so");
  EXPECT_EQ(load(folder_ / "two.part.bundle"), 2) << reason_;
  EXPECT_EQ(load(folder_ / "two.part.bundle/"), 2) << reason_;
  EXPECT_NE(ModuleLoader::current().load(folder_ / "one.bundle", nullptr), nullptr);
}

// A load must not be answered with an object that an earlier one left behind, refused or not.
TEST_F(ModuleLoaderTest, EachPathGivesItsOwnCode) {
  EXPECT_EQ(load(install("wrong_version", "a.bundle")), -1);
  EXPECT_THAT(reason_, HasSubstr("module interface 99, not 1"));
  EXPECT_EQ(load(install("first", "b.bundle")), 1) << reason_;
  EXPECT_EQ(load(install("no_factory", "c.bundle")), -1);
  EXPECT_THAT(reason_, HasSubstr("has no factory (ostrelModuleInterface)"));
  EXPECT_EQ(load(install("second", "d.bundle")), 2) << reason_;
  std::filesystem::remove(folder_ / "b.bundle");
  EXPECT_EQ(load(install("second", "b.bundle")), 2) << "the file at the path is what counts: " << reason_;
}

// A module that is asked for again and again, sound or not, must not eat up the process's descriptors.
TEST_F(ModuleLoaderTest, LoadingAgainTakesNoMoreDescriptors) {
  const std::string sound = install("first", "sound.bundle");
  const std::string broken = install("no_factory", "broken.bundle");
  writeFile(folder_ / "text.bundle", "not a shared object");
  const auto loadAll = [&] {
    EXPECT_EQ(load(sound), 1);
    EXPECT_EQ(load(broken), -1);
    EXPECT_EQ(load(folder_ / "text.bundle"), -1);
  };
  const auto openDescriptors = [] { return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {}); };
  loadAll();
  const auto before = openDescriptors();
  for (int i = 0; i < 5; ++i) loadAll();
  EXPECT_EQ(openDescriptors(), before);
}

TEST_F(ModuleLoaderTest, TellsWhyItRefuses) {
  writeFile(folder_ / "text.bundle", "not a shared object");
  writeFile(folder_ / "empty.bundle/other.so", "");
  std::filesystem::create_directories(folder_ / "nested.bundle/nested.so");
  ASSERT_EQ(mkfifo((folder_ / "pipe.bundle").c_str(), 0644), 0);
  std::filesystem::create_symlink(install("first", "real.bundle"), folder_ / "link.bundle");
  install("first", "open.bundle/open.so");
  ASSERT_EQ(chmod((folder_ / "open.bundle").c_str(), 0775), 0);

  const struct {
    std::string path;
    const char* reason;
  } cases[] = {{folder_ / "missing.bundle", "No such file"},
               {folder_ / "nowhere/x.bundle", "No such file"},
               {folder_ / "text.bundle", "text.bundle: "},
               {folder_ / "empty.bundle", "empty.bundle/empty.so: No such file"},
               {folder_ / "nested.bundle", "is no regular file"},
               {folder_ / "pipe.bundle", "is no regular file"},
               {folder_ / "link.bundle", "is a symbolic link"},
               {install("first", "group.bundle", 0664), "is writable by its group or by others (mode 0664)"},
               {install("first", "others.bundle", 0646), "is writable by its group or by others (mode 0646)"},
               {folder_ / "open.bundle", "is writable by its group or by others (mode 0775)"},
               {"", "empty"},
               {(folder_ / "real.bundle") + std::string(1, '\0'), "NUL"}};
  for (const auto& [path, reason] : cases) {
    EXPECT_EQ(load(path), -1) << path;
    EXPECT_THAT(reason_, HasSubstr(reason)) << path;
  }
}

TEST_F(ModuleLoaderTest, TheFolderAroundABundleMustBeTrustedToo) {
  const std::string path = install("first", "shared/x.bundle");
  ASSERT_EQ(chmod((folder_ / "shared").c_str(), 0777), 0);
  EXPECT_EQ(load(path), -1);
  EXPECT_THAT(reason_, HasSubstr("shared: is writable by its group or by others"));
}

TEST_F(ModuleLoaderTest, ForeignOwnersAreRefused) {
  if (geteuid() != 0) GTEST_SKIP() << "needs root to give files away";
  const std::string file = install("first", "foreign.bundle");
  ASSERT_EQ(chown(file.c_str(), 1234, 0), 0);
  EXPECT_EQ(load(file), -1);
  EXPECT_THAT(reason_, HasSubstr("belongs to user 1234"));
  const std::string inside = install("first", "theirs/x.bundle");
  ASSERT_EQ(chown((folder_ / "theirs").c_str(), 1234, 0), 0);
  EXPECT_EQ(load(inside), -1);
  EXPECT_THAT(reason_, HasSubstr("theirs: belongs to user 1234"));
}

}  // namespace
}  // namespace ostrel
