#include "Platform/StringFiles.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include "Platform/FileDescriptor.h"
#include "Support/Fakes.h"
#include "Support/TemporaryFolder.h"

namespace ostrel {
namespace {

using namespace std::string_view_literals;
using testing::readFile;

constexpr uid_t user = 12345;
constexpr gid_t group = 23456;

TEST(StringFiles, ReadsAndWritesOnlyUtf8) {
  const testing::TemporaryFolder folder;
  const std::string path = folder / "file";
  for (const bool atomically : {true, false}) {
    EXPECT_TRUE(writeUTF8StringToFile("a much longer text", path, atomically));
    EXPECT_TRUE(writeUTF8StringToFile("t\xC3\xA9\0xt"sv, path, atomically));
    EXPECT_EQ(UTF8StringWithContentsOfFile(path), "t\xC3\xA9\0xt"sv);
    EXPECT_FALSE(writeUTF8StringToFile("\xFF", path, atomically));
    EXPECT_EQ(readFile(path), "t\xC3\xA9\0xt"sv);
    EXPECT_FALSE(writeUTF8StringToFile("text", folder / "missing/file", atomically));
    EXPECT_FALSE(writeUTF8StringToFile("text", folder.path(), atomically));
  }
  testing::writeFile(path, "a\xC3");
  EXPECT_FALSE(UTF8StringWithContentsOfFile(path));
  EXPECT_FALSE(UTF8StringWithContentsOfFile(folder / "missing"));
}

TEST(StringFiles, KeepsTheOwnerOfAFileAndGivesItToANewOne) {
  if (geteuid() != 0) GTEST_SKIP() << "only root gives files away";
  const testing::TemporaryFolder folder;
  for (const bool atomically : {true, false}) {
    const std::string path = folder / (atomically ? "replaced" : "rewritten");
    EXPECT_TRUE(writeUTF8StringToFile("new", path, atomically, user, group));
    EXPECT_TRUE(writeUTF8StringToFile("again", path, atomically, 0, 0));
    const auto status = fileStatus(path);
    EXPECT_EQ(status->user, user);
    EXPECT_EQ(status->group, group);
    EXPECT_EQ(readFile(path), "again");
  }
}

TEST(StringFiles, TellsWhenTheOwnerCannotBeSet) {
  if (geteuid() != 0) GTEST_SKIP() << "needs a second user";
  const testing::TemporaryFolder folder;
  ASSERT_EQ(::chmod(folder.path().c_str(), 0777), 0);
  testing::writeFile(folder / "owned", "before");
  const auto attempt = [&folder](const std::string& name, bool atomically) {
    const std::string path = folder / name;
    const pid_t child = fork();
    if (child != 0) {
      int status = -1;
      waitpid(child, &status, 0);
      return WIFEXITED(status) && WEXITSTATUS(status) == 7;
    }
    testing::RecordingLog log;
    const ScopedOverride<SystemLog> override(log);
    const bool dropped = setresuid(user, user, user) == 0;
    const bool failed = !writeUTF8StringToFile("text", path, atomically, 0, 0);
    _exit(dropped && failed &&
                  log.holds(format("[%d] Error: Couldn't set the owner and group of file %s", processId(), path))
              ? 7
              : 1);
  };
  EXPECT_TRUE(attempt("new", true));
  EXPECT_EQ(readFile(folder / "new"), "text");
  EXPECT_TRUE(attempt("new in place", false));
  EXPECT_TRUE(attempt("owned", true));
  EXPECT_EQ(readFile(folder / "owned"), "before");
}

}  // namespace
}  // namespace ostrel
