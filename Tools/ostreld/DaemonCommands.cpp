#include "ostreld/DaemonCommands.h"

#include <algorithm>

#include "Containers/ErrorCodes.h"
#include "Containers/Format.h"
#include "Platform/Clock.h"
#include "Platform/SystemLog.h"
#include "PluginFramework/BundleManager.h"
#include "PluginFramework/Envelope.h"
#include "Shared/DaemonModule.h"
#include "ostreld/AuditLine.h"
#include "ostreld/ConnectionTable.h"
#include "ostreld/IdlePasses.h"
#include "ostreld/NetworkChanges.h"

namespace ostrel {
namespace {

PlistValue errorResponse(const char* code) { return PlistValue::dictionaryOf({{"error", code}}); }

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
  const PlistValue markers = modules.outstandingRequestsWithoutArguments();
  for (const PlistValue& marker : markers.elements()) {
    const double age = now.secondsSince1970 - marker.get("Timestamp").dateValue().secondsSince1970;
    requests.append(PlistValue::dictionaryOf(
        {{"ageSeconds", std::max(age, 0.0)}, {"module", marker.get("Module")}, {"command", marker.get("Command")}}));
  }
  return requests;
}

PlistValue countsOf(const ConnectionTable* connections) {
  if (connections == nullptr) return PlistValue::dictionaryOf({});
  return PlistValue::dictionaryOf({{"open", connections->count()},
                                   {"limit", connections->limits().total},
                                   {"limitPerPeer", connections->limits().perPeer}});
}

double seconds(std::chrono::nanoseconds duration) { return std::chrono::duration<double>(duration).count(); }

CommandName nameOf(const PlistValue& request, std::string_view module) {
  return {std::string(module), std::string(get_str_value_for_key(request, "command").stringValue())};
}

}  // namespace

/// A batch that does not run because a member is none needs no permission for that member: see `isRunnable`.
std::vector<CommandName> commandsOf(const PlistValue& request, const std::string& module) {
  if (module != daemonModule::name || request.get("command") != PlistValue(daemonModule::batch)) {
    return {nameOf(request, module)};
  }
  std::vector<CommandName> names;
  const PlistValue members = request.get("requestsArray");
  for (const PlistValue& member : members.elements())
    names.push_back(nameOf(member.get("request"), member.get("name").stringValue()));
  return names;
}

/// Places for the commands of one batch, taken for the life of this object.
class DaemonCommands::BatchPlaces {
 public:
  BatchPlaces(DaemonCommands& commands, std::size_t wanted) : commands_(commands) {
    const MutexLock lock(commands_.mutex_);
    if (wanted > commands_.limits_.atOnce - std::min(commands_.limits_.atOnce, commands_.runningInBatches_)) return;
    commands_.runningInBatches_ += wanted;
    taken_ = wanted;
    areTaken_ = true;
  }
  ~BatchPlaces() {
    const MutexLock lock(commands_.mutex_);
    commands_.runningInBatches_ -= taken_;
  }
  BatchPlaces(const BatchPlaces&) = delete;
  BatchPlaces& operator=(const BatchPlaces&) = delete;
  explicit operator bool() const { return areTaken_; }

 private:
  DaemonCommands& commands_;
  std::size_t taken_ = 0;
  bool areTaken_ = false;
};

DaemonCommands::DaemonCommands(BundleManager& modules, const IdlePasses& idle, const NetworkChanges& network,
                               const BatchLimits& limits)
    : modules_(modules),
      idle_(idle),
      network_(network),
      limits_(limits),
      startDate_(Clock::current().now()),
      started_(Clock::current().monotonic()) {}

PlistValue DaemonCommands::run(const PlistValue& request, const std::string& module, const CommandOrigin& origin) {
  if (module != daemonModule::name) return modules_.doCommand(request, module, origin.user);
  const PlistValue command = request.get("command");
  if (command == PlistValue(daemonModule::getStatus)) return status();
  if (command == PlistValue(daemonModule::batch)) return batch(request, origin);
  return errorResponse(errors::unexpectedCommand);
}

PlistValue DaemonCommands::status() const {
  return PlistValue::dictionaryOf({{"version", OSTREL_VERSION},
                                   {"pid", processId()},
                                   {"startDate", startDate_},
                                   {"uptimeSeconds", seconds(Clock::current().monotonic() - started_)},
                                   {"idlePasses", idle_.passes()},
                                   {"idleIntervalSeconds", seconds(idle_.interval())},
                                   {"networkIsWatched", network_.isWatching()},
                                   {"networkChanges", network_.posted()},
                                   {"modules", namesOf(modules_)},
                                   {"modulesNotLoaded", failuresOf(modules_)},
                                   {"outstandingRequests", outstandingRequests(modules_)},
                                   {"connections", countsOf(connections_)}});
}

/// Checked as a whole before anything runs: nobody wants half of a batch, and a member that the host stumbles over
/// would leave the others running without an answer.
bool DaemonCommands::isRunnable(const PlistValue& requests) const {
  return requests.isArray() && requests.count() <= limits_.perBatch &&
         std::ranges::all_of(requests.elements(), [](const PlistValue& member) {
           return member.get("name").isString() && member.get("request").get("command").isString();
         });
}

PlistValue DaemonCommands::batch(const PlistValue& request, const CommandOrigin& origin) {
  const PlistValue requests = request.get("requestsArray");
  if (!isRunnable(requests)) return errorResponse(errors::invalidArgument);
  const BatchPlaces places(*this, requests.count());
  if (!places) return errorResponse(errors::cannotRunBundle);
  return modules_.doBatchCommand(
      request, origin.user,
      [&origin](const BundleManager::BatchItem& item, const PlistValue& response, std::chrono::nanoseconds duration) {
        writeAudit({origin.user, origin.from, std::string(item.module.stringValue()),
                    std::string(item.request.get("command").stringValue()), outcomeOf(response), duration});
      });
}

}  // namespace ostrel
