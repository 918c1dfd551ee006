#include "ostrelctl/CommandLine.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <optional>
#include <string>
#include <vector>

#include "Containers/Format.h"
#include "ostrelctl/Exchange.h"
#include "ostrelctl/ModuleCommand.h"
#include "ostrelctl/Subcommands.h"

namespace ostrel {
namespace {

/// Where the first word stands that is neither an option nor an option's value; absent behind "--".
std::optional<std::size_t> firstWord(const std::vector<std::string>& words) {
  CLI::App known;
  SharedOptions unused;
  addSharedOptions(known, unused);
  for (std::size_t at = 0; at < words.size(); ++at) {
    const std::string& word = words[at];
    if (word == "--") return std::nullopt;
    if (word.size() < 2 || word[0] != '-') return at;
    const CLI::Option* option = known.get_option_no_throw(word);  // null for "--name=value" and for flags of others
    if (option != nullptr && option->get_items_expected_max() > 0) ++at;
  }
  return std::nullopt;
}

const SubcommandEntry* entryNamed(const std::string& name) {
  const auto table = subcommandTable();
  const auto found = std::ranges::find_if(table, [&](const SubcommandEntry& entry) { return entry.name == name; });
  return found == table.end() ? nullptr : &*found;
}

}  // namespace

std::unique_ptr<CommandLine> readCommandLine(int argc, const char* const* argv) {
  std::vector<std::string> words(argv + std::min(argc, 1), argv + argc);
  const auto first = firstWord(words);
  const SubcommandEntry* entry = first ? entryNamed(words[*first]) : nullptr;

  auto line = std::make_unique<CommandLine>();
  line->subcommand = entry != nullptr ? entry->make() : std::make_unique<ModuleCommand>();
  // Each has a parser of its own: nested in one, the parser would take a module's command "status" for the subcommand.
  CLI::App app(entry != nullptr ? std::string(entry->summary) + "." : "",
               entry != nullptr ? format("ostrelctl %s", entry->name) : "ostrelctl");
  if (entry != nullptr) words.erase(words.begin() + static_cast<std::ptrdiff_t>(*first));
  app.get_formatter()->column_width(32);
  app.fallthrough();
  addSharedOptions(app, line->shared);
  line->subcommand->declare(app);
  std::ranges::reverse(words);  // as the parser wants them
  try {
    app.parse(std::move(words));
  } catch (const CLI::RequiredError& error) {
    const auto unknown = app.remaining();
    if (unknown.empty() || !app.get_require_subcommand_min())
      app.exit(error);
    else
      fail(wrongUsage,
           format("there is no '%s %s': see ostrelctl %s --help", entry->name, unknown.front(), entry->name));
    line->exitStatus = wrongUsage;
    line->subcommand = nullptr;
  } catch (const CLI::ParseError& error) {
    line->exitStatus = app.exit(error) == 0 ? 0 : 2;
    line->subcommand = nullptr;
  }
  return line;
}

}  // namespace ostrel
