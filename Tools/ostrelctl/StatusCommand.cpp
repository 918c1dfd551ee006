#include "ostrelctl/StatusCommand.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <string>

#include "Containers/Format.h"
#include "Shared/DaemonModule.h"
#include "ostrelctl/Exchange.h"
#include "ostrelctl/TextForm.h"

namespace ostrel {
namespace {

/// "2 d 3 h", "3 h 12 min", "12 min 5 s", "5.2 s".
std::string durationText(double seconds) {
  if (!(seconds >= 60)) return format("%.1f s", seconds);
  const auto whole = static_cast<long long>(std::min(seconds, 1e15));
  if (whole < 3600) return format("%lld min %lld s", whole / 60, whole % 60);
  if (whole < 86400) return format("%lld h %lld min", whole / 3600, whole % 3600 / 60);
  return format("%lld d %lld h", whole / 86400, whole % 86400 / 3600);
}

PlistValue runningRequests(const PlistValue& requests) {
  PlistValue lines = PlistValue::mutableArray();
  for (const PlistValue& request : requests.elements()) {
    lines.append(format("%s %s, for %s", request.get("module").stringValue(), request.get("command").stringValue(),
                        durationText(request.get("ageSeconds").doubleValue())));
  }
  return lines;
}

PlistValue notLoaded(const PlistValue& failures) {
  PlistValue lines = PlistValue::mutableArray();
  for (const PlistValue& failure : failures.elements()) {
    lines.append(format("%s: %s", failure.get("path").stringValue(), failure.get("reason").stringValue()));
  }
  return lines;
}

class StatusCommand : public Subcommand {
 public:
  void declare(CLI::App& app) override {
    app.footer("\nExamples:\n  ostrelctl status\n  ostrelctl status --json | jq .outstandingRequests\n");
  }

  int run(const SharedOptions& shared) override {
    int exitStatus = done;
    auto answer = ask(shared, daemonModule::name, daemonModule::request(daemonModule::getStatus), exitStatus);
    if (!answer) return exitStatus;
    const bool isPage = shared.form == OutputForm::text && answer->reply.get("error").isNull();
    if (isPage) answer->reply = statusPage(answer->reply);
    return printAnswer(*answer, shared.form, daemonModule::name, daemonModule::getStatus);
  }
};

}  // namespace

PlistValue statusPage(const PlistValue& status) {
  PlistValue page = PlistValue::mutableDictionary();
  page.set("daemon",
           format("ostreld %s, process %lld", status.get("version").stringValue(), status.get("pid").int64Value()));
  page.set("up", format("%s, since %s", durationText(status.get("uptimeSeconds").doubleValue()),
                        dateText(status.get("startDate").dateValue())));
  const PlistValue interval = status.get("idleIntervalSeconds");
  page.set("idle passes", interval.doubleValue() > 0
                              ? format("%lld, one every %s", status.get("idlePasses").int64Value(),
                                       durationText(interval.doubleValue()))
                              : std::string("none"));
  page.set("network changes", status.get("networkIsWatched").boolValue()
                                  ? PlistValue(format("%lld", status.get("networkChanges").int64Value()))
                                  : PlistValue("not watched"));
  const PlistValue connections = status.get("connections");
  page.set("connections",
           format("%lld of %lld", connections.get("open").int64Value(), connections.get("limit").int64Value()));
  page.set("modules", status.get("modules"));
  if (status.get("modulesNotLoaded").count() > 0) page.set("not loaded", notLoaded(status.get("modulesNotLoaded")));
  page.set("running requests", runningRequests(status.get("outstandingRequests")));
  return page;
}

std::unique_ptr<Subcommand> makeStatusCommand() { return std::make_unique<StatusCommand>(); }

}  // namespace ostrel
