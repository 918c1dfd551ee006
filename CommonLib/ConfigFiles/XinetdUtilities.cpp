#include "ConfigFiles/XinetdUtilities.h"

#include <signal.h>

#include <utility>

#include "ConfigFiles/Internal/TextLines.h"
#include "ConfigFiles/Internal/XinetdText.h"
#include "Containers/Format.h"
#include "Containers/LeadingInteger.h"
#include "DaemonServices/ProcessControl.h"
#include "Platform/HostRoot.h"
#include "Platform/ProcessSignals.h"
#include "Platform/SystemLog.h"

namespace ostrel {
namespace {

constexpr const char* pidFile = "/var/run/xinetd.pid";
constexpr const char* program = "/usr/sbin/xinetd";

constexpr int errorPriority = static_cast<int>(LogLevel::error);
constexpr int noticePriority = static_cast<int>(LogLevel::notice);
constexpr int informationPriority = static_cast<int>(LogLevel::info);

bool isFileName(const PlistValue& name) {
  const std::string_view text = name.stringValue();
  return !text.empty() && text != "." && text != ".." &&
         text.find_first_of(std::string_view("/\0", 2)) == std::string_view::npos;
}

// Whether a line can begin with the key and be read back as its entry.
bool isEntryKey(const PlistValue& key) {
  const std::string_view text = key.stringValue();
  return detail::fitsOneLine(key) && !text.empty() && text.find_first_of(" \t") == std::string_view::npos &&
         std::string_view("#{}").find(text.front()) == std::string_view::npos;
}

PlistValue textOfFile(const std::string& path) {
  const auto text = detail::readConfigurationText(path);
  return text ? PlistValue(*text) : PlistValue();
}

}  // namespace

/// A change that was worked out, and what there is to tell of it.
struct XinetdUtilities::Plan {
  FileChange change;
  bool hasEntryAlready = false;
  std::size_t deletedEntries = 0;
};

XinetdUtilities::XinetdUtilities(const PlistValue& serviceName, const PlistValue& logPrefix)
    : fServiceName(serviceName),
      fFilePath(isFileName(serviceName) ? hostPath(format("/etc/xinetd.d/%@", serviceName)) : ""),
      fPid(textOfFile(hostPath(pidFile))),
      fLogger(SysLogger::loggerWithPrefix(logPrefix.description())) {}

std::shared_ptr<XinetdUtilities> XinetdUtilities::xinetdUtilitiesWithServiceName(const PlistValue& serviceName,
                                                                                 const PlistValue& logPrefix) {
  return std::make_shared<XinetdUtilities>(serviceName, logPrefix);
}

bool XinetdUtilities::getValueForKey(const PlistValue& key, PlistValue* value) const {
  if (!key.isString() || value == nullptr) return false;
  const auto text = detail::readConfigurationText(fFilePath);
  if (!text) return false;
  *value = PlistValue(detail::xinetdValue(*text, fServiceName.stringValue(), key.stringValue()).value_or(""));
  return true;
}

std::optional<XinetdUtilities::Plan> XinetdUtilities::planEntry(const PlistValue& key,
                                                                const PlistValue& newValue) const {
  if (!isEntryKey(key) || !detail::fitsOneLine(newValue)) return std::nullopt;
  const auto text = detail::readConfigurationText(fFilePath);
  if (!text) return std::nullopt;
  const detail::XinetdEdit edit =
      detail::xinetdWithEntry(*text, fServiceName.stringValue(), key.stringValue(), newValue.stringValue());
  auto change = detail::readableChange(fFilePath, text, edit.hasEntryAlready ? *text : edit.text);
  return change ? std::optional(Plan{std::move(*change), edit.hasEntryAlready}) : std::nullopt;
}

std::optional<XinetdUtilities::Plan> XinetdUtilities::planRemoval(const PlistValue& key) const {
  if (!key.isString()) return std::nullopt;
  const auto text = detail::readConfigurationText(fFilePath);
  if (!text) return std::nullopt;
  detail::XinetdEdit edit = detail::xinetdWithoutEntry(*text, fServiceName.stringValue(), key.stringValue());
  auto change = detail::readableChange(fFilePath, text, std::move(edit.text));
  return change ? std::optional(Plan{std::move(*change), false, edit.deletedEntries}) : std::nullopt;
}

bool XinetdUtilities::setOrAddEntryForKey(const PlistValue& key, const PlistValue& newValue) {
  const MutexLock lock(detail::editing());
  const auto plan = planEntry(key, newValue);
  if (!plan) return false;
  if (!plan->hasEntryAlready) return plan->change.write();
  fLogger->messageWithPriority(informationPriority, "New setting equals old setting for key '%@' value '%@'", key,
                               newValue);
  return true;
}

bool XinetdUtilities::removeEntryForKey(const PlistValue& key) {
  const MutexLock lock(detail::editing());
  const auto plan = planRemoval(key);
  if (!plan) return false;
  for (std::size_t i = 0; i < plan->deletedEntries; ++i)
    fLogger->messageWithPriority(informationPriority, "Deleting entry for key '%@'", key);
  return plan->change.write();
}

std::optional<FileChange> XinetdUtilities::changeOfEntryForKey(const PlistValue& key,
                                                               const PlistValue& newValue) const {
  auto plan = planEntry(key, newValue);
  return plan ? std::optional(std::move(plan->change)) : std::nullopt;
}

std::optional<FileChange> XinetdUtilities::changeWithoutEntryForKey(const PlistValue& key) const {
  auto plan = planRemoval(key);
  return plan ? std::optional(std::move(plan->change)) : std::nullopt;
}

bool XinetdUtilities::hup() const {
  const int pid = leadingInt(fPid.stringValue());
  if (pid == 0) {
    fLogger->messageWithPriority(noticePriority, "Invalid pid; launching xinetd");
    return _launchXinetd();
  }
  // By its identity: a negative number would name a group of processes.
  const auto process = pid > 0 ? ProcessTable::current().find(pid) : std::nullopt;
  if (!process || !ProcessSignals::current().send(process->identity(), SIGHUP)) {
    fLogger->messageWithPriority(errorPriority, "Unable to hup xinetd - probably bad pid");
    return false;
  }
  fLogger->messageWithPriority(noticePriority, "hup signal sent to xinetd, pid=%d", pid);
  return true;
}

bool XinetdUtilities::_launchXinetd() {
  // Not waited for: xinetd goes on running.
  return start_task(hostPath(program), PlistValue::arrayOf({"-inetd_compat", "-pidfile", hostPath(pidFile)}));
}

}  // namespace ostrel
