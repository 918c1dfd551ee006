#include "ostrelctl/SharedOptions.h"

#include <CLI/CLI.hpp>

#include "Shared/NumberRange.h"

namespace ostrel {

void addSharedOptions(CLI::App& app, SharedOptions& options) {
  app.add_option("--host", options.host, "Host that the daemon runs on");
  app.add_option("--port", options.port, "Port that it listens on")->check(CLI::Range(1, 65535));
  app.add_option("--root", options.root, "Root folder that the daemon of this machine was started with");
  auto* session = app.add_option("--session", options.sessionFile,
                                 "File with the session identifier to present; \"-\": standard input")
                      ->type_name("FILE");
  auto* user = app.add_option("--user", options.user, "Name to sign in with; the password is asked for");
  user->excludes(session);
  app.add_option("--password-file", options.passwordFile,
                 "File with that name's password, by default this user's; \"-\": standard input")
      ->type_name("FILE")
      ->excludes(session);
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
  const auto form = [&](const char* flag, OutputForm chosen, const char* text) {
    output->add_flag_callback(
        flag, [&options, chosen] { options.form = chosen; }, text);
  };
  form("--xml", OutputForm::xml, "Print the reply as an XML property list");
  form("--json", OutputForm::json, "Print the reply as JSON");
  form("--raw", OutputForm::raw, "Print the reply's bytes as they came");
}

}  // namespace ostrel
