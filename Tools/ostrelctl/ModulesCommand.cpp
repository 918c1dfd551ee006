#include "ostrelctl/ModulesCommand.h"

#include <CLI/CLI.hpp>
#include <string>

#include "Shared/DaemonModule.h"
#include "ostrelctl/Exchange.h"
#include "ostrelctl/TextForm.h"

namespace ostrel {
namespace {

/// What the reply to "getStatus" says about modules.
PlistValue modulesOf(const PlistValue& status) {
  return PlistValue::dictionaryOf(
      {{"modules", status.get("modules")}, {"modulesNotLoaded", status.get("modulesNotLoaded")}});
}

/// A name a line, for scripts; what was not loaded is no module.
std::string namesOf(const PlistValue& status) {
  std::string text;
  const PlistValue names = status.get("modules");
  for (const PlistValue& name : names.elements()) text += readableText(name);
  return text;
}

class ModulesCommand : public Subcommand {
 public:
  void declare(CLI::App& app) override {
    app.footer("\nPrints a name a line. --json and --xml also tell what was not loaded, and why.\n");
  }

  int run(const SharedOptions& shared) override {
    int exitStatus = done;
    const auto answer = ask(shared, daemonModule::name, daemonModule::request(daemonModule::getStatus), exitStatus);
    if (!answer) return exitStatus;
    if (!answer->reply.get("modules").isArray()) {
      return printAnswer(*answer, shared.form, daemonModule::name, daemonModule::getStatus);
    }
    if (shared.form == OutputForm::text) return print(namesOf(answer->reply));
    return print(textInForm(modulesOf(answer->reply), answer->bytes, shared.form));
  }
};

}  // namespace

std::unique_ptr<Subcommand> makeModulesCommand() { return std::make_unique<ModulesCommand>(); }

}  // namespace ostrel
