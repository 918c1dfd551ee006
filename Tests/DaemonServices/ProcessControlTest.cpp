// Helper programs, pid files and the process table, with real children.
#include "DaemonServices/ProcessControl.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <cerrno>
#include <string>
#include <thread>
#include <vector>

#include "Platform/FileDescriptor.h"
#include "Support/TemporaryFolder.h"

namespace ostrel {
namespace {

using testing::readFile;
using testing::TemporaryFolder;
using testing::writeFile;

PlistValue shell(const std::string& script, const std::string& argument = "") {
  return PlistValue::arrayOf({"-c", script, "sh", argument});
}

TEST(LaunchTask, ReturnsTheExitStatus) {
  const PlistValue sh = "/bin/sh";
  EXPECT_EQ(launch_task("/bin/true", {}), 0);
  EXPECT_EQ(launch_task(sh, shell("exit 7")), 7);
  EXPECT_EQ(launch_task(sh, shell("kill -TERM $$")), 128 + SIGTERM);
  EXPECT_EQ(launch_task(sh, shell("kill -PIPE $$")), 128 + SIGPIPE);
}

TEST(LaunchTask, TellsWhyNothingWasStarted) {
  const TemporaryFolder folder;
  writeFile(folder / "plain", "no program");
  writeFile(folder / "headless", "echo no interpreter is named here");
  ASSERT_EQ(::chmod((folder / "headless").c_str(), 0700), 0);
  const PlistValue none;
  const struct {
    PlistValue path, arguments, input, environment;
    int error;
  } cases[] = {
      {folder / "absent", none, none, none, ENOENT},
      {"true", none, none, none, ENOENT},  // not searched for
      {"", none, none, none, ENOENT},
      {none, none, none, none, EINVAL},
      {7, none, none, none, EINVAL},
      {std::string("/bin/true\0x", 11), none, none, none, EINVAL},
      {folder / "plain", none, none, none, EACCES},
      {folder.path(), none, none, none, EACCES},
      {folder / "headless", none, none, none, ENOEXEC},
      {"/bin/true", "text", none, none, EINVAL},
      {"/bin/true", PlistValue::arrayOf({"a", 1}), none, none, EINVAL},
      {"/bin/true", PlistValue::arrayOf({std::string("a\0b", 3)}), none, none, EINVAL},
      {"/bin/true", PlistValue::arrayOf({std::string(4 << 20, 'x')}), none, none, E2BIG},
      {"/bin/true", none, 7, none, EINVAL},
      {"/bin/true", none, none, "PATH=/bin", EINVAL},
      {"/bin/true", none, none, PlistValue::dictionaryOf({{"", "x"}}), EINVAL},
      {"/bin/true", none, none, PlistValue::dictionaryOf({{"a=b", "x"}}), EINVAL},
      {"/bin/true", none, none, PlistValue::dictionaryOf({{"a", 1}}), EINVAL},
  };
  for (const auto& [path, arguments, input, environment, error] : cases) {
    errno = 0;
    EXPECT_EQ(launch_task_with_input_and_environment(path, arguments, input, environment), -1) << path.description();
    EXPECT_EQ(errno, error) << path.description() << arguments.count();
  }
}

}  // namespace
}  // namespace ostrel
