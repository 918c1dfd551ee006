#include "Platform/Internal/SystemdJobs.h"

#include <sys/wait.h>

#include <string>
#include <utility>

#include "Containers/LeadingInteger.h"
#include "Platform/Internal/SystemdUnit.h"
#include "Platform/Internal/TakeUpTo.h"

namespace ostrel::detail {
namespace {

/// Takes "NAME=value". A command stands there with the very line feeds of its arguments, and ends by " }".
std::string_view takeProperty(std::string_view& left) {
  const std::string_view all = left;
  std::string_view line = takeUpTo(left, "\n");
  if (!line.starts_with("ExecStart={ path=") || line.ends_with(" }")) return line;
  const std::size_t end = all.find(" }\n");
  if (end == std::string_view::npos) return line;
  line = all.substr(0, end + 2);
  left = all.substr(end + 3);
  return line;
}

/// The lines of one unit, without the empty one that ends them.
std::string_view takeUnit(std::string_view& left) {
  const std::string_view all = left;
  std::size_t size = 0;
  while (!left.empty() && !takeProperty(left).empty()) size = all.size() - left.size();
  return all.substr(0, size);
}

/// What `takeUnit` took.
class Properties {
 public:
  explicit Properties(std::string_view lines) : lines_(lines) {}

  /// The first value of that name, "" when there is none.
  std::string_view get(std::string_view name) const {
    for (std::string_view left = lines_; !left.empty();) {
      std::string_view line = takeProperty(left);
      if (takeUpTo(line, "=") == name) return line;
    }
    return {};
  }
  std::int64_t integer(std::string_view name) const { return leadingInteger(get(name)).value_or(0); }

 private:
  std::string_view lines_;
};

/// As waitpid(2) gives it.
std::int64_t waitStatus(const Properties& properties) {
  const std::int64_t status = properties.integer("ExecMainStatus") & 0xFF;
  switch (properties.integer("ExecMainCode")) {
    case CLD_EXITED:
      return status << 8;
    case CLD_KILLED:
      return status;
    case CLD_DUMPED:
      return status | 0x80;
    default:
      return 0;
  }
}

void add(LaunchData::Dictionary& job, std::string_view key, LaunchData value) {
  job.push_back({std::string(key), std::move(value)});
}

void addText(LaunchData::Dictionary& job, std::string_view key, std::string_view text) {
  if (!text.empty()) add(job, key, {std::string(text)});
}

/// "{ path=/bin/x ; argv[]=/bin/x -y ; ignore_errors=no ; ... }"
void addProgram(LaunchData::Dictionary& job, std::string_view command) {
  constexpr std::string_view opening = "{ path=";
  if (!command.starts_with(opening)) return;
  command.remove_prefix(opening.size());
  const std::string_view path = takeUpTo(command, " ; argv[]=");
  std::string_view words = command.substr(0, command.rfind(" ; ignore_errors="));
  LaunchData::Array arguments;
  while (!words.empty()) arguments.push_back({std::string(takeUpTo(words, " "))});
  addText(job, "Program", path);
  add(job, "ProgramArguments", {std::move(arguments)});
}

LaunchData::Dictionary jobFrom(const Properties& properties) {
  LaunchData::Dictionary job;
  addText(job, "Label", labelOfUnit(properties.get("Id")));
  add(job, "LastExitStatus", {waitStatus(properties)});
  if (const std::int64_t id = properties.integer("MainPID"); id > 0) add(job, "PID", {id});
  add(job, "OnDemand", {properties.get("Restart") == "no"});
  addProgram(job, properties.get("ExecStart"));
  addText(job, "UserName", properties.get("User"));
  addText(job, "WorkingDirectory", properties.get("WorkingDirectory"));
  addText(job, "ActiveState", properties.get("ActiveState"));
  addText(job, "UnitFileState", properties.get("UnitFileState"));
  return job;
}

}  // namespace

LaunchData::Dictionary jobsFrom(std::string_view output) {
  LaunchData::Dictionary jobs;
  while (!output.empty()) {
    const Properties unit(takeUnit(output));
    if (unit.get("LoadState") == "loaded" && !unit.get("Id").empty())
      add(jobs, labelOfUnit(unit.get("Id")), {jobFrom(unit)});
  }
  return jobs;
}

}  // namespace ostrel::detail
