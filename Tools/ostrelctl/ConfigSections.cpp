#include "ostrelctl/ConfigSections.h"

#include <algorithm>

#include "ConfigFiles/CStrings.h"
#include "Containers/Format.h"
#include "ostrelctl/ConfigEdit.h"

namespace ostrel {
namespace {

constexpr std::string_view blanks = " \t\r\n";

std::string_view trimmed(std::string_view text) {
  text.remove_prefix(std::min(text.find_first_not_of(blanks), text.size()));
  return text.substr(0, text.find_last_not_of(blanks) + 1);
}

// Behind the line end of the line that begins at `start`, and of those joined to it.
std::size_t logicalEnd(std::string_view text, std::size_t start, std::size_t& lines) {
  for (;;) {
    const std::size_t feed = text.find('\n', start);
    if (feed == std::string_view::npos) return text.size();
    ++lines;
    const std::size_t last = feed > start && text[feed - 1] == '\r' ? feed - 1 : feed;
    if (last == start || text[last - 1] != '\\') return feed + 1;
    start = feed + 1;
  }
}

std::string described(const ConfigBlock& block) {
  return block.argument.empty() ? format("<%s>", block.name) : format("<%s %s>", block.name, block.argument);
}

}  // namespace

bool equalIgnoringCase(std::string_view a, std::string_view b) {
  return MyEqualCaseCStrings(std::string(a).c_str(), std::string(b).c_str()) == 1;
}

std::optional<ConfigTag> configTagIn(std::string_view line) {
  line = trimmed(line);
  if (line.size() < 3 || line.front() != '<' || line.back() != '>') return std::nullopt;
  line = line.substr(1, line.size() - 2);
  const std::string_view name = line.substr(0, line.find_first_of(blanks));
  if (name.empty() || name == "/") return std::nullopt;
  return ConfigTag{name, trimmed(line.substr(name.size()))};
}

bool namesBlock(std::string_view wanted, std::string_view name, std::string_view argument) {
  const std::string_view wantedName = wanted.substr(0, wanted.find_first_of(blanks));
  const std::string_view wantedArgument = trimmed(wanted.substr(wantedName.size()));
  return equalIgnoringCase(wantedName, name) && (wantedArgument.empty() || equalIgnoringCase(wantedArgument, argument));
}

ConfigSections::ConfigSections(std::string_view text) {
  blocks_.push_back({.name = "", .argument = "", .end = text.size(), .bodyEnd = text.size(), .isClosed = true});
  std::vector<std::size_t> open{0};
  std::size_t number = 1;
  for (std::size_t at = 0; at < text.size();) {
    std::size_t count = 0;
    const LogicalLine line{at, logicalEnd(text, at, count), number, open.back()};
    number += count;
    at = line.end;
    lines_.push_back(line);
    const auto tag = configTagIn(text.substr(line.start, line.end - line.start));
    if (!tag) continue;
    if (!tag->name.starts_with('/')) {
      ConfigBlock block;
      block.name = tag->name;
      block.argument = tag->argument;
      block.line = line.number;
      block.start = line.start;
      block.bodyStart = line.end;
      block.bodyEnd = block.end = text.size();
      block.parent = open.back();
      open.push_back(blocks_.size());
      blocks_.push_back(std::move(block));
      continue;
    }
    ConfigBlock& block = blocks_[open.back()];
    if (open.size() == 1 || !equalIgnoringCase(tag->name.substr(1), block.name)) continue;
    block.bodyEnd = line.start;
    block.end = line.end;
    block.isClosed = true;
    lines_.back().block = block.parent;
    open.pop_back();
  }
}

const LogicalLine* ConfigSections::lineAt(std::size_t offset) const {
  const auto found = std::ranges::lower_bound(lines_, offset, {}, &LogicalLine::start);
  return found != lines_.end() && found->start == offset ? &*found : nullptr;
}

std::optional<std::size_t> ConfigSections::blockAt(const std::vector<std::string>& path, std::string& fault) const {
  std::size_t inside = 0;
  for (std::string wanted : path) {
    const std::size_t occurrence = takeOccurrence(wanted);
    std::vector<std::size_t> found;
    for (std::size_t i = 1; i < blocks_.size(); ++i)
      if (blocks_[i].parent == inside && namesBlock(wanted, blocks_[i].name, blocks_[i].argument)) found.push_back(i);
    if (found.empty() || occurrence > found.size()) {
      fault = format("there is no block <%s>%s", wanted, inside == 0 ? "" : " in " + described(blocks_[inside]));
      return std::nullopt;
    }
    if (found.size() > 1 && occurrence == 0) {
      fault = format("there are %zu blocks <%s>, the first two in lines %zu and %zu: say which, as in '%s[1]'",
                     found.size(), wanted, blocks_[found[0]].line, blocks_[found[1]].line, wanted);
      return std::nullopt;
    }
    inside = found[occurrence == 0 ? 0 : occurrence - 1];
  }
  return inside;
}

}  // namespace ostrel
