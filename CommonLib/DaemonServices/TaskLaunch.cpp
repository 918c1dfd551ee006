#include <algorithm>
#include <cerrno>
#include <new>
#include <optional>
#include <string>
#include <string_view>

#include "DaemonServices/ProcessControl.h"
#include "Platform/TaskRunner.h"

namespace ostrel {
namespace {

bool isNullOr(const PlistValue& value, PlistValue::Kind kind) { return value.isNull() || value.kind() == kind; }

/// "NAME=value" of each entry; false when one cannot be an environment variable.
bool addEnvironment(const PlistValue& environment, Task& task) {
  if (environment.isNull()) return true;
  auto& variables = task.environment.emplace();
  for (const PlistEntry& entry : environment.entries()) {
    const std::string_view name = entry.keyText();
    if (name.empty() || name.find('=') != std::string_view::npos || !entry.value.isString()) return false;
    variables.push_back(std::string(name) + "=" + std::string(entry.value.stringValue()));
  }
  return true;
}

/// The task, or nothing, with errno, when a value is of the wrong kind.
std::optional<Task> taskFrom(const PlistValue& path, const PlistValue& arguments, const PlistValue& input,
                             const PlistValue& environment) {
  using Kind = PlistValue::Kind;
  Task task;
  if (path.isString() && isNullOr(arguments, Kind::array) && isNullOr(input, Kind::string) &&
      isNullOr(environment, Kind::dictionary) && std::ranges::all_of(arguments.elements(), &PlistValue::isString) &&
      addEnvironment(environment, task)) {
    task.path = path.stringValue();
    for (const PlistValue& argument : arguments.elements()) task.arguments.emplace_back(argument.stringValue());
    if (!input.isNull()) task.input = input.stringValue();
    return task;
  }
  errno = EINVAL;
  return std::nullopt;
}

}  // namespace

int launch_task(const PlistValue& path, const PlistValue& arguments) {
  return launch_task_with_input(path, arguments, PlistValue());
}

int launch_task_with_input(const PlistValue& path, const PlistValue& arguments, const PlistValue& input) {
  return launch_task_with_input_and_environment(path, arguments, input, PlistValue());
}

int launch_task_with_input_and_environment(const PlistValue& path, const PlistValue& arguments, const PlistValue& input,
                                           const PlistValue& environment) try {
  const auto task = taskFrom(path, arguments, input, environment);
  const auto outcome = task ? TaskRunner::current().run(*task) : std::nullopt;
  return outcome ? outcome->status : -1;
} catch (const std::bad_alloc&) {
  errno = ENOMEM;
  return -1;
}

bool start_task(const PlistValue& path, const PlistValue& arguments) try {
  auto task = taskFrom(path, arguments, PlistValue(), PlistValue());
  if (!task) return false;
  // What goes on running must not hold on to this process's output, whose reader may wait for its end.
  task->output = TaskStream::discarded;
  task->errors = TaskStream::discarded;
  return TaskRunner::current().start(*task).has_value();
} catch (const std::bad_alloc&) {
  errno = ENOMEM;
  return false;
}

}  // namespace ostrel
