#include "Platform/Internal/SystemdServices.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <utility>

#include "Containers/PropertyList.h"
#include "Platform/FileDescriptor.h"
#include "Platform/Files.h"
#include "Platform/HostRoot.h"
#include "Platform/Internal/SystemdJobs.h"
#include "Platform/Internal/SystemdUnit.h"
#include "Platform/RegularFile.h"

namespace ostrel::detail {
namespace {

constexpr std::size_t longestAnswer = 8 << 20;
constexpr std::size_t longestDescription = 16 << 20;
constexpr std::string_view unitFolder = "/etc/systemd/system";
constexpr std::string_view madeMark = "# Made by ostrelcommon from ";

/// Who can change a description chooses which service is switched and what it runs: only root and this process's own
/// user may.
bool isTrusted(const FileStatus& status) {
  return (status.user == 0 || status.user == ::geteuid()) && (status.mode & (S_IWGRP | S_IWOTH)) == 0;
}

struct Description {
  PlistValue job;  ///< null when the file cannot be read
  bool isTrusted = false;
};

Description readDescription(const std::string& path) {
  const FileDescriptor file = openRegularFile(path);
  const auto status = file ? descriptorStatus(file.get()) : std::nullopt;
  const auto bytes = status ? readToEnd(file.get(), longestDescription) : std::nullopt;
  if (!bytes) return {};
  return {readPropertyList(*bytes), isTrusted(*status)};
}

std::string unitFile(const std::string& unit) { return hostPath(unitFolder) + "/" + unit; }

/// Whether the unit was made here, from whatever description: no link, which would be an alias or a mask.
bool wasMadeHere(const std::string& unit) {
  const FileDescriptor file = openRegularFile(unitFile(unit), FinalLink::refused);
  const auto text = file ? readToEnd(file.get(), longestDescription) : std::nullopt;
  return text && text->starts_with(madeMark);
}

}  // namespace

bool SystemdServices::isAvailable() { return isProgram(places_.tool); }

bool SystemdServices::isRunning() const { return hostRoot().empty() && isDirectory(places_.runningMark); }

std::optional<TaskOutcome> SystemdServices::run(std::vector<std::string> arguments,
                                                std::chrono::milliseconds limit) const {
  Task task;
  task.path = places_.tool;
  task.arguments = {"--no-pager", "--no-ask-password"};
  if (!isRunning()) task.arguments.push_back("--root=" + (hostRoot().empty() ? "/" : hostRoot()));
  task.arguments.insert(task.arguments.end(), std::make_move_iterator(arguments.begin()),
                        std::make_move_iterator(arguments.end()));
  // Not this process's environment, which could send it to another service manager (systemd(1)).
  task.environment = {{"PATH=/usr/sbin:/usr/bin:/sbin:/bin", "LC_ALL=C.UTF-8"}};
  task.output = TaskStream::captured;
  task.errors = TaskStream::discarded;
  task.outputLimit = longestAnswer;
  task.timeLimit = limit;
  auto outcome = TaskRunner::current().run(task);
  if (outcome && (outcome->timedOut || outcome->outputCut)) outcome.reset();
  return outcome;
}

/// Whether systemd knows a unit file of that name, whatever its state. Absent when it cannot be asked.
std::optional<bool> SystemdServices::hasUnit(const std::string& unit) const {
  const std::string script = hostPath("/etc/init.d/") + std::string(labelOfUnit(unit));
  if (isProgram(script)) return true;  // a unit made of it is not in the files
  const auto outcome = run({"is-enabled", "--", unit}, places_.askLimit);
  if (!outcome) return std::nullopt;
  return !outcome->output.empty() && !outcome->output.starts_with("not-found");  // said since systemd 253
}

/// Puts the unit's file there, unless it is already, and lets systemd know.
bool SystemdServices::makeUnit(const std::string& unit, const std::string& text) const {
  const std::string file = unitFile(unit);
  if (readWholeFile(file, longestDescription) == text) return true;
  if (!makeDirectories(hostPath(unitFolder)) || !writeFileAtomically(file, text, {.followLink = false})) return false;
  if (!isRunning()) return true;
  const auto reloaded = run({"daemon-reload"}, places_.switchLimit);
  return reloaded && reloaded->status == 0;
}

bool SystemdServices::setEnabled(const std::string& path, bool enable) {
  const Description description = readDescription(path);
  const PlistValue label = description.job.get("Label");
  // Whoever wrote the label would say which service is switched, any of the machine's.
  if (label.isString() && !description.isTrusted) return false;
  const auto unit = label.isString() ? unitOfLabel(label.stringValue()) : unitOfPath(path);
  if (!unit || !isAvailable()) return false;
  const auto isThere = hasUnit(*unit);
  if (!isThere) return false;
  if (label.isString() && (!*isThere || (enable && wasMadeHere(*unit)))) {
    const auto text = unitText(description.job, std::string(madeMark) + quotedWord(path));
    if (!text || !makeUnit(*unit, *text)) return false;
  }
  std::vector<std::string> arguments{enable ? "enable" : "disable"};
  if (isRunning()) arguments.emplace_back("--now");
  arguments.insert(arguments.end(), {"--", *unit});
  const auto outcome = run(std::move(arguments), places_.switchLimit);
  return outcome && outcome->status == 0;
}

bool SystemdServices::isEnabled(const std::string& label) {
  const auto unit = label.starts_with('/') ? unitOfPath(label) : unitOfLabel(label);
  if (!unit || !isAvailable()) return false;
  const auto outcome = run({"is-enabled", "--", *unit}, places_.askLimit);
  return outcome && outcome->status == 0;
}

std::optional<LaunchData::Dictionary> SystemdServices::jobs(const std::string& pattern) const {
  if (!isRunning() || !isProgram(places_.tool)) return std::nullopt;
  const auto outcome = run({"show", "--property=" + std::string(jobProperties), "--", pattern}, places_.askLimit);
  if (!outcome || outcome->status != 0) return std::nullopt;
  return jobsFrom(outcome->output);
}

std::optional<LaunchData> SystemdServices::send(const LaunchData& request) {
  if (const auto* question = std::get_if<std::string>(&request.value); question != nullptr && *question == "GetJobs") {
    auto all = jobs("*.service");
    if (!all) return std::nullopt;
    return LaunchData{std::move(*all)};
  }
  const auto* questions = std::get_if<LaunchData::Dictionary>(&request.value);
  const bool isGetJob = questions != nullptr && questions->size() == 1 && questions->front().key == "GetJob";
  const auto* label = isGetJob ? std::get_if<std::string>(&questions->front().value.value) : nullptr;
  if (label == nullptr) return LaunchData{LaunchData::ErrorNumber{EINVAL}};
  const auto unit = unitOfLabel(*label);
  if (!unit) return LaunchData{LaunchData::ErrorNumber{ESRCH}};
  auto found = jobs(*unit);
  if (!found) return std::nullopt;
  if (found->empty()) return LaunchData{LaunchData::ErrorNumber{ESRCH}};
  return std::move(found->front().value);
}

}  // namespace ostrel::detail

namespace ostrel {

std::atomic<ServiceManager*>& ServiceManager::slot() {
  static detail::SystemdServices systemd;
  static std::atomic<ServiceManager*> slot{&systemd};
  return slot;
}

}  // namespace ostrel
