#include "Heartbeat.h"

#include <signal.h>

#include <chrono>

#include "Platform/Clock.h"
#include "Platform/ProcessSignals.h"
#include "Platform/TaskRunner.h"

namespace ostrel::sample {
namespace {

constexpr const char* shell = "/bin/sh";
constexpr const char* script = "while :; do : >\"$1\"; sleep 1; done";
constexpr auto politeTime = std::chrono::seconds(3);
constexpr auto killTime = std::chrono::seconds(5);

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
  Task task;
  task.path = shell;
  task.arguments = {"-c", script, "ostrel-heartbeat", file};
  task.environment = {{"PATH=/usr/sbin:/usr/bin:/sbin:/bin"}};
  task.output = TaskStream::discarded;
  task.errors = TaskStream::discarded;
  return TaskRunner::current().start(task);
}

bool isRunning(const ProcessIdentity& process) {
  if (process.id <= 1) return false;
  const auto found = ProcessTable::current().find(process.id);
  return found && found->started == process.started && found->isRunning();
}

bool stopHeartbeat(const ProcessIdentity& process) {
  if (!isRunning(process)) return true;
  ProcessSignals::current().send(process, SIGTERM);
  if (endsWithin(process, politeTime)) return true;
  ProcessSignals::current().send(process, SIGKILL);
  return endsWithin(process, killTime);
}

}  // namespace ostrel::sample
