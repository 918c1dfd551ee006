#include "ostrelctl/ControlOptions.h"

#include <CLI/CLI.hpp>

#include "Shared/NumberRange.h"

namespace ostrel {
namespace {

constexpr const char* description =
    "ostrelctl, the command-line client of ostreld: sends one command to a module and prints the reply.\n";
constexpr const char* details =
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
    "TCP on all other ports; credentials go over plain TCP to this machine only.\n"
    "\n"
    "JSON: a date becomes text like 2011-08-15T16:08:25Z, data becomes Base64 text. --xml keeps every type.\n"
    "\n"
    "Exit status: 0 done, 1 the reply holds an error, 2 wrong usage, 3 no reply. The reason goes to standard error.\n"
    "\n"
    "Examples:\n"
    "  ostrelctl ostrel_sample getState\n"
    "  ostrelctl ostrel_sample setState state=START\n"
    "  ostrelctl ostrel_sample tailFile identifier=packages offset:int=0 amount:int=2000 "
    "withFilters:json='[\"install\"]'\n"
    "  ostrelctl --json ostrel_sample getInterfaces | jq '.interfaces[].name'\n";

}  // namespace

std::optional<ControlOptions> readControlOptions(int argc, const char* const* argv, int& exitStatus) {
  ControlOptions options;
  options.timeout = 300;
  bool xml = false;
  bool json = false;
  bool raw = false;

  CLI::App app(description, "ostrelctl");
  app.footer(details);
  app.get_formatter()->column_width(32);
  app.add_option("MODULE", options.module, "Module to address, for example ostrel_sample")->required();
  app.add_option("COMMAND", options.command, "Command that the module is to run, for example getState")->required();
  app.add_option("ARGUMENT", options.words, "Arguments of the command, see below");

  app.add_option("--host", options.host, "Host that the daemon runs on");
  app.add_option("--port", options.port, "Port that it listens on")->check(CLI::Range(1, 65535));
  app.add_option("--root", options.root, "Root folder that the daemon of this machine was started with");
  auto* session = app.add_option("--session", options.sessionFile,
                                 "File with the session identifier to present; \"-\": standard input")
                      ->type_name("FILE");
  auto* user = app.add_option("--user", options.user, "Name to present; the password is asked for");
  user->excludes(session);
  app.add_option("--password-file", options.passwordFile, "File with that name's password; \"-\": standard input")
      ->type_name("FILE")
      ->needs(user);
  auto* verify = app.add_flag("--verify-certificate", options.verifyCertificate,
                              "Refuse a certificate that no trusted root vouches for; always so for other machines");
  app.add_flag("--insecure", options.insecure,
               "Accept any certificate, and send credentials to other machines in the clear")
      ->excludes(verify);
  app.add_option("--timeout", options.timeout, "Seconds to wait for the reply; 0: without limit")
      ->check(numberRange(0, 1e6))
      ->capture_default_str();

  auto* output =
      app.add_option_group("Output", "By default the reply is printed as readable text")->require_option(0, 1);
  output->add_flag("--xml", xml, "Print the reply as an XML property list");
  output->add_flag("--json", json, "Print the reply as JSON");
  output->add_flag("--raw", raw, "Print the reply's bytes as they came");

  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    exitStatus = app.exit(error) == 0 ? 0 : 2;
    return std::nullopt;
  }
  if (xml) options.form = OutputForm::xml;
  if (json) options.form = OutputForm::json;
  if (raw) options.form = OutputForm::raw;
  return options;
}

}  // namespace ostrel
