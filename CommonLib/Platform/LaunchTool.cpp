#include "Platform/LaunchTool.h"

#include <chrono>
#include <string_view>
#include <utility>

#include "Containers/LeadingInteger.h"
#include "Platform/HostRoot.h"
#include "Platform/Internal/TakeUpTo.h"
#include "Platform/TaskRunner.h"

namespace ostrel {
namespace {

constexpr std::size_t longestList = 8 << 20;

/// "PID\tSTATUS\tLABEL", the first being "-" of a job that does not run.
void addJob(std::string_view line, LaunchData::Dictionary& jobs) {
  const auto process = leadingInteger(detail::takeUpTo(line, "\t"));
  const auto status = leadingInteger(detail::takeUpTo(line, "\t"));
  if (!status || line.empty()) return;  // the heading
  LaunchData::Dictionary job;
  job.push_back({"Label", {std::string(line)}});
  job.push_back({"LastExitStatus", {*status}});
  if (process && *process > 0) job.push_back({"PID", {*process}});
  jobs.push_back({std::string(line), {std::move(job)}});
}

}  // namespace

std::optional<std::string> launchTool() {
  std::string tool = hostPath("/bin/launchctl");
  if (!isProgram(tool)) return std::nullopt;
  return tool;
}

std::optional<LaunchData> jobsOfLaunchTool(const std::string& tool) {
  Task task;
  task.path = tool;
  task.arguments = {"list"};
  task.output = TaskStream::captured;
  task.errors = TaskStream::discarded;
  task.outputLimit = longestList;
  task.timeLimit = std::chrono::seconds(10);
  const auto outcome = TaskRunner::current().run(task);
  if (!outcome || outcome->status != 0 || outcome->outputCut) return std::nullopt;
  LaunchData::Dictionary jobs;
  for (std::string_view left = outcome->output; !left.empty();) addJob(detail::takeUpTo(left, "\n"), jobs);
  return LaunchData{std::move(jobs)};
}

}  // namespace ostrel
