// Helper programs, pid files and the process table, with real children.
#include "DaemonServices/ProcessControl.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <future>
#include <string>
#include <thread>

#include "Platform/HostRoot.h"
#include "Platform/ProcessSignals.h"
#include "Platform/TaskRunner.h"
#include "Support/TemporaryFolder.h"

namespace ostrel {
namespace {

using testing::TemporaryFolder;
using testing::writeFile;

PlistValue shell(const std::string& script, const std::string& argument = "") {
  return PlistValue::arrayOf({"-c", script, "sh", argument});
}

TEST(LaunchTask, ReturnsTheExitStatus) {
  const PlistValue sh = "/bin/sh";
  const auto start = std::chrono::steady_clock::now();
  EXPECT_TRUE(start_task("/bin/sleep", PlistValue::arrayOf({"2"})));
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(2));
  EXPECT_FALSE(start_task("/nowhere/sleep", {}));
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

TEST(PidFile, GivesTheNumberThatItBeginsWith) {
  const TemporaryFolder folder;
  const struct {
    std::string content;
    int pid;
  } cases[] = {
      {"123\n", 123},
      {"123", 123},
      {" \n\t+7 x", 7},
      {"-5\n", -5},
      {"0\n", 0},
      {"", -1},
      {"rubbish\n", -1},
      {"0x12\n", 0},
      {"99999999999\n", -1},
      {"-2147483649", -1},
      {"2147483647", 2147483647},
      {std::string("\0"
                   "12",
                   3),
       -1},
  };
  for (const auto& [content, pid] : cases) {
    writeFile(folder / "pid", content);
    EXPECT_EQ(ec_pid_from_pid_file((folder / "pid").c_str()), pid) << content;
  }
  ASSERT_EQ(::mkfifo((folder / "pipe").c_str(), 0600), 0);
  for (const std::string& path : {folder / "absent", folder / "pipe", folder.path(), std::string()})
    EXPECT_EQ(ec_pid_from_pid_file(path.c_str()), -1) << path;
  EXPECT_EQ(ec_pid_from_pid_file(nullptr), -1);
}

TEST(PidFile, LooksRelativeNamesUpOnlyWhenTheyAreTooLong) {
  const TemporaryFolder folder;
  const ScopedHostRoot root(folder.path());
  writeFile(folder / "var/run/maild.pid", "5\n");
  EXPECT_EQ(ec_pid_from_pid_file("maild.pid"), -1);
  // 1,014 bytes are refused, 1,015 are cut by one: what is looked up ends in "maild.pi", then in "maild.pi.pid".
  const auto name = [](std::size_t size) {
    std::string text = "maild.pid";
    while (text.size() + 2 <= size) text.insert(0, "./");
    return text.size() < size ? "/" + text : text;
  };
  EXPECT_EQ(ec_pid_from_pid_file(name(1014).substr(1).c_str()), -1);
  EXPECT_EQ(ec_pid_from_pid_file(name(1015).c_str()), -1);
  writeFile(folder / "var/run/maild.pi.pid", "6\n");
  EXPECT_EQ(ec_pid_from_pid_file(name(1015).c_str()), 6);
  writeFile(folder / "var/run/maild.pi", "7\n");
  EXPECT_EQ(ec_pid_from_pid_file(name(1015).c_str()), 7);
}

/// A running copy of sleep(1) with a name of its own; a script of that name where the name tells so.
class Sleeper {
 public:
  explicit Sleeper(const std::string& name) {
    const std::string program = folder_ / name;
    if (name.find("script") == std::string::npos) {
      std::filesystem::copy_file("/bin/sleep", program);
    } else {
      writeFile(program, "#!/usr/bin/tail -f\n");
      ::chmod(program.c_str(), 0700);
    }
    Task task;
    task.path = program;
    task.output = TaskStream::discarded;
    if (name.find("script") == std::string::npos) task.arguments = {"60"};
    identity_ = TaskRunner::current().start(task).value_or(ProcessIdentity());
    // A program has its name a moment before its words, by which a script is known.
    const std::string words = "/proc/" + std::to_string(pid()) + "/cmdline";
    for (int left = 5000; left > 0 && testing::readFile(words).empty(); --left)
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  ~Sleeper() {
    if (identity_.id > 0) ProcessSignals::current().send(identity_, SIGKILL);
  }
  Sleeper(const Sleeper&) = delete;
  Sleeper& operator=(const Sleeper&) = delete;
  pid_t pid() const { return identity_.id; }

 private:
  TemporaryFolder folder_;
  ProcessIdentity identity_;
};

/// Three letters for the names of processes: other runs of these tests on the machine have others.
std::string tagOfThisRun() {
  std::string tag;
  for (pid_t rest = getpid(); tag.size() < 3; rest /= 26) tag += static_cast<char>('a' + rest % 26);
  return tag;
}

TEST(Processes, AreFoundByTheirExactNames) {
  const std::string tag = tagOfThisRun();
  for (const std::string& name :
       {tag + "rel-t1", "o) S 1 (" + tag + " x", "o\nstrel-" + tag, tag + "rel-fifteen4", tag + "rel-sixteen-5",
        tag + "rel-service-with-a-long-name", tag + "rel-script-with-a-long-name"}) {
    const Sleeper sleeper(name);
    ASSERT_GT(sleeper.pid(), 1);
    EXPECT_EQ(ec_pid_for_process_named(name.c_str()), sleeper.pid()) << name;
    EXPECT_EQ(ec_check_pid_for_process_named(sleeper.pid(), name.c_str()), sleeper.pid()) << name;
    int count = 0;
    EXPECT_EQ(ec_is_daemon_running(name.c_str(), &count), 0);
    EXPECT_EQ(count, 1) << name;
    EXPECT_EQ(ec_pid_for_process_named((name + "x").c_str()), -1) << name;
    EXPECT_EQ(ec_pid_for_process_named(name.substr(1).c_str()), -1) << name;
    EXPECT_TRUE(get_service_state_from_pid(sleeper.pid()));

    EXPECT_EQ(ec_signal_process_by_name(name.c_str(), SIGTERM), 0);
    while (ec_check_process_by_pid(sleeper.pid())) std::this_thread::yield();
    EXPECT_EQ(ec_pid_for_process_named(name.c_str()), -1) << name;
  }
  EXPECT_EQ(ec_pid_for_process_named(nullptr), -1);
  EXPECT_EQ(ec_pid_for_process_named(""), -1);
}

TEST(Processes, AreTakenFromThePidFileBeforeTheName) {
  const TemporaryFolder folder;
  const std::string file = folder / "pid";
  const std::string name = tagOfThisRun() + "rel-t6";
  const Sleeper sleeper(name);
  const struct {
    std::string content;
    pid_t expected;
  } cases[] = {
      {std::to_string(sleeper.pid()) + "\n", sleeper.pid()},
      {std::to_string(getpid()) + "\n", -1},  // another process has got the id
      {"999999999\n", -1},
      {"0\n", sleeper.pid()},
      {"-1\n", sleeper.pid()},
      {"rubbish", sleeper.pid()},
  };
  for (const auto& [content, expected] : cases) {
    writeFile(file, content);
    EXPECT_EQ(ec_pid_from_pid_file_or_process_named(file.c_str(), name.c_str()), expected) << content;
  }
  writeFile(file, std::to_string(sleeper.pid()));
  EXPECT_TRUE(get_service_state_from_pid_file(file));
  EXPECT_EQ(ec_pid_from_pid_file_or_process_named("/nowhere", name.c_str()), sleeper.pid());
  EXPECT_EQ(ec_pid_from_pid_file_or_process_named(nullptr, nullptr), -1);
  EXPECT_FALSE(get_service_state_from_pid_file(folder / "absent"));
}

TEST(Processes, ZombiesAreInTheTableAndDoNotRun) {
  const pid_t zombie = fork();
  if (zombie == 0) _exit(0);
  siginfo_t end{};
  ASSERT_EQ(waitid(P_PID, static_cast<id_t>(zombie), &end, WEXITED | WNOWAIT), 0);
  EXPECT_TRUE(ec_check_process_by_pid(zombie));
  EXPECT_FALSE(get_service_state_from_pid(zombie));
  ProcessEntry* table = nullptr;
  std::size_t count = 0;
  ASSERT_EQ(ec_get_process_table(&table, &count), 0);
  EXPECT_EQ(std::count_if(table, table + count, [&](const auto& entry) { return entry.pid == zombie; }), 1);
  std::free(table);

  struct Seen {
    pid_t zombie;
    int self, dead, all;
  } seen{zombie, 0, 0, 0};
  const auto look = [](const ProcessEntry* entry, void* context) {
    auto& found = *static_cast<Seen*>(context);
    ++found.all;
    found.self += entry->pid == getpid() ? 1 : 0;
    found.dead += entry->pid == found.zombie ? 1 : 0;
    return 0;
  };
  EXPECT_EQ(ec_walk_process_table(look, &seen), 0);
  EXPECT_EQ(seen.self, 1);
  EXPECT_EQ(seen.dead, 0);
  int calls = 0;
  const auto once = [](const ProcessEntry*, void* context) { return ++*static_cast<int*>(context); };
  EXPECT_EQ(ec_walk_process_table(once, &calls), 0);
  EXPECT_EQ(calls, 1);
  waitpid(zombie, nullptr, 0);
  EXPECT_FALSE(ec_check_process_by_pid(zombie));
}

TEST(Processes, AreNoThreads) {
  std::promise<pid_t> id;
  std::promise<void> done;
  std::thread thread([&] {
    id.set_value(static_cast<pid_t>(::syscall(SYS_gettid)));
    done.get_future().wait();
  });
  const pid_t threadId = id.get_future().get();
  EXPECT_FALSE(ec_check_process_by_pid(threadId));
  EXPECT_TRUE(ec_check_process_by_pid(getpid()));
  EXPECT_FALSE(ProcessSignals::current().send({threadId, 0}, 0));
  EXPECT_EQ(errno, ESRCH);
  done.set_value();
  thread.join();
  for (const pid_t pid : {0, -1}) {
    EXPECT_FALSE(ec_check_process_by_pid(pid));
    EXPECT_FALSE(ProcessSignals::current().send({pid, 0}, 0));
    EXPECT_EQ(errno, EINVAL);
  }
}

TEST(Processes, TableNeedsItsArguments) {
  ProcessEntry* table = nullptr;
  std::size_t count = 0;
  errno = 0;
  EXPECT_EQ(ec_get_process_table(nullptr, &count), -1);
  EXPECT_EQ(errno, EINVAL);
  EXPECT_EQ(ec_get_process_table(&table, nullptr), -1);
  errno = 0;
  EXPECT_EQ(ec_walk_process_table(nullptr, nullptr), -1);
  EXPECT_EQ(errno, EINVAL);
  EXPECT_EQ(ec_is_daemon_running("x", nullptr), EINVAL);
  // Static: the table around the entry stays, which the address sanitizer would tell as a leak.
  static const ProcessEntry* const self = ec_process_info_by_pid(getpid());
  ASSERT_NE(self, nullptr);
  EXPECT_EQ(self->parent, getppid());
  EXPECT_TRUE(self->isRunning());
  EXPECT_EQ(ec_process_info_by_pid(-1), nullptr);
}

}  // namespace
}  // namespace ostrel
