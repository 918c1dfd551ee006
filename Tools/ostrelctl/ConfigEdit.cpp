#include "ostrelctl/ConfigEdit.h"

#include <algorithm>
#include <charconv>

#include "Containers/Format.h"

namespace ostrel {
namespace {

constexpr std::string_view blanks = " \t\r";

std::string_view trimmed(std::string_view text) {
  text.remove_prefix(std::min(text.find_first_not_of(blanks), text.size()));
  return text.substr(0, text.find_last_not_of(blanks) + 1);
}

std::string_view takeWord(std::string_view& rest) {
  const std::string_view word = rest.substr(0, rest.find_first_of(blanks));
  rest = trimmed(rest.substr(word.size()));
  return word;
}

struct VerbName {
  std::string_view name;
  ConfigEdit::Verb verb;
  bool takesValue;
};

constexpr VerbName verbs[] = {
    {"set", ConfigEdit::Verb::set, true},
    {"add", ConfigEdit::Verb::add, true},
    {"unset", ConfigEdit::Verb::unset, false},
    {"comment", ConfigEdit::Verb::comment, false},
    {"uncomment", ConfigEdit::Verb::uncomment, false},
};

class ChangeList {
 public:
  bool take(std::string_view line, std::string& fault) {
    line = trimmed(line);
    if (line.empty() || line.starts_with('#')) return true;
    std::string_view rest = line;
    std::string_view verb = takeWord(rest);
    if (verb == "enter") return enter(rest, fault);
    if (verb == "leave") return leave(rest, fault);
    ConfigEdit edit;
    edit.blocks = blocks_;
    if (verb == "add-block") {
      edit.verb = ConfigEdit::Verb::addBlock;
      edit.value = rest;
      return keep(std::move(edit), !rest.empty(), "add-block wants NAME [ARGUMENT...]", fault);
    }
    if (const std::size_t colon = verb.find(':'); colon != std::string_view::npos) {
      edit.type = verb.substr(colon + 1);
      verb = verb.substr(0, colon);
    }
    const auto* const found = std::ranges::find(verbs, verb, &VerbName::name);
    if (found == std::ranges::end(verbs)) {
      fault = format("'%s' is none of set, add, unset, comment, uncomment, add-block, enter, leave", verb);
      return false;
    }
    edit.verb = found->verb;
    edit.key = takeWord(rest);
    edit.value = rest;
    if (found->takesValue) return keep(std::move(edit), !rest.empty(), "KEY and VALUE are missing", fault);
    return keep(std::move(edit), rest.empty(), "only a KEY may follow", fault);
  }

  std::vector<ConfigEdit> edits;

 private:
  bool enter(std::string_view block, std::string& fault) {
    fault = "enter wants NAME [ARGUMENT...]";
    blocks_.emplace_back(block);
    return !block.empty();
  }
  bool leave(std::string_view rest, std::string& fault) {
    fault = "leave stands alone, behind an enter";
    if (blocks_.empty() || !rest.empty()) return false;
    blocks_.pop_back();
    return true;
  }
  bool keep(ConfigEdit edit, bool isComplete, const char* reason, std::string& fault) {
    fault = reason;
    edits.push_back(std::move(edit));
    return isComplete;
  }

  std::vector<std::string> blocks_;
};

}  // namespace

std::size_t takeOccurrence(std::string& name) {
  const std::size_t bracket = name.rfind('[');
  if (!name.ends_with(']') || bracket == std::string::npos || bracket == 0) return 0;
  std::size_t number = 0;
  const char* const end = name.data() + name.size() - 1;
  const auto [stopped, error] = std::from_chars(name.data() + bracket + 1, end, number);
  if (error != std::errc() || stopped != end || number == 0) return 0;
  name.resize(bracket);
  return number;
}

std::optional<std::vector<ConfigEdit>> readChangeList(std::string_view text, std::string& fault) {
  ChangeList list;
  for (std::size_t number = 1; !text.empty(); ++number) {
    const std::string_view line = text.substr(0, text.find('\n'));
    text.remove_prefix(std::min(line.size() + 1, text.size()));
    if (list.take(line, fault)) continue;
    fault = format("line %zu of the changes: %s", number, fault);
    return std::nullopt;
  }
  return std::move(list.edits);
}

}  // namespace ostrel
