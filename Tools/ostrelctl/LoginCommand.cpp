#include "ostrelctl/LoginCommand.h"

#include <CLI/CLI.hpp>
#include <cerrno>
#include <cstring>

#include "Containers/Format.h"
#include "Platform/HostRoot.h"
#include "ostrelctl/Exchange.h"
#include "ostrelctl/JsonForm.h"

namespace ostrel {
namespace {

class LoginCommand final : public Subcommand {
 public:
  void declare(CLI::App& app) override {
    app.footer(
        "\nAsks for the password of --user, by default of this user's name, and keeps the session that the daemon\n"
        "begins in a file that this user alone may read, for later commands to the same daemon. It ends with\n"
        "'ostrelctl logout', when it is not used for a while, and with the daemon.\n"
        "\nExample:\n"
        "  ostrelctl login --user ada && ostrelctl status && ostrelctl logout\n");
  }

  int run(const SharedOptions& shared) override {
    SharedOptions options = shared;
    if (options.user.empty()) options.user = ownUserName();
    int exitStatus = done;
    auto exchange = Exchange::open(options, exitStatus);
    if (!exchange) return exitStatus;
    const auto identifier = exchange->signIn(exitStatus);
    if (!identifier) return exitStatus;
    const SavedSession& saved = exchange->savedSession();
    if (!saved.write(*identifier)) {
      const int reason = errno;
      std::string unread;
      exchange->signOut(unread);
      return fail(noReply, format("cannot write %s: %s", saved.path(), std::strerror(reason)));
    }
    const std::string name = identifier->substr(0, identifier->find('@'));
    if (options.form == OutputForm::text) return print(format("signed in as %s\n", name));
    const PlistValue told = PlistValue::dictionaryOf({{"user", name}});
    return print(textInForm(told, jsonText(told), options.form));
  }
};

class LogoutCommand final : public Subcommand {
 public:
  void declare(CLI::App& app) override { app.footer("\nEnds the session that 'ostrelctl login' began.\n"); }

  int run(const SharedOptions& shared) override {
    int exitStatus = done;
    auto exchange = Exchange::open(shared, exitStatus);
    if (!exchange) return exitStatus;
    if (!exchange->holdsSavedSession()) return fail(wrongUsage, "you are not signed in");
    const SavedSession& saved = exchange->savedSession();
    const bool removed = saved.remove();
    if (!removed) return fail(noReply, format("cannot remove %s: %s", saved.path(), std::strerror(errno)));
    std::string fault;
    if (!exchange->signOut(fault)) {
      return fail(noReply, format("the session is forgotten here, but lasts until it expires: %s", fault));
    }
    if (shared.form == OutputForm::text) return print("signed out\n");
    const PlistValue told = PlistValue::dictionaryOf({{"ended", true}});
    return print(textInForm(told, jsonText(told), shared.form));
  }
};

}  // namespace

std::unique_ptr<Subcommand> makeLoginCommand() { return std::make_unique<LoginCommand>(); }
std::unique_ptr<Subcommand> makeLogoutCommand() { return std::make_unique<LogoutCommand>(); }

}  // namespace ostrel
