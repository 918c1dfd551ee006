// The sample module: reports this machine, tails its logs, starts and stops a service, and keeps settings.
#include <sys/sysinfo.h>
#include <sys/utsname.h>

#include <cstdlib>
#include <string>

#include "Containers/ErrorCodes.h"
#include "DaemonServices/HistoryData.h"
#include "Heartbeat.h"
#include "HostFacts/FailoverState.h"
#include "HostFacts/InterfaceDictionary.h"
#include "LoadSampler.h"
#include "Network/InterfaceInfo.h"
#include "Platform/Files.h"
#include "Platform/HostRoot.h"
#include "Platform/SystemLog.h"
#include "PluginFramework/PluginRequestHandler.h"
#include "VolumeReport.h"

namespace ostrel::sample {
namespace {

// Where this module keeps things in its context, the dictionary that outlives requests and restarts.
constexpr const char* servicePid = "servicePid";
constexpr const char* serviceStarted = "serviceStarted";
constexpr const char* settings = "settings";

constexpr std::size_t mostSettings = 100;
constexpr double usualPeriod = 3600;  // seconds

struct Log {
  const char* identifier;
  const char* path;  // of this machine, whatever the host root: logs are other programs' files
};
constexpr Log logs[] = {
    {"system", "/var/log/syslog"},
    {"messages", "/var/log/messages"},
    {"packages", "/var/log/dpkg.log"},
    {"packageHistory", "/var/log/apt/history.log"},
    {"alternatives", "/var/log/alternatives.log"},
};

std::string heartbeatFile() { return hostPath("/var/ostreld/sample_heartbeat"); }

const char* roleName(std::int32_t failover) {
  if (failover == failoverMaster) return "master";
  return failover == failoverBackup ? "backup" : "none";
}

void addMachine(PlistValue& state) {
  utsname names{};
  if (uname(&names) == 0) {
    state.set("hostName", names.nodename);
    state.set("kernel", names.release);
  }
  double load[3] = {};
  if (getloadavg(load, 3) == 3) state.set("loadAverage", PlistValue::arrayOf({load[0], load[1], load[2]}));
  struct sysinfo machine {};
  if (sysinfo(&machine) != 0) return;
  state.set("upSeconds", machine.uptime);
  state.set("memoryBytes", std::uint64_t{machine.totalram} * machine.mem_unit);
  state.set("freeMemoryBytes", std::uint64_t{machine.freeram} * machine.mem_unit);
}

}  // namespace

class SampleHandler : public PluginRequestHandler {
 public:
  SampleHandler() : PluginRequestHandler(operations()) {}

  /// {"state": "RUNNING" or "STOPPED", ...}: the service, and facts of this machine.
  PlistValue getStateWithRequest(const PlistValue& /*request*/) {
    PlistValue state = PlistValue::mutableDictionary();
    const ProcessIdentity service = keptService();
    const bool running = isRunning(service);
    state.set("state", running ? "RUNNING" : "STOPPED");
    if (running) state.set("servicePid", service.id);
    if (const auto beat = fileStatus(heartbeatFile())) state.set("lastHeartbeat", PlistDate{beat->modified});
    addMachine(state);
    return state;
  }

  // The base class serves "setState" with these; as they return null, it answers with the state afterwards.
  PlistValue startServiceWithVariant(const PlistValue& /*variant*/) override {
    if (isRunning(keptService())) return {};
    const auto service = startHeartbeat(heartbeatFile());
    if (!service) {
      logNotice("[%d] ostrel_sample: the service did not start", processId());
      return responseForError(errors::cannotRunBundle);
    }
    PlistValue kept = context();
    kept.set(servicePid, service->id);
    kept.set(serviceStarted, service->started);
    kept.set("contextDirty", true);
    return {};
  }

  PlistValue stopServiceWithVariant(const PlistValue& /*variant*/) override {
    if (!stopHeartbeat(keptService())) return responseForError(errors::cannotRunBundle);
    PlistValue kept = context();
    if (!kept.remove(servicePid)) return {};
    kept.remove(serviceStarted);
    kept.set("contextDirty", true);
    return {};
  }

  /// Which logs "tailFile" may read: identifier to path. A command, too.
  PlistValue getLogPathsWithRequest(const PlistValue& /*request*/) {
    PlistValue paths = PlistValue::mutableDictionary();
    for (const Log& log : logs) {
      const auto status = fileStatus(log.path);
      if (status && status->isRegularFile()) paths.set(log.identifier, log.path);
    }
    return paths;
  }

  /// Takes a sample of how busy the machine is. The host calls this now and then, and writes the context back.
  int doIdleAtCount(int /*count*/) override {
    if (const char* code = do_update_history_data(sampler_.take(), context()))
      logNotice("[%d] ostrel_sample: no sample was taken: %s", processId(), code);
    return 0;
  }

  /// {"samples": those of the last "period" seconds (an hour if it is not given), newest first, "values": what their
  /// keys mean}; with a text "filter" only the values whose keys occur in it.
  PlistValue getHistoryWithRequest(const PlistValue& request) {
    PlistValue period = request.get("period");
    const PlistValue filter = request.get("filter");
    if (period.isNull()) period = usualPeriod;
    if (!period.isNumber() || (!filter.isNull() && !filter.isString()))
      return responseForError(errors::invalidArgument);
    PlistValue samples;
    if (const char* code = do_get_history_data(filter, period, samples, context())) return responseForError(code);
    if (samples.isNull()) samples = PlistValue::arrayOf({});  // none was taken yet
    return PlistValue::dictionaryOf({{"samples", samples}, {"values", LoadSampler::descriptions()}});
  }

  /// {"interfaces": descriptions}; with "resolve" true their names are looked up.
  PlistValue getInterfacesWithRequest(const PlistValue& request) {
    return PlistValue::dictionaryOf({{"interfaces", get_interfaces_info(request.get("resolve").boolValue())}});
  }

  /// {"hostName", "failoverRole": "none", "master" or "backup", "failoverState": its number, "interfaces": by name
  /// (HostFacts/InterfaceDictionary.h), "volumes": see VolumeReport.h}.
  PlistValue getHostWithRequest(const PlistValue& /*request*/) {
    PlistValue host = PlistValue::mutableDictionary();
    utsname names{};
    if (uname(&names) == 0) host.set("hostName", PlistValue::stringFromUTF8(names.nodename));
    const std::int32_t failover = NIGetFailoverState();
    host.set("failoverRole", roleName(failover));
    host.set("failoverState", failover);
    host.set("interfaces", NIGetInterfaceDictionary());
    // Volumes may take their time, and nothing more is wanted of the context: other requests need not wait.
    unlockContext();
    host.set("volumes", volumes_.take());
    return host;
  }

  /// {"echo": the request}.
  PlistValue echoWithRequest(const PlistValue& request) { return PlistValue::dictionaryOf({{"echo", request}}); }

  /// Keeps "value" under "name".
  PlistValue setSettingWithRequest(const PlistValue& request) {
    const PlistValue name = request.get("name");
    const PlistValue value = request.get("value");
    if (!name.isString() || value.isNull()) return responseForError(errors::invalidArgument);
    PlistValue kept = context().get(settings);
    if (!kept.isDictionary() || !kept.isMutable()) kept = PlistValue::mutableDictionary();
    if (!kept.contains(name.stringValue()) && kept.count() >= mostSettings) {
      return responseForError(errors::invalidArgument);
    }
    kept.set(name.stringValue(), value.deepMutableCopy());
    context().set(settings, kept);
    context().set("contextDirty", true);
    return getSettingWithRequest(request);
  }

  /// {"name", "value"}; without a "value" when there is none of that name.
  PlistValue getSettingWithRequest(const PlistValue& request) {
    const PlistValue name = request.get("name");
    if (!name.isString()) return responseForError(errors::invalidArgument);
    // A response must share nothing with the context: the next request may change that while this one is sent.
    const PlistValue value = context().get(settings).get(name.stringValue()).deepMutableCopy();
    return PlistValue::dictionaryOf({{"name", name}, {"value", value}});
  }

 private:
  /// The service as the context remembers it, whether it still runs or not.
  ProcessIdentity keptService() const {
    const PlistValue kept = context();
    return {static_cast<pid_t>(kept.get(servicePid).int64Value()), kept.get(serviceStarted).uint64Value()};
  }

  LoadSampler sampler_;
  VolumeReport volumes_;

  static const OperationTable& operations() {
    static const OperationTable table{
        {"getStateWithRequest:", &SampleHandler::getStateWithRequest},
        {"getLogPathsWithRequest:", &SampleHandler::getLogPathsWithRequest},
        {"getHistoryWithRequest:", &SampleHandler::getHistoryWithRequest},
        {"getInterfacesWithRequest:", &SampleHandler::getInterfacesWithRequest},
        {"getHostWithRequest:", &SampleHandler::getHostWithRequest},
        {"echoWithRequest:", &SampleHandler::echoWithRequest},
        {"setSettingWithRequest:", &SampleHandler::setSettingWithRequest},
        {"getSettingWithRequest:", &SampleHandler::getSettingWithRequest},
    };
    return table;
  }
};

}  // namespace ostrel::sample

OSTREL_MODULE(ostrel::sample::SampleHandler)
