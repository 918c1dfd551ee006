#include "ostrelctl/ConfigCommand.h"

#include <CLI/CLI.hpp>
#include <cerrno>
#include <cstdio>
#include <exception>
#include <optional>
#include <string>
#include <system_error>
#include <vector>

#include "ConfigFiles/FileChange.h"
#include "Containers/Format.h"
#include "Platform/RegularFile.h"
#include "Platform/SystemLog.h"
#include "ostrelctl/ConfigEdit.h"
#include "ostrelctl/ConfigText.h"
#include "ostrelctl/ConfigTurn.h"
#include "ostrelctl/Exchange.h"
#include "ostrelctl/JsonForm.h"
#include "ostrelctl/RequestArguments.h"
#include "ostrelctl/TextForm.h"

namespace ostrel {
namespace {

constexpr const char* details =
    "\nFormats, guessed from the file unless --format says which:\n"
    "  apache    directives \"NAME VALUE\", and blocks: --in 'VirtualHost *:80' (repeat it for blocks inside blocks)\n"
    "  keyvalue  lines KEY=VALUE, the value with its quotes\n"
    "  xinetd    attributes of a service, named like the file unless --in says which\n"
    "  syslog    facilities; the value is LEVEL ACTION: set FILE mail 'info /var/log/mail.log'\n"
    "  plist     key paths, users:ada:name; --type int, real, bool, date, data or json for other values than text\n"
    "Where a name stands several times, NAME[2] is the second one. set adds what is not there yet; add always adds.\n"
    "A value that begins with \"-\" stands behind \"--\": set /etc/hostconfig WEB -- -YES-\n"
    "Without KEY, unset, comment and uncomment are about the whole block that --in names.\n"
    "\nA list of changes has one a line: set KEY VALUE, set:TYPE KEY VALUE, add KEY VALUE, unset KEY, comment KEY,\n"
    "uncomment KEY, add-block NAME ARGUMENT, and enter NAME ARGUMENT ... leave around those inside a block.\n"
    "apply makes all of them or none. A change is saved in one step: owner, group and mode stay, links are followed.\n"
    "\nExit status: 0 done, 1 not there or not possible, 2 wrong usage, 3 the file cannot be read or written.\n"
    "\nExamples:\n"
    "  ostrelctl config get /etc/apache2/ports.conf Listen\n"
    "  ostrelctl config set --dry-run /etc/apache2/apache2.conf KeepAliveTimeout 15\n"
    "  ostrelctl config comment /etc/apache2/sites-available/000-default.conf --in 'VirtualHost *:80' CustomLog\n"
    "  ostrelctl config set --type int settings.plist network:port 8080\n"
    "  ostrelctl config diff /etc/apache2/apache2.conf changes && "
    "ostrelctl config apply /etc/apache2/apache2.conf changes\n";

enum ConfigStatusCode { notPossible = 1, fileFault = 3 };

int failWith(int status, const std::string& reason) {
  std::fprintf(stderr, "ostrelctl: %s\n", reason.c_str());
  return status;
}

std::string reasonOf(int error) {
  if (error == EINVAL) return "it is no regular file";
  if (error == EWOULDBLOCK) return "somebody else keeps it locked";
  return std::generic_category().message(error);
}

// The editors log what they do; here the diff tells it.
class Silence final : public SystemLog {
 public:
  void write(int, std::string_view) override {}
  void writeRecord(int, std::span<const Field>, std::string_view) override {}
};

class ConfigCommand final : public Subcommand {
 public:
  void declare(CLI::App& app) override {
    app.footer(details);
    app.require_subcommand(1);
    declareOne(app, "get", "Print the values of a setting", true);
    CLI::App* const set = declareOne(app, "set", "Give a setting a value", true);
    CLI::App* const add = declareOne(app, "add", "Add a setting, also when one of that name is there", true);
    for (CLI::App* const verb : {set, add}) verb->add_option("VALUE", edit_.value, "Its value")->required();
    set->add_option("--type", edit_.type, "Type of a property list's value: text, int, real, bool, date, data, json");
    declareOne(app, "unset", "Remove a setting or a block", false);
    declareOne(app, "comment", "Put a setting or a block behind comment marks", false);
    declareOne(app, "uncomment", "Take the comment marks away again", false);
    CLI::App* const block = declareOne(app, "add-block", "Add an empty block", std::nullopt);
    block->add_option("BLOCK", edit_.value, "For example 'VirtualHost *:80'")->required();
    for (const char* const name : {"diff", "apply"}) {
      CLI::App* const list = declareOne(
          app, name, *name == 'd' ? "Print what a list of changes would do" : "Make a list of changes, all or none",
          std::nullopt);
      list->add_option("CHANGES", changes_, "File with the changes; standard input without it")->default_str("-");
    }
  }

  int run(const SharedOptions& shared) override {
    Silence silence;
    const ScopedOverride<SystemLog> override(silence);
    try {
      return runVerb(verb_, shared.form == OutputForm::json);
    } catch (const std::exception& error) {
      return failWith(fileFault, error.what());
    }
  }

 private:
  // `needsKey` absent: there is no KEY.
  CLI::App* declareOne(CLI::App& app, const char* name, const char* summary, std::optional<bool> needsKey) {
    CLI::App* const verb = app.add_subcommand(name, summary);
    verb->add_option("FILE", path_, "The configuration file")->required();
    if (needsKey) verb->add_option("KEY", edit_.key, "Name of the setting")->required(*needsKey);
    verb->add_option("--in", edit_.blocks, "Block that it stands in, NAME ARGUMENT")->allow_extra_args(false);
    verb->add_option("--format", formatName_, "apache, keyvalue, xinetd, syslog or plist");
    const bool isChange = std::string_view(name) != "get" && std::string_view(name) != "diff";
    if (isChange) verb->add_flag("--dry-run", dryRun_, "Print what would change, save nothing");
    verb->callback([this, name] { verb_ = name; });  // the parser does not outlive the parsing
    return verb;
  }

  int runVerb(const std::string& verb, bool json) {
    std::string fault;
    std::vector<ConfigEdit> edits;
    if (!editsFor(verb, edits, fault)) return failWith(wrongUsage, fault);
    const bool saves = verb != "get" && verb != "diff" && !dryRun_;
    const FileDescriptor file = saves ? openInTurn(path_) : openRegularFile(path_);
    auto text = file ? readToEnd(file.get(), std::size_t{64} << 20U) : std::nullopt;
    if (!text) return failWith(fileFault, format("cannot read %s: %s", path_, reasonOf(errno)));
    const auto format_ = formatName_.empty() ? guessConfigFormat(path_, *text) : configFormatNamed(formatName_);
    if (!format_) return failWith(wrongUsage, format("'%s' is no format that --format knows", formatName_));
    const auto config = makeConfigText(*format_, path_, *text, fault);
    if (!config) return failWith(notPossible, format("%s: %s", path_, fault));
    if (verb == "get") return printValues(*config, *format_, json);

    for (const ConfigEdit& edit : edits)
      if (!config->apply(edit, fault)) return failWith(notPossible, format("%s: %s", path_, fault));
    auto newText = config->text(fault);
    if (!newText) return failWith(notPossible, format("%s: %s", path_, fault));
    const FileChange change(path_, std::move(*text), std::move(*newText));
    return finish(change, !saves, verb == "diff", *format_, json);
  }

  bool editsFor(const std::string& verb, std::vector<ConfigEdit>& edits, std::string& fault) {
    using Verb = ConfigEdit::Verb;
    if (verb == "diff" || verb == "apply") {
      const auto list = contentOf(changes_, fault);
      auto read = list ? readChangeList(*list, fault) : std::nullopt;
      if (!read) return false;
      for (ConfigEdit& edit : *read) edit.blocks.insert(edit.blocks.begin(), edit_.blocks.begin(), edit_.blocks.end());
      edits = std::move(*read);
      return true;
    }
    edit_.verb = verb == "add"         ? Verb::add
                 : verb == "unset"     ? Verb::unset
                 : verb == "comment"   ? Verb::comment
                 : verb == "uncomment" ? Verb::uncomment
                 : verb == "add-block" ? Verb::addBlock
                                       : Verb::set;
    edits.push_back(edit_);
    return true;
  }

  int printValues(ConfigText& config, ConfigFormat format_, bool json) {
    std::string fault;
    const auto values = config.get(edit_, fault);
    if (!values) return failWith(notPossible, format("%s: %s", path_, fault));
    if (json) {
      PlistValue answer = answerFor(format_);
      answer.set("key", edit_.key);
      PlistValue list = PlistValue::mutableArray();
      for (const PlistValue& value : *values) list.append(value);
      answer.set("values", list);
      if (const int status = print(jsonText(answer)); status != 0) return fileFault;
    } else {
      for (const PlistValue& value : *values) {
        const std::string text = readableText(value);
        if (print(text.ends_with('\n') ? text : text + "\n") != 0) return fileFault;
      }
    }
    return values->empty() ? failWith(notPossible, format("%s: there is no %s", path_, edit_.key)) : 0;
  }

  // Saves the change or not, and tells of it. Who does not take turns is seen until just before the file is replaced.
  int finish(const FileChange& change, bool dryRun, bool isDiff, ConfigFormat format_, bool json) {
    if (!dryRun && !change.isCurrent())
      return failWith(fileFault, format("%s was changed by somebody else meanwhile: try again", path_));
    if (!dryRun && !change.save())
      return failWith(fileFault, format("cannot write %s: %s; it is as it was", path_, reasonOf(errno)));
    if (json) {
      PlistValue answer = answerFor(format_);
      answer.set("changed", change.changed());
      answer.set("saved", change.changed() && !dryRun);
      answer.set("diff", change.unifiedDiff());
      return print(jsonText(answer)) == 0 ? 0 : fileFault;
    }
    if (dryRun) {
      if (!isDiff && !change.changed()) std::fputs("ostrelctl: nothing would change\n", stderr);
      return print(change.unifiedDiff()) == 0 ? 0 : fileFault;
    }
    return 0;
  }

  PlistValue answerFor(ConfigFormat format_) const {
    PlistValue answer = PlistValue::mutableDictionary();
    answer.set("file", path_);
    answer.set("format", nameOf(format_));
    return answer;
  }

  std::string verb_;
  std::string path_;
  std::string formatName_;
  std::string changes_ = "-";
  ConfigEdit edit_;
  bool dryRun_ = false;
};

}  // namespace

std::unique_ptr<Subcommand> makeConfigCommand() { return std::make_unique<ConfigCommand>(); }

}  // namespace ostrel
