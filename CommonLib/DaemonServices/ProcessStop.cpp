#include <signal.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <initializer_list>
#include <new>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "Containers/Format.h"
#include "DaemonServices/ProcessControl.h"
#include "Platform/Clock.h"
#include "Platform/ProcessSignals.h"

namespace ostrel {
namespace {

constexpr int cleanUpRounds = 11;
constexpr auto roundPause = std::chrono::seconds(2);
constexpr std::size_t messageSize = 256;
constexpr pid_t firstProcess = 1;

std::vector<ProcessEntry> named(const std::vector<ProcessEntry>& entries, std::string_view name) {
  std::vector<ProcessEntry> found;
  for (const ProcessEntry& entry : entries) {
    if (ProcessTable::current().isNamed(entry, name)) found.push_back(entry);
  }
  return found;
}

/// Sends the signals, one directly after the other, to every process of that name. The error number of the last
/// failure.
int signalNamed(const char* name, std::initializer_list<int> signals) try {
  if (name == nullptr) return EINVAL;
  const auto entries = ProcessTable::current().snapshot();
  if (!entries) return errno;
  int error = 0;
  for (const ProcessEntry& entry : named(*entries, name)) {
    for (const int signal : signals) {
      if (!ProcessSignals::current().send(entry.identity(), signal)) error = errno;
    }
  }
  return error;
} catch (const std::bad_alloc&) {
  return ENOMEM;
}

/// The result of the second signal: the first may have ended the process already.
bool terminateAndKill(const ProcessIdentity& process) {
  ProcessSignals::current().send(process, SIGTERM);
  return ProcessSignals::current().send(process, SIGKILL);
}

/// The id that a daemon is stopped by, 0 when no process has its name.
ProcessIdentity masterOf(const std::vector<ProcessEntry>& daemons) {
  pid_t last = 0;
  for (const ProcessEntry& daemon : daemons) {
    last = daemon.parent;
    const auto master = std::ranges::find(daemons, daemon.parent, &ProcessEntry::pid);
    if (master != daemons.end() && master->pid != daemon.pid) return master->identity();
  }
  return {last, 0};
}

std::string stopMaster(const ProcessIdentity& master, const char* name, bool& stopped) {
  stopped = true;
  if (master.id <= 0) return format("%s: already stopped\n", name);
  stopped = ProcessSignals::current().send(master, SIGTERM);
  return stopped ? format("%s: stopped (pid #%d)\n", name, master.id) : format("%s: could not stop\n", name);
}

/// False when the process table cannot be had, or no process has the name any more.
bool cleanUpOnce(std::string_view name) {
  const auto entries = ProcessTable::current().snapshot();
  if (!entries) return false;
  const auto daemons = named(*entries, name);
  for (const ProcessEntry& daemon : daemons) {
    if (!ProcessSignals::current().send(daemon.identity(), SIGTERM))
      ProcessSignals::current().send(daemon.identity(), SIGKILL);
  }
  return !daemons.empty();
}

char* copyOfMessage(const std::string& text) {
  auto* copy = static_cast<char*>(std::malloc(messageSize));
  if (copy != nullptr) std::snprintf(copy, messageSize, "%s", text.c_str());
  return copy;
}

}  // namespace

int ec_signal_process_by_name(const char* name, int signal) { return signalNamed(name, {signal}); }

int ec_terminate_process_by_name(const char* name) { return signalNamed(name, {SIGTERM, SIGKILL}); }

int ec_terminate_process_by_id(pid_t pid) {
  if (pid <= firstProcess) {
    errno = pid == firstProcess ? EPERM : EINVAL;
    return -1;
  }
  ProcessIdentity process{pid, 0};
  const auto entries = ProcessTable::current().snapshot();
  for (const ProcessEntry& entry : entries ? std::span(*entries) : std::span<const ProcessEntry>()) {
    if (entry.parent == pid) terminateAndKill(entry.identity());
    if (entry.pid == pid) process = entry.identity();
  }
  return terminateAndKill(process) ? 0 : -1;
}

bool ec_terminate_daemon_by_name(const char* name, char** message) try {
  if (message != nullptr) *message = nullptr;
  const auto entries = name == nullptr ? std::nullopt : ProcessTable::current().snapshot();
  if (!entries) return false;
  bool stopped = false;
  const std::string text = stopMaster(masterOf(named(*entries, name)), name, stopped);
  if (message != nullptr) *message = copyOfMessage(text);
  for (int round = 0; round < cleanUpRounds; ++round) {
    Clock::current().sleepFor(roundPause);
    if (!cleanUpOnce(name)) break;
  }
  return stopped;
} catch (const std::bad_alloc&) {
  return false;
}

}  // namespace ostrel
