#include "ostrelctl/ModuleCommand.h"

#include <CLI/CLI.hpp>

#include "Containers/Format.h"
#include "ostrelctl/Exchange.h"
#include "ostrelctl/RequestArguments.h"
#include "ostrelctl/Subcommands.h"

namespace ostrel {
namespace {

constexpr const char* description =
    "ostrelctl, the command-line client of ostreld: sends one command to a module and prints the reply.\n";
constexpr const char* details =
    "A module of such a name is reached by: ostrelctl [OPTIONS] -- MODULE COMMAND [ARGUMENT...]\n"
    "\nArguments are KEY[:TYPE]=VALUE, or KEY[:TYPE]@FILE for the content of a file (\"-\": standard input).\n"
    "  name=some text       text, the default type\n"
    "  offset:int=0         int, a whole number of 64 bits      ratio:real=0.5      real\n"
    "  resolve:bool=true    bool, true or false                 when:date=2011-08-15T16:08:25Z\n"
    "  key:data=AAEC        data, in Base64; key:data@FILE takes the bytes of the file\n"
    "  withFilters:json='[\"error\", \"disk\"]'                     json, for arrays, dictionaries and all else\n"
    "\n"
    "Without --host and --port the daemon of this machine is asked where it says that it listens. To a daemon on this\n"
    "machine the session identifier goes that it left in /var/ostreld/local_session. TLS is used on port 311 and "
    "plain\n"
    "TCP on all other ports; credentials go over plain TCP to this machine only. Other users sign in: ostrelctl "
    "login.\n"
    "\n"
    "JSON: a date becomes text like 2011-08-15T16:08:25Z, data becomes Base64 text. --xml keeps every type.\n"
    "\n"
    "Exit status: 0 done, 1 the reply holds an error, 2 wrong usage, 3 no reply, or none but a\n"
    "refusal. The reason goes to standard error.\n"
    "\n"
    "Examples:\n"
    "  ostrelctl ostrel_sample getState\n"
    "  ostrelctl ostrel_sample setState state=START\n"
    "  ostrelctl ostrel_sample tailFile identifier=packages offset:int=0 amount:int=2000 "
    "withFilters:json='[\"install\"]'\n"
    "  ostrelctl --json ostrel_sample getInterfaces | jq '.interfaces[].name'\n";

std::string footer() {
  std::string text = "\nOr ostrelctl [OPTIONS] SUBCOMMAND ..., each with a --help of its own:\n";
  for (const SubcommandEntry& entry : subcommandTable()) text += format("  %-29s %s\n", entry.name, entry.summary);
  return text + details;
}

}  // namespace

void ModuleCommand::declare(CLI::App& app) {
  app.description(description);
  app.footer(footer());
  app.add_option("MODULE", module_, "Module to address, for example ostrel_sample")->required();
  app.add_option("COMMAND", command_, "Command that the module is to run, for example getState")->required();
  app.add_option("ARGUMENT", words_, "Arguments of the command, see below");
}

int ModuleCommand::run(const SharedOptions& shared) {
  std::string fault;
  const auto request = requestFromWords(command_, words_, fault);
  if (!request) return fail(wrongUsage, fault);
  int exitStatus = done;
  const auto answer = ask(shared, module_, *request, exitStatus);
  return answer ? printAnswer(*answer, shared.form, module_, command_) : exitStatus;
}

}  // namespace ostrel
