#include "Heartbeat.h"

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>

#include <cerrno>
#include <chrono>
#include <sstream>
#include <thread>

#include "Containers/Format.h"
#include "Platform/Clock.h"
#include "Platform/Files.h"

namespace ostrel::sample {
namespace {

constexpr const char* shell = "/bin/sh";
constexpr const char* script = "while :; do : >\"$1\"; sleep 1; done";
constexpr auto politeTime = std::chrono::seconds(3);
constexpr auto killTime = std::chrono::seconds(5);

struct ProcessStatus {
  char state = 'X';
  std::uint64_t started = 0;
};

/// Fields 3 and 22 of /proc/PID/stat (proc(5)). The program's name before them may hold spaces and parentheses.
std::optional<ProcessStatus> statusOf(pid_t id) {
  const auto text = readWholeFile(format("/proc/%d/stat", id));
  const std::size_t afterName = text ? text->rfind(')') : std::string::npos;
  if (afterName == std::string::npos) return std::nullopt;
  std::istringstream fields(text->substr(afterName + 1));
  ProcessStatus status;
  fields >> status.state;
  std::string skipped;
  for (int field = 4; field < 22; ++field) fields >> skipped;
  if (!(fields >> status.started)) return std::nullopt;
  return status;
}

/// A child that nobody waits for stays in the process table.
void collectWhenEnded(pid_t child) {
  std::thread([child] {
    while (waitpid(child, nullptr, 0) < 0 && errno == EINTR) {
    }
  }).detach();
}

/// The child gets nothing of this process: no descriptors (an inherited lock file would stay locked), no blocked or
/// ignored signals, and a process group of its own, so that it can be ended with everything that it started.
int spawnDetached(pid_t& child, const char* const* arguments) {
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDWR, 0);
  posix_spawn_file_actions_adddup2(&actions, 0, 1);
  posix_spawn_file_actions_adddup2(&actions, 0, 2);
  posix_spawn_file_actions_addclosefrom_np(&actions, 3);

  posix_spawnattr_t attributes;
  sigset_t none;
  sigset_t all;
  sigemptyset(&none);
  sigfillset(&all);
  posix_spawnattr_init(&attributes);
  posix_spawnattr_setpgroup(&attributes, 0);
  posix_spawnattr_setsigmask(&attributes, &none);
  posix_spawnattr_setsigdefault(&attributes, &all);
  posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETPGROUP | POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);

  const char* environment[] = {"PATH=/usr/sbin:/usr/bin:/sbin:/bin", nullptr};
  const int error = posix_spawn(&child, arguments[0], &actions, &attributes, const_cast<char* const*>(arguments),
                                const_cast<char* const*>(environment));
  posix_spawnattr_destroy(&attributes);
  posix_spawn_file_actions_destroy(&actions);
  return error;
}

bool endsWithin(const ProcessIdentity& process, std::chrono::nanoseconds time) {
  const auto end = Clock::current().monotonic() + time;
  while (isRunning(process)) {
    if (Clock::current().monotonic() >= end) return false;
    Clock::current().sleepFor(std::chrono::milliseconds(10));
  }
  return true;
}

}  // namespace

std::optional<ProcessIdentity> startHeartbeat(const std::string& file) {
  const char* arguments[] = {shell, "-c", script, "ostrel-heartbeat", file.c_str(), nullptr};
  pid_t child = 0;
  errno = spawnDetached(child, arguments);
  if (errno != 0) return std::nullopt;
  const auto status = statusOf(child);  // before anything collects it: the id cannot be used again meanwhile
  collectWhenEnded(child);
  if (!status) return std::nullopt;
  return ProcessIdentity{child, status->started};
}

bool isRunning(const ProcessIdentity& process) {
  if (process.id <= 1) return false;
  const auto status = statusOf(process.id);
  return status && status->started == process.started && status->state != 'Z' && status->state != 'X';
}

bool stopHeartbeat(const ProcessIdentity& process) {
  if (!isRunning(process)) return true;
  kill(-process.id, SIGTERM);
  if (endsWithin(process, politeTime)) return true;
  kill(-process.id, SIGKILL);
  return endsWithin(process, killTime);
}

}  // namespace ostrel::sample
