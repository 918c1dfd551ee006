// Real programs, and what they get of this process.
#include "Platform/TaskRunner.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "Platform/FileDescriptor.h"
#include "Platform/ProcessSignals.h"

namespace ostrel {
namespace {

Task shell(std::string script) {
  Task task;
  task.path = "/bin/sh";
  task.arguments = {"-c", std::move(script)};
  task.output = TaskStream::captured;
  return task;
}

TaskOutcome run(const Task& task) {
  const auto outcome = TaskRunner::current().run(task);
  EXPECT_TRUE(outcome) << errno;
  return outcome.value_or(TaskOutcome{-1, "", false});
}

bool hasNoChild() {
  siginfo_t found{};
  return waitid(P_ALL, 0, &found, WEXITED | WNOHANG | WNOWAIT) != 0 && errno == ECHILD;
}

TEST(TaskRunner, PassesArgumentsAndEnvironmentAsTheyAre) {
  Task task = shell(R"(printf '<%s>' "$0" "$@")");
  task.arguments.insert(task.arguments.end(), {"a b", "", "; exit 9", "$(id)\n`id`", "-\xC3\xA9*", "\xFF"});
  EXPECT_EQ(run(task).output, "<a b><><; exit 9><$(id)\n`id`><-\xC3\xA9*><\xFF>");

  Task environment;
  environment.path = "/usr/bin/env";
  environment.output = TaskStream::captured;
  environment.environment = {{"A=1", "B=x=y z"}};
  EXPECT_EQ(run(environment).output, "A=1\nB=x=y z\n");
  environment.environment.reset();
  EXPECT_NE(run(environment).output.find("PATH="), std::string::npos);
}

TEST(TaskRunner, GivesTheChildNoDescriptorAndNoSignalSetting) {
  const FileDescriptor leaky(::open("/dev/null", O_RDONLY));  // on purpose without close-on-exec
  ASSERT_TRUE(leaky);
  sigset_t blocked;
  sigset_t before;
  sigfillset(&blocked);
  pthread_sigmask(SIG_BLOCK, &blocked, &before);
  const auto pipeAction = signal(SIGPIPE, SIG_IGN);
  const auto hangUpAction = signal(SIGHUP, [](int) {});
  // "ls" itself has the fourth open; two signals that the C library keeps for itself may be ignored.
  const TaskOutcome open = run(shell("ls /proc/self/fd | wc -l"));
  const TaskOutcome signals = run(shell(R"(grep -cE '^Sig(Blk|Ign):.0000000[01][08]0000000$' /proc/self/status)"));
  signal(SIGHUP, hangUpAction);
  signal(SIGPIPE, pipeAction);
  pthread_sigmask(SIG_SETMASK, &before, nullptr);
  EXPECT_EQ(open.output, "4\n");
  EXPECT_EQ(signals.output, "2\n");
}

TEST(TaskRunner, MovesLargeInputAndOutputTogetherOnManyThreads) {
  const std::string text(std::size_t{6} << 20, 'x');
  std::vector<std::thread> threads;
  for (int i = 0; i < 4; ++i) {
    threads.emplace_back([&] {
      Task task;
      task.path = "/bin/cat";
      task.input = text;
      task.output = TaskStream::captured;
      task.outputLimit = SIZE_MAX;
      EXPECT_TRUE(run(task).output == text);
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_TRUE(hasNoChild());
}

TEST(TaskRunner, IsNotHeldUpByTheProgramsThatItRuns) {
  const std::string large(std::size_t{1} << 20, 'x');
  const struct {
    const char* script;
    int status;
    const char* output;
  } cases[] = {
      {"exit 3", 3, ""},                                   // never reads
      {"exec 0<&-; echo closed", 0, "closed\n"},           // closes its input
      {"head -c 2", 0, "xx"},                              // stops reading
      {"exec 1>&-; sleep 0.1; exit 4", 4, ""},             // closes its output
      {"sleep 60 & echo $!; echo kept", 0, "kept\n"},      // leaves a child with the output open
      {"(while :; do echo more; done) & echo $!", 0, ""},  // and one that never stops writing
  };
  for (const auto& [script, status, output] : cases) {
    Task task = shell(script);
    task.input = large;
    const auto start = std::chrono::steady_clock::now();
    const TaskOutcome outcome = run(task);
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(30)) << script;
    EXPECT_EQ(outcome.status, status) << script;
    const int left = std::atoi(outcome.output.c_str());
    if (left > 0) kill(left, SIGKILL);
    const std::size_t first = left > 0 ? outcome.output.find('\n') + 1 : 0;
    EXPECT_TRUE(outcome.output.substr(first).starts_with(output)) << script;
  }
}

TEST(TaskRunner, KeepsOutputUpToItsLimit) {
  Task task = shell("head -c 3000000 /dev/zero; echo error >&2; exit 5");
  task.outputLimit = 1000;
  task.errors = TaskStream::captured;
  const TaskOutcome cut = run(task);
  EXPECT_EQ(cut.status, 5);
  EXPECT_EQ(cut.output, std::string(1000, '\0'));
  EXPECT_TRUE(cut.outputCut);
  task.arguments[1] = "echo out; echo error >&2";
  const TaskOutcome whole = run(task);
  EXPECT_EQ(whole.output, "out\nerror\n");
  EXPECT_FALSE(whole.outputCut);
}

// A process without standard streams: the descriptors that the runner makes get their numbers.
TEST(TaskRunner, SetsTheStreamsOfAProcessThatHasNone) {
  const pid_t child = fork();
  if (child == 0) {
    for (int stream = 0; stream < 3; ++stream) close(stream);
    Task task = shell("cat; echo out; echo err >&2");
    task.input = "in\n";
    task.errors = TaskStream::captured;
    const auto outcome = TaskRunner::current().run(task);
    _exit(outcome && outcome->output == "in\nout\nerr\n" ? 0 : 1);
  }
  int status = 0;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  EXPECT_EQ(status, 0);
}

TEST(TaskRunner, StartsWithoutWaitingAndCollectsTheEnd) {
  Task task;
  task.path = "/bin/sleep";
  task.arguments = {"60"};
  const auto started = TaskRunner::current().start(task);
  ASSERT_TRUE(started);
  EXPECT_EQ(getsid(started->id), started->id);
  ProcessIdentity earlier = *started;
  earlier.started -= 1;  // as if the id had had another owner before
  EXPECT_FALSE(ProcessSignals::current().send(earlier, SIGKILL));
  EXPECT_EQ(errno, ESRCH);
  EXPECT_TRUE(ProcessSignals::current().send(*started, SIGTERM));
  while (!hasNoChild()) std::this_thread::sleep_for(std::chrono::milliseconds(5));
  EXPECT_FALSE(ProcessSignals::current().send(*started, SIGTERM));

  task.path = "/nowhere/sleep";
  EXPECT_FALSE(TaskRunner::current().start(task));
  EXPECT_EQ(errno, ENOENT);
}

}  // namespace
}  // namespace ostrel
