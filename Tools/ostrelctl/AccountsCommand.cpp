#include "ostrelctl/AccountsCommand.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cstdio>
#include <optional>
#include <string>
#include <vector>

#include "Containers/Format.h"
#include "Platform/DirectoryTypes.h"
#include "ostrelctl/AccountsText.h"
#include "ostrelctl/Exchange.h"
#include "ostrelctl/PasswordPrompt.h"

namespace ostrel {
namespace {

constexpr const char* module = "ostrel_accounts";
constexpr const char* standardPrefix = "dsAttrTypeStandard:";

constexpr std::string_view patternKeys[] = {"nameIs",     "nameContains",    "nameStartsWith", "nameEndsWith",   "idIs",
                                            "idContains", "idIsGreaterThan", "idIsLessThan",   "commentContains"};

constexpr const char* userDetails =
    "\nWithout --node on the daemon's own directory. A new user gets a free number from 1000 on. Passwords are asked "
    "for,\n"
    "or are the first line of a file (\"-\": standard input); they never stand on the command line.\n"
    "--match takes nameIs, nameContains, nameStartsWith, nameEndsWith, idIs, idContains, idIsGreaterThan, "
    "idIsLessThan\n"
    "or commentContains, and leaves out the accounts of the system. Attributes without a prefix are "
    "dsAttrTypeStandard: ones.\n"
    "\nExamples:\n"
    "  ostrelctl users list --starts-with a --max 50\n"
    "  ostrelctl users list --match 'idIsGreaterThan=1999' --json\n"
    "  ostrelctl users create ada --real-name 'Ada King' --set-password\n"
    "  ostrelctl users change ada --set Comment=here --set Comment=there --unset EMailAddress\n";
constexpr const char* groupDetails =
    "\nWithout --node on the daemon's own directory. A new group gets the lowest free number from 500 on.\n"
    "--match is as for users, see ostrelctl users --help.\n"
    "\nExamples:\n"
    "  ostrelctl groups create staff --add-member ada\n"
    "  ostrelctl groups change staff --remove-member ada --add-member bob\n"
    "  ostrelctl groups list --node /Search\n";

/// What is told apart between the two subcommands.
struct Kind {
  const char* noun;           ///< "user"
  const char* commandSuffix;  ///< of the module's commands: "User"
  const char* details;
  std::string_view numberAttribute;
  std::string (*table)(const PlistValue& listing);
};
constexpr Kind userKind{"user", "User", userDetails, directoryName::uniqueID, userTable};
constexpr Kind groupKind{"group", "Group", groupDetails, directoryName::primaryGroupID, groupTable};

std::string attributeNamed(const std::string& name) {
  return name.find(':') == std::string::npos ? standardPrefix + name : name;
}

class AccountsCommand final : public Subcommand {
 public:
  explicit AccountsCommand(const Kind& kind) : kind_(kind) {}

  void declare(CLI::App& app) override {
    app.footer(kind_.details);
    app.require_subcommand(1);
    declareList(declareOne(app, "list", format("List %ss", kind_.noun)));
    for (const char* verb : {"show", "create", "change", "delete"}) {
      CLI::App& one = declareOne(app, verb, format("%c%s a %s", verb[0] - 'a' + 'A', verb + 1, kind_.noun));
      one.add_option("NAME", name_, format("The %s's name", kind_.noun))->required();
      if (*verb == 'c') declareChanges(one, std::string_view(verb) == "create");
    }
  }

  int run(const SharedOptions& shared) override {
    PlistValue request = PlistValue::mutableDictionary();
    std::string fault;
    if (!fill(request, fault)) return fail(wrongUsage, fault);
    if (!addPassword(request, fault)) return fail(wrongUsage, fault);
    const std::string command = verb_ + kind_.commandSuffix + (verb_ == "list" ? "s" : "");
    request.set("command", command);
    int exitStatus = done;
    const auto answer = ask(shared, module, request, exitStatus);
    if (!answer) return exitStatus;
    return tell(*answer, shared.form, command);
  }

 private:
  CLI::App& declareOne(CLI::App& app, const char* name, const std::string& summary) {
    CLI::App* const verb = app.add_subcommand(name, summary);
    verb->callback([this, name] { verb_ = name; });  // the parser does not outlive the parsing
    verb->add_option("--node", node_, "Path of the directory node, such as /Search")->type_name("PATH");
    return *verb;
  }

  void declareList(CLI::App& list) {
    list.add_option("--max", maximum_, "How many at most")->check(CLI::Range(1, 100'000))->capture_default_str();
    auto* const starts = list.add_option("--starts-with", startsWith_, "Names that start so, ignoring case");
    auto* const contains = list.add_option("--contains", contains_, "Names that contain this")->excludes(starts);
    list.add_option("--ends-with", endsWith_, "Names that end so")->excludes(starts)->excludes(contains);
    list.add_option("--match", match_, "What to match, and with which text")->type_name("KEY=TEXT");
    list.add_flag("--system", system_, "With --match: the accounts of the system, too")->needs("--match");
  }

  void declareChanges(CLI::App& verb, bool creates) {
    verb.add_option("--real-name", realName_, "The name to show");
    verb.add_option("--id", number_, "The number; a free one by default")->check(CLI::NonNegativeNumber);
    verb.add_option("--set", set_, "Values of an attribute; again for several")
        ->type_name("ATTRIBUTE=VALUE")
        ->allow_extra_args(false);
    if (!creates)
      verb.add_option("--unset", unset_, "Remove an attribute")->type_name("ATTRIBUTE")->allow_extra_args(false);
    if (&kind_ == &groupKind) {
      verb.add_option("--add-member", addMembers_, "A user to be a member")->type_name("USER")->allow_extra_args(false);
      if (creates) return;
      verb.add_option("--remove-member", removeMembers_, "A user to be none any more")
          ->type_name("USER")
          ->allow_extra_args(false);
      return;
    }
    verb.add_option("--group", group_, "Number of the primary group")->check(CLI::NonNegativeNumber);
    verb.add_option("--home", home_, "Home folder");
    verb.add_option("--shell", shell_, "Login shell");
    auto* const asks = verb.add_flag("--set-password", asksPassword_, "Ask for a password");
    verb.add_option("--new-password-file", passwordFile_, "Take the password from a file; \"-\": standard input")
        ->excludes(asks);
  }

  bool fill(PlistValue& request, std::string& fault) const {
    if (!node_.empty()) request.set("nodePath", node_);
    if (verb_ == "list") return fillList(request, fault);
    request.set("name", name_);
    if (verb_ != "create" && verb_ != "change") return true;
    PlistValue attributes = PlistValue::mutableDictionary();
    if (!fillAttributes(attributes, fault)) return false;
    if (attributes.count() > 0) request.set("attributes", attributes);
    if (!addMembers_.empty()) request.set("addMembers", arrayOf(addMembers_));
    if (!removeMembers_.empty()) request.set("removeMembers", arrayOf(removeMembers_));
    const bool changesNothing = request.count() == (node_.empty() ? 1U : 2U) && !asksPassword_ && passwordFile_.empty();
    if (verb_ == "create" || !changesNothing) return true;
    fault = "nothing is to be changed";
    return false;
  }

  bool fillList(PlistValue& request, std::string& fault) const {
    request.set("maximum", maximum_);
    if (!startsWith_.empty()) request.set("startsWith", startsWith_);
    if (!contains_.empty()) request.set("contains", contains_);
    if (!endsWith_.empty()) request.set("endsWith", endsWith_);
    if (match_.empty()) return true;
    const std::string key = match_.substr(0, match_.find('='));
    if (key.size() == match_.size() || std::ranges::find(patternKeys, key) == std::end(patternKeys) ||
        request.count() > (node_.empty() ? 1U : 2U)) {
      fault = "--match takes KEY=TEXT with a key that --help names, and nothing else about names beside it";
      return false;
    }
    request.set("patternKey", key);
    request.set("patternText", match_.substr(key.size() + 1));
    request.set("systemAccounts", system_);
    return true;
  }

  bool fillAttributes(PlistValue& attributes, std::string& fault) const {
    const std::pair<std::string_view, const std::string&> shortForms[] = {{directoryName::realName, realName_},
                                                                          {kind_.numberAttribute, number_},
                                                                          {directoryName::primaryGroupID, group_},
                                                                          {directoryName::homeDirectory, home_},
                                                                          {directoryName::userShell, shell_}};
    for (const auto& [attribute, value] : shortForms)
      if (!value.empty()) attributes.set(attribute, value);
    for (const std::string& pair : set_) {
      const std::size_t equals = pair.find('=');
      if (equals == 0 || equals == std::string::npos) {
        fault = format("'%s' is not ATTRIBUTE=VALUE", pair);
        return false;
      }
      const std::string attribute = attributeNamed(pair.substr(0, equals));
      PlistValue values = attributes.get(attribute);
      if (!values.isArray()) values = PlistValue::mutableArray();
      values.append(pair.substr(equals + 1));
      attributes.set(attribute, values);
    }
    for (const std::string& attribute : unset_) attributes.set(attributeNamed(attribute), PlistValue::arrayOf({}));
    return true;
  }

  bool addPassword(PlistValue& request, std::string& fault) const {
    if (!asksPassword_ && passwordFile_.empty()) return true;
    const auto password = newPasswordOf(name_, passwordFile_, fault, "--new-password-file");
    if (password) request.set("password", *password);
    return password.has_value();
  }

  int tell(const Answer& answer, OutputForm form, const std::string& command) const {
    if (const auto error = errorOf(answer.reply, module, command)) {
      if (form != OutputForm::text) print(textInForm(answer.reply, answer.bytes, form));
      const bool hasMembers = !addMembers_.empty() || !removeMembers_.empty();
      const std::string why = accountFault(answer.reply, hasMembers);
      return fail(replyHoldsError,
                  why.empty() ? *error : format("%s: %s (%s)", name_.empty() ? "list" : name_, why, *error));
    }
    if (form != OutputForm::text) return print(textInForm(answer.reply, answer.bytes, form));
    if (verb_ == "delete") return print(format("deleted: %s\n", answer.reply.get("deleted").stringValue()));
    if (verb_ != "list") return print(textInForm(accountPage(answer.reply.get("record")), answer.bytes, form));
    const int status = print(kind_.table(answer.reply));
    if (answer.reply.get("moreRecords").boolValue())
      std::fprintf(stderr, "ostrelctl: there are more than these %lld (--max)\n",
                   static_cast<long long>(answer.reply.get("nbRecords").int64Value()));
    return status;
  }

  static PlistValue arrayOf(const std::vector<std::string>& texts) {
    PlistValue array = PlistValue::mutableArray();
    for (const std::string& text : texts) array.append(text);
    return array;
  }

  const Kind& kind_;
  std::string verb_;
  std::string node_;
  std::string name_;
  int maximum_ = 256;
  std::string startsWith_;
  std::string contains_;
  std::string endsWith_;
  std::string match_;
  bool system_ = false;
  std::string realName_;
  std::string number_;
  std::string group_;
  std::string home_;
  std::string shell_;
  std::vector<std::string> set_;
  std::vector<std::string> unset_;
  std::vector<std::string> addMembers_;
  std::vector<std::string> removeMembers_;
  bool asksPassword_ = false;
  std::string passwordFile_;
};

}  // namespace

std::unique_ptr<Subcommand> makeUsersCommand() { return std::make_unique<AccountsCommand>(userKind); }
std::unique_ptr<Subcommand> makeGroupsCommand() { return std::make_unique<AccountsCommand>(groupKind); }

}  // namespace ostrel
