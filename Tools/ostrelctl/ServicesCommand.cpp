#include "ostrelctl/ServicesCommand.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <string>
#include <vector>

#include "Containers/Format.h"
#include "DaemonServices/LaunchDaemons.h"
#include "Platform/HostRoot.h"
#include "ostrelctl/Exchange.h"
#include "ostrelctl/TextForm.h"

namespace ostrel {
namespace {

constexpr const char* details =
    "\nSERVICE is the name of a job, com.example.maild or ssh, or the absolute path of its job description file.\n"
    "A description that has no unit yet gets one when it is switched on. With --root nothing is started or stopped.\n"
    "\nExit status: 0 done, 1 not possible, 2 wrong usage.\n"
    "\nExamples:\n"
    "  ostrelctl services enable /Library/LaunchDaemons/com.example.maild.plist\n"
    "  ostrelctl services show ssh --json\n"
    "  ostrelctl services list\n";

constexpr auto notPossible = static_cast<ExitStatus>(1);

std::string lineOf(std::string_view label, const PlistValue& job) {
  const PlistValue process = job.get("PID");
  // A label comes from the service manager: no control characters to the terminal.
  return format("%-8s %-10s %-9s %s\n", process.isNull() ? "-" : process.description(),
                job.get("ActiveState").stringValue(), job.get("UnitFileState").stringValue(),
                readableText(PlistValue(label)));
}

class ServicesCommand final : public Subcommand {
 public:
  void declare(CLI::App& app) override {
    app.footer(details);
    app.require_subcommand(1);
    declareOne(app, "list", "Print what the service manager has loaded: process, state, at start, name");
    for (CLI::App* const verb :
         {declareOne(app, "show", "Print whether a service is enabled, and how it fares"),
          declareOne(app, "enable", "Switch a service on, now and at each start of the machine"),
          declareOne(app, "disable", "Switch a service off, now and at each start of the machine")})
      verb->add_option("SERVICE", service_, "Name, or path of a job description file")->required();
  }

  int run(const SharedOptions& shared) override {
    if (!shared.root.empty()) setHostRoot(shared.root);
    if (!IsLaunchDaemonAvailable()) return fail(notPossible, "this machine has no service manager that is known");
    if (verb_ == "list") return list(shared.form);
    if (verb_ == "show") return show(shared.form);
    const bool enable = verb_ == "enable";
    if (SetLaunchDaemonServiceState(service_, enable)) return done;
    return fail(notPossible, format("%s could not be switched %s", service_, enable ? "on" : "off"));
  }

 private:
  CLI::App* declareOne(CLI::App& app, const char* name, const char* summary) {
    CLI::App* const verb = app.add_subcommand(name, summary);
    verb->callback([this, name] { verb_ = name; });  // the parser does not outlive the parsing
    return verb;
  }

  static int list(OutputForm form) {
    const PlistValue jobs = GetLaunchDaemonAllServicesInfo();
    if (jobs.isNull()) return fail(notPossible, "no service manager answers");
    if (form != OutputForm::text) return print(textInForm(jobs, "", form));
    std::vector<PlistEntry> sorted(jobs.entries().begin(), jobs.entries().end());
    std::ranges::sort(sorted, {}, [](const PlistEntry& entry) { return entry.keyText(); });
    std::string lines;
    for (const PlistEntry& entry : sorted) lines += lineOf(entry.keyText(), entry.value);
    return print(lines);
  }

  int show(OutputForm form) const {
    PlistValue page = PlistValue::mutableDictionaryOf({{"enabled", GetLaunchDaemonServiceState(service_)}});
    page.set("job", GetLaunchDaemonServiceInfo(service_));
    return print(textInForm(page, "", form));
  }

  std::string verb_;
  std::string service_;
};

}  // namespace

std::unique_ptr<Subcommand> makeServicesCommand() { return std::make_unique<ServicesCommand>(); }

}  // namespace ostrel
