#include "ostreld/DaemonCommands.h"

#include <algorithm>

#include "Containers/ErrorCodes.h"
#include "Containers/Format.h"
#include "Platform/Clock.h"
#include "Platform/SystemLog.h"
#include "PluginFramework/BundleManager.h"
#include "Shared/DaemonModule.h"

namespace ostrel {
namespace {

PlistValue namesOf(const BundleManager& modules) {
  PlistValue names = PlistValue::mutableArray();
  for (const std::string& name : modules.moduleNames()) names.append(name);
  return names;
}

PlistValue failuresOf(const BundleManager& modules) {
  PlistValue failures = PlistValue::mutableArray();
  for (const auto& failure : modules.loadFailures()) {
    failures.append(PlistValue::dictionaryOf({{"path", failure.path}, {"reason", failure.reason}}));
  }
  return failures;
}

/// What runs now, never with its arguments.
PlistValue outstandingRequests(const BundleManager& modules) {
  const PlistDate now = Clock::current().now();
  PlistValue requests = PlistValue::mutableArray();
  const PlistValue markers = modules.CopyOutstandingRequests();
  for (const PlistValue& marker : markers.elements()) {
    const double age = now.secondsSince1970 - marker.get("Timestamp").dateValue().secondsSince1970;
    requests.append(PlistValue::dictionaryOf(
        {{"ageSeconds", std::max(age, 0.0)}, {"module", marker.get("Module")}, {"command", marker.get("Command")}}));
  }
  return requests;
}

}  // namespace

DaemonCommands::DaemonCommands(BundleManager& modules)
    : modules_(modules), startDate_(Clock::current().now()), started_(Clock::current().monotonic()) {}

PlistValue DaemonCommands::run(const PlistValue& request, const std::string& module, const std::string& user) {
  if (module != daemonModule::name) return modules_.doCommand(request, module, user);
  const PlistValue command = request.get("command");
  if (command == PlistValue(daemonModule::getStatus)) return status();
  return PlistValue::dictionaryOf({{"error", errors::unexpectedCommand}});
}

PlistValue DaemonCommands::status() const {
  const auto uptime = std::chrono::duration<double>(Clock::current().monotonic() - started_).count();
  return PlistValue::dictionaryOf({{"version", OSTREL_VERSION},
                                   {"pid", processId()},
                                   {"startDate", startDate_},
                                   {"uptimeSeconds", uptime},
                                   {"modules", namesOf(modules_)},
                                   {"modulesNotLoaded", failuresOf(modules_)},
                                   {"outstandingRequests", outstandingRequests(modules_)}});
}

}  // namespace ostrel
