#include "ostrelctl/DirectoryCommand.h"

#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <optional>
#include <string>

#include "Containers/Format.h"
#include "Containers/Utf8.h"
#include "Platform/FileDescriptor.h"
#include "Platform/HostRoot.h"
#include "Shared/DaemonFiles.h"
#include "ostrelctl/Exchange.h"
#include "ostrelctl/LocalAdministrator.h"
#include "ostrelctl/PasswordPrompt.h"

namespace ostrel {
namespace {

constexpr const char* details =
    "\nChanges the records that ostreld keeps below its root; it need not run. Run it as the user that ostreld runs\n"
    "as. Passwords are asked for, or are the first line of --password-file (\"-\": standard input); they have at "
    "least\n"
    "8 bytes and 4 different characters.\n"
    "\nExamples:\n"
    "  ostrelctl directory init ada\n"
    "  ostrelctl directory passwd ada\n";

/// A name that a session identifier can carry, too.
bool isUserName(const std::string& name) {
  return !name.empty() && name.size() <= 255 && isValidUtf8(name) && std::ranges::none_of(name, [](char c) {
    return static_cast<unsigned char>(c) <= ' ' || c == 0x7F || c == '@' || c == ':' || c == '/';
  });
}

/// The daemon must be able to read what is written here, and nobody else.
std::optional<std::string> wrongUser() {
  const auto folder = fileStatus(daemonFiles::stateFolder());
  if (!folder || folder->user == geteuid()) return std::nullopt;
  return format("%s belongs to the user with the number %d: run this as that user", daemonFiles::stateFolder(),
                folder->user);
}

class DirectoryCommand final : public Subcommand {
 public:
  void declare(CLI::App& app) override {
    app.footer(details);
    app.require_subcommand(1);
    CLI::App* const first =
        app.add_subcommand("init", "Make the first administrator: a user, and the group admin with it");
    first->add_option("NAME", user_, "The user's name")->capture_default_str();
    first->add_option("--real-name", realName_, "The name to show");
    first->add_flag("--another", another_, "Make one although there is an administrator already");
    first->callback([this] { isInit_ = true; });
    CLI::App* const password =
        app.add_subcommand("passwd", "Give a user of this machine's own directory a new password");
    password->add_option("NAME", user_, "The user's name")->required();
  }

  int run(const SharedOptions& shared) override {
    if (!shared.root.empty()) setHostRoot(shared.root);
    if (!isUserName(user_)) return fail(wrongUsage, "a user's name has no spaces, controls, \"@\", \":\" or \"/\"");
    if (const auto reason = wrongUser()) return fail(wrongUsage, *reason);
    return isInit_ ? init(shared) : passwd(shared);
  }

 private:
  int init(const SharedOptions& shared) {
    std::string fault;
    const auto known = knownAdministrator(fault);
    if (!fault.empty()) return fail(noReply, fault);
    if (known && !another_) {
      return fail(replyHoldsError, format("%s is an administrator already; --another makes one more", *known));
    }
    const auto password = newPasswordOf(user_, shared.passwordFile, fault);
    if (!password) return fail(wrongUsage, fault);
    if (!makeAdministrator(user_, realName_, *password, fault)) return fail(noReply, fault);
    return print(format("%s is an administrator: sign in with 'ostrelctl login --user %s'\n", user_, user_));
  }

  int passwd(const SharedOptions& shared) {
    std::string fault;
    const auto password = newPasswordOf(user_, shared.passwordFile, fault);
    if (!password) return fail(wrongUsage, fault);
    return setLocalPassword(user_, *password, fault) ? done : fail(noReply, fault);
  }

  bool isInit_ = false;
  std::string user_ = "admin";
  std::string realName_;
  bool another_ = false;
};

}  // namespace

std::unique_ptr<Subcommand> makeDirectoryCommand() { return std::make_unique<DirectoryCommand>(); }

}  // namespace ostrel
