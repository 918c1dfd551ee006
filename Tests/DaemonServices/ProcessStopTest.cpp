// Stopping services and measuring processors, over fakes: what is sent to whom, in which order, after which waits.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "DaemonServices/ProcessControl.h"
#include "Platform/ProcessSignals.h"
#include "Platform/ProcessorTimes.h"
#include "Support/Fakes.h"

namespace ostrel {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

ProcessEntry process(pid_t pid, pid_t parent, const char* name) {
  ProcessEntry entry;
  entry.pid = pid;
  entry.parent = parent;
  entry.state = ProcessState::sleeping;
  std::strncpy(entry.command, name, sizeof entry.command - 1);
  return entry;
}

/// A machine's processes. Signals are noted and answered by `onSignal`, by default with success and no effect.
class FakeProcesses final : public ProcessTable, public ProcessSignals {
 public:
  std::optional<std::vector<ProcessEntry>> snapshot() override {
    if (snapshotsLeft-- > 0) return entries;
    errno = EMFILE;
    return std::nullopt;
  }
  bool send(const ProcessIdentity& target, int signal) override {
    sent.push_back((signal == SIGTERM ? "TERM " : "KILL ") + std::to_string(target.id));
    errno = onSignal(target.id, signal);
    return errno == 0;
  }
  void end(pid_t pid) {
    std::erase_if(entries, [&](const ProcessEntry& entry) { return entry.pid == pid; });
  }

  std::vector<ProcessEntry> entries;
  int snapshotsLeft = 1000;
  std::function<int(pid_t, int)> onSignal = [](pid_t, int) { return 0; };
  std::vector<std::string> sent;
};

class ProcessStop : public ::testing::Test {
 protected:
  bool stop(const char* name) {
    char* text = nullptr;
    const bool stopped = ec_terminate_daemon_by_name(name, &text);
    message = text == nullptr ? "none" : text;
    std::free(text);
    return stopped;
  }

  FakeProcesses processes;
  testing::FakeClock clock;
  ScopedOverride<ProcessTable> table{processes};
  ScopedOverride<ProcessSignals> signals{processes};
  ScopedOverride<Clock> time{clock};
  std::string message;
};

TEST_F(ProcessStop, LooksOnceForADaemonThatIsNotThere) {
  processes.entries = {process(1, 0, "init"), process(5, 1, "maild2")};
  EXPECT_TRUE(stop("maild"));
  EXPECT_EQ(message, "maild: already stopped\n");
  EXPECT_THAT(processes.sent, IsEmpty());
  EXPECT_EQ(clock.monotonic(), std::chrono::seconds(2));
  EXPECT_TRUE(ec_terminate_daemon_by_name("maild", nullptr));
  processes.entries.clear();
  EXPECT_TRUE(stop(""));
  EXPECT_EQ(message, ": already stopped\n");
  EXPECT_FALSE(stop(nullptr));
  EXPECT_EQ(message, "none");
}

TEST_F(ProcessStop, StopsTheMasterAndThenWhatIsLeft) {
  // The table's first pair counts: 20 is the parent of 21, though 30 comes before it.
  processes.entries = {process(30, 1, "maild"), process(21, 20, "maild"), process(20, 1, "maild"),
                       process(31, 30, "maild"), process(40, 20, "other")};
  int terms = 0;
  processes.onSignal = [&](pid_t pid, int signal) {
    if (pid == 20 || pid == 30 || signal == SIGKILL) processes.end(pid);
    return pid == 31 && signal == SIGTERM && ++terms > 1 ? EPERM : 0;
  };
  processes.entries[1].state = ProcessState::zombie;
  EXPECT_TRUE(stop("maild"));
  EXPECT_EQ(message, "maild: stopped (pid #20)\n");
  // 21 ignores the request; 31 refuses the second one and is killed.
  EXPECT_THAT(std::vector(processes.sent.begin(), processes.sent.begin() + 7),
              ElementsAre("TERM 20", "TERM 30", "TERM 21", "TERM 31", "TERM 21", "TERM 31", "KILL 31"));
  EXPECT_EQ(processes.sent.size(), 7U + 9);
  EXPECT_EQ(clock.sleeps(), 11);
  EXPECT_EQ(clock.monotonic(), std::chrono::seconds(22));
}

TEST_F(ProcessStop, StopsTheLastParentWhereNoneIsAPair) {
  processes.entries = {process(20, 7, "maild"), process(21, 8, "maild"), process(22, 22, "other")};
  processes.onSignal = [&](pid_t pid, int) {
    if (pid == 8) return EPERM;
    processes.end(pid);
    return 0;
  };
  EXPECT_FALSE(stop("maild"));
  EXPECT_EQ(message, "maild: could not stop\n");
  EXPECT_THAT(processes.sent, ElementsAre("TERM 8", "TERM 20", "TERM 21"));
  EXPECT_EQ(clock.sleeps(), 2);
}

TEST_F(ProcessStop, GivesUpWhenTheTableCannotBeHad) {
  processes.entries = {process(20, 7, "maild")};
  processes.snapshotsLeft = 0;
  EXPECT_FALSE(stop("maild"));
  EXPECT_EQ(message, "none");
  EXPECT_EQ(clock.sleeps(), 0);
  processes.snapshotsLeft = 2;
  EXPECT_TRUE(stop("maild"));
  EXPECT_EQ(clock.sleeps(), 2);
  EXPECT_THAT(processes.sent, ElementsAre("TERM 7", "TERM 20"));
}

TEST_F(ProcessStop, CutsAMessageToItsBuffer) {
  const std::string name(300, 'n');
  EXPECT_TRUE(stop(name.c_str()));
  EXPECT_EQ(message, std::string(255, 'n'));
}

TEST_F(ProcessStop, SignalsByNameAndTellsTheLastFailure) {
  processes.entries = {process(2, 1, "maild"), process(3, 1, "Maild"), process(4, 1, "maild"), process(5, 1, "maild")};
  processes.onSignal = [](pid_t pid, int) { return pid == 2 ? EPERM : pid == 4 ? ESRCH : 0; };
  EXPECT_EQ(ec_signal_process_by_name("maild", SIGTERM), ESRCH);
  EXPECT_THAT(processes.sent, ElementsAre("TERM 2", "TERM 4", "TERM 5"));
  processes.sent.clear();
  EXPECT_EQ(ec_terminate_process_by_name("Maild"), 0);
  EXPECT_THAT(processes.sent, ElementsAre("TERM 3", "KILL 3"));
  EXPECT_EQ(ec_signal_process_by_name("nobody", SIGTERM), 0);
  EXPECT_EQ(ec_signal_process_by_name("", SIGTERM), 0);
  EXPECT_EQ(ec_signal_process_by_name(nullptr, SIGTERM), EINVAL);
  processes.snapshotsLeft = 0;
  EXPECT_EQ(ec_terminate_process_by_name("maild"), EMFILE);
  int count = 7;
  EXPECT_EQ(ec_is_daemon_running("maild", &count), -1);
  EXPECT_EQ(count, 0);
}

TEST_F(ProcessStop, EndsChildrenBeforeTheirParent) {
  processes.entries = {process(9, 5, "a"), process(5, 1, "b"), process(10, 9, "c"), process(11, 5, "d")};
  EXPECT_EQ(ec_terminate_process_by_id(5), 0);
  EXPECT_THAT(processes.sent, ElementsAre("TERM 9", "KILL 9", "TERM 11", "KILL 11", "TERM 5", "KILL 5"));
  processes.sent.clear();
  processes.onSignal = [](pid_t, int signal) { return signal == SIGKILL ? ESRCH : 0; };
  EXPECT_EQ(ec_terminate_process_by_id(77), -1);
  EXPECT_EQ(errno, ESRCH);
  EXPECT_THAT(processes.sent, ElementsAre("TERM 77", "KILL 77"));
  // Groups of processes, everyone, and the first process, whose children are all of the host's services.
  for (const pid_t pid : {0, -1, -5, 1}) {
    EXPECT_EQ(ec_terminate_process_by_id(pid), -1) << pid;
    EXPECT_EQ(errno, pid == 1 ? EPERM : EINVAL) << pid;
  }
  EXPECT_EQ(processes.sent.size(), 2U);
}

TEST_F(ProcessStop, ChecksANameAtTheStartOrBehindASlash) {
  processes.entries = {process(5, 1, "sshd"), process(6, 1, "xsshd/sshd"), process(7, 1, "my/sshd-old")};
  const struct {
    pid_t pid;
    const char* name;
    pid_t expected;
  } cases[] = {{5, "sshd", 5},  {5, "ssh", 5},    {5, "shd", -1}, {5, "sshdx", -1}, {5, "Sshd", -1},
               {6, "sshd", 6},  {7, "sshd", 7},   {7, "old", -1}, {7, "my/s", 7},   {8, "sshd", -1},
               {0, "sshd", -1}, {-5, "sshd", -1}, {5, "", -1},    {5, nullptr, -1}, {5, "shd/", -1}};
  for (const auto& [pid, name, expected] : cases)
    EXPECT_EQ(ec_check_pid_for_process_named(pid, name), expected) << pid << (name == nullptr ? "null" : name);
}

class FakeProcessors final : public ProcessorTimes {
 public:
  std::optional<std::vector<ProcessorTicks>> processors() override {
    if (!ticks.empty()) return ticks;
    errno = EACCES;
    return std::nullopt;
  }
  std::optional<ProcessTimes> ownTimes() override { return times; }

  std::vector<ProcessorTicks> ticks;
  std::optional<ProcessTimes> times;
};

TEST(ProcessorUsage, MeasuresBetweenTwoCalls) {
  FakeProcessors fake;
  const ScopedOverride<ProcessorTimes> processors(fake);
  std::uint64_t idle = 5;
  std::uint64_t total = 5;
  EXPECT_EQ(reset_total_cpu_usage(&idle, &total), EACCES);
  EXPECT_EQ(idle + total, 0U);
  EXPECT_EQ(get_total_cpu_usage(0, 0), -1);
  EXPECT_EQ(reset_total_cpu_usage(nullptr, &total), EINVAL);

  const struct {
    std::uint64_t user, system, idle;
    int busy;
  } cases[] = {{100, 50, 50, 75}, {1, 1, 1, 66}, {0, 0, 9, 0}, {3, 4, 0, 100}, {0, 0, 0, 0}};
  for (const auto& [user, system, idled, busy] : cases) {
    fake.ticks = {{1000, 2000, 3000, 5}, {10, 20, 30, 7}};
    EXPECT_EQ(reset_total_cpu_usage(&idle, &total), 0);
    EXPECT_EQ(idle, 3030U);
    EXPECT_EQ(total, 6060U);  // without the nice ticks
    fake.ticks[0].user += user;
    fake.ticks[1].system += system;
    fake.ticks[1].idle += idled;
    fake.ticks[1].nice += 1000;
    EXPECT_EQ(get_total_cpu_usage(idle, total), busy) << user << " " << system << " " << idled;
  }
  // Baselines that are not from this machine.
  get_total_cpu_usage(UINT64_MAX, total + 1);
  get_total_cpu_usage(0, UINT64_MAX);
}

TEST(ProcessorUsage, SumsTheTimeOfThisProcess) {
  FakeProcessors fake;
  {
    const ScopedOverride<ProcessorTimes> processors(fake);
    EXPECT_EQ(get_process_cpu_usage().tv_sec + get_process_cpu_usage().tv_usec, 0);
    fake.times = ProcessTimes{{1, 999'999}, {2, 2}};
    EXPECT_EQ(get_process_cpu_usage().tv_sec, 4);
    EXPECT_EQ(get_process_cpu_usage().tv_usec, 1);
  }
  const timeval before = get_process_cpu_usage();
  const auto used = [&] {
    const timeval now = get_process_cpu_usage();
    return (now.tv_sec - before.tv_sec) * 1'000'000 + now.tv_usec - before.tv_usec;
  };
  while (used() < 20'000) {
  }
  EXPECT_GE(get_total_cpu_usage(0, 0), 0);
  EXPECT_LE(get_total_cpu_usage(0, 0), 100);
}

}  // namespace
}  // namespace ostrel
