#include "DaemonServices/LaunchDaemons.h"

#include <algorithm>
#include <new>
#include <optional>
#include <string>
#include <string_view>

#include "Containers/PropertyList.h"
#include "DaemonServices/ProcessControl.h"
#include "Platform/Files.h"
#include "Platform/HostRoot.h"
#include "Platform/LaunchTool.h"
#include "Platform/RegularFile.h"
#include "Platform/ServiceManager.h"

namespace ostrel {
namespace {

constexpr std::string_view jobFolder = "/System/Library/LaunchDaemons/";
constexpr std::string_view binaryMark = "bplist00";
constexpr const char* argumentsKey = "ProgramArguments";
constexpr std::size_t largestFile = 16 << 20;

bool isPath(std::string_view service) { return service.starts_with('/'); }

/// The job description file of a service; absent for what names none.
std::optional<std::string> jobFile(std::string_view service) {
  if (service.empty() || service.find('\0') != std::string_view::npos) return std::nullopt;
  if (isPath(service)) return std::string(service);
  if (service.find('/') != std::string_view::npos) return std::nullopt;
  const std::string stem = hostPath(jobFolder) + std::string(service);
  if (!fileExists(stem + ".plist") && fileExists(stem + ".xml")) return stem + ".xml";
  return stem + ".plist";
}

struct JobDescription {
  PlistValue job;  ///< null when it cannot be read
  bool isBinary = false;
};

JobDescription readJob(std::string_view path) {
  const FileDescriptor file = openRegularFile(std::string(path));
  const auto bytes = file ? readToEnd(file.get(), largestFile) : std::nullopt;
  if (!bytes) return {};
  PlistValue job = readPropertyList(*bytes, PlistForm::mutableContainers);
  if (!job.isDictionary()) job = PlistValue();
  return {std::move(job), bytes->starts_with(binaryMark)};
}

/// What a launcher answers to {"GetJob": label}, or to "GetJobs" without a label.
std::optional<LaunchData> ask(std::optional<std::string> label) {
  if (!label) return ServiceManager::current().send({std::string("GetJobs")});
  return ServiceManager::current().send({LaunchData::Dictionary{{"GetJob", {std::move(*label)}}}});
}

/// The same from a list of all jobs.
std::optional<LaunchData> askTool(const std::string& tool, const std::optional<std::string>& label) {
  auto jobs = jobsOfLaunchTool(tool);
  if (!jobs || !label) return jobs;
  auto& members = std::get<LaunchData::Dictionary>(jobs->value);
  const auto job = std::ranges::find(members, *label, &LaunchData::Member::key);
  if (job == members.end()) return std::nullopt;
  return std::move(job->value);
}

PlistValue answer(std::optional<std::string> label) {
  const auto tool = launchTool();
  const auto reply = tool ? askTool(*tool, label) : ask(std::move(label));
  const bool isDictionary = reply && std::holds_alternative<LaunchData::Dictionary>(reply->value);
  return isDictionary ? _CFCopyLaunchData(&*reply) : PlistValue();
}

}  // namespace

bool IsLaunchDaemonAvailable() { return launchTool() || ServiceManager::current().isAvailable(); }

bool SetLaunchDaemonServiceState(const PlistValue& service, bool enable) try {
  if (!IsLaunchDaemonAvailable()) return false;
  const auto path = jobFile(service.stringValue());
  if (!path) return false;
  if (const auto tool = launchTool())
    return launch_task(*tool, PlistValue::arrayOf({enable ? "load" : "unload", "-w", *path})) == 0;
  return ServiceManager::current().setEnabled(*path, enable);
} catch (const std::bad_alloc&) {
  return false;
}

bool GetLaunchDaemonServiceState(const PlistValue& service) try {
  PlistValue label = service;
  if (isPath(service.stringValue())) {
    const PlistValue job = readJob(service.stringValue()).job;
    if (!job.isNull()) label = job.get("Label");
  }
  if (!label.isString()) return false;
  if (launchTool()) return !GetLaunchDaemonServiceInfo(label).isNull();
  return ServiceManager::current().isEnabled(std::string(label.stringValue()));
} catch (const std::bad_alloc&) {
  return false;
}

PlistValue GetLaunchDaemonServiceConfigArgs(const PlistValue& path) try {
  return readJob(path.stringValue()).job.get(argumentsKey);
} catch (const std::bad_alloc&) {
  return {};
}

bool SetLaunchDaemonServiceConfigArgs(const PlistValue& path, const PlistValue& arguments) try {
  if (!path.isString() || !arguments.isArray()) return false;
  JobDescription description = readJob(path.stringValue());
  if (!description.job.set(argumentsKey, arguments)) return false;
  const auto bytes =
      description.isBinary ? writeBinaryPropertyList(description.job) : writeXmlPropertyList(description.job);
  return bytes && writeFileAtomically(std::string(path.stringValue()), *bytes);
} catch (const std::bad_alloc&) {
  return false;
}

PlistValue GetLaunchDaemonServiceInfo(const PlistValue& label) try {
  return label.isString() ? answer(std::string(label.stringValue())) : PlistValue();
} catch (const std::bad_alloc&) {
  return {};
}

PlistValue GetLaunchDaemonAllServicesInfo() try { return answer(std::nullopt); } catch (const std::bad_alloc&) {
  return {};
}

}  // namespace ostrel
