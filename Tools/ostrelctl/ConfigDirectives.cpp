// Files of directives and blocks, and of KEY=value lines.
#include <algorithm>
#include <cstdint>
#include <string_view>
#include <utility>

#include "ConfigFiles/TextBlocks.h"
#include "ConfigFiles/TextDirectives.h"
#include "ConfigFiles/TextFileChange.h"
#include "ConfigFiles/TextFileEditing.h"
#include "Containers/Format.h"
#include "ostrelctl/ConfigSections.h"
#include "ostrelctl/ConfigText.h"

namespace ostrel {
namespace {

// A directive of the text, by offsets.
struct Directive {
  std::size_t line = 0;            // number, from 1
  std::size_t start = 0, end = 0;  // with the line end
  std::size_t keyword = 0;
  std::size_t value = 0, valueEnd = 0;
  bool isCommented = false;
};

bool isControl(char c) { return static_cast<unsigned char>(c) < ' ' || c == 0x7f; }
bool holdsControls(std::string_view text) {
  return std::ranges::any_of(text, [](char c) { return isControl(c) && c != '\t'; });
}
bool isBlank(char c) { return c == ' ' || c == '\t'; }

std::int64_t offset(std::size_t at) { return static_cast<std::int64_t>(at); }

class DirectiveText final : public ConfigText {
 public:
  DirectiveText(bool isKeyValue, std::string text, EditableText copy)
      : isKeyValue_(isKeyValue), text_(std::move(text)), copy_(std::move(copy)), sections_(text_) {}

  std::optional<std::vector<PlistValue>> get(const ConfigEdit& place, std::string& fault) override {
    std::string key = place.key;
    const std::size_t occurrence = takeOccurrence(key);
    const auto block = blockFor(place, key, fault);
    if (!block) return std::nullopt;
    std::vector<PlistValue> values;
    for (const Directive& directive : find(*block, key))
      if (!directive.isCommented) values.emplace_back(joinedValue(directive));
    if (occurrence == 0) return values;
    if (occurrence > values.size()) return std::vector<PlistValue>();
    return std::vector<PlistValue>{values[occurrence - 1]};
  }

  bool apply(const ConfigEdit& edit, std::string& fault) override {
    if (edit.verb == ConfigEdit::Verb::addBlock) return addBlock(edit, fault) && reread(fault);
    if (edit.key.empty()) return applyToBlock(edit, fault) && reread(fault);
    std::string key = edit.key;
    const std::size_t occurrence = takeOccurrence(key);
    const auto block = blockFor(edit, key, fault);
    if (!block) return false;
    switch (edit.verb) {
      case ConfigEdit::Verb::add:
        return checkValue(edit.value, fault) && append(*block, key, edit.value, fault) && reread(fault);
      case ConfigEdit::Verb::set:
        return checkValue(edit.value, fault) && set(*block, key, occurrence, edit.value, fault) && reread(fault);
      case ConfigEdit::Verb::unset:
        return withOne(*block, key, occurrence, false, fault,
                       [&](const Directive& d) { return replace(d.start, d.end, "", fault); });
      case ConfigEdit::Verb::comment:
        return withOne(*block, key, occurrence, false, fault,
                       [&](const Directive& d) { return replace(d.keyword, d.keyword, "#", fault); });
      default:
        return withOne(*block, key, occurrence, true, fault,
                       [&](const Directive& d) { return replace(d.keyword - 1, d.keyword, "", fault); });
    }
  }

  std::optional<std::string> text(std::string&) override { return text_; }

 private:
  std::optional<std::size_t> blockFor(const ConfigEdit& edit, const std::string& key, std::string& fault) const {
    const bool isName = !key.empty() && !holdsControls(key) && key.find_first_of(" \t\"'<>#=\\") == std::string::npos;
    if (!isName) {
      fault = format("'%s' cannot be the name of a setting", key);
      return std::nullopt;
    }
    if (isKeyValue_ && !edit.blocks.empty()) {
      fault = "a KEY=value file has no blocks";
      return std::nullopt;
    }
    return sections_.blockAt(edit.blocks, fault);
  }

  static bool checkValue(const std::string& value, std::string& fault) {
    if (!holdsControls(value) && !value.ends_with('\\')) return true;
    fault = "a value must be one line of text and not end with a backslash";
    return false;
  }

  // Every directive of that name directly in a block, commented ones among them.
  std::vector<Directive> find(std::size_t block, const std::string& key) const {
    std::vector<Directive> found;
    const ConfigBlock& scope = sections_.blocks()[block];
    const std::string pattern = isKeyValue_ ? key + "=" : key;
    std::int64_t from = offset(scope.bodyStart);
    std::int64_t start = 0;
    std::int64_t end = 0;
    std::int64_t value = 0;
    std::int32_t commented = 0;
    while (from < offset(scope.bodyEnd) &&
           MatchDirectiveInFile(copy_.stream(), pattern.c_str(), &start, &end, &commented, &value, from,
                                offset(scope.bodyEnd), 0) == 0) {
      from = end + 1;
      const LogicalLine* const line = sections_.lineAt(static_cast<std::size_t>(start));
      if (line == nullptr || line->block != block || line->start >= scope.bodyEnd) continue;
      Directive directive;
      directive.line = line->number;
      directive.start = line->start;
      directive.end = line->end;
      directive.isCommented = commented == 1;
      directive.value = line->start + static_cast<std::size_t>(value);
      directive.keyword = directive.value - pattern.size();
      directive.valueEnd = line->end;
      while (directive.valueEnd > directive.value && isLineEnd(text_[directive.valueEnd - 1])) --directive.valueEnd;
      if (isWhole(directive, pattern)) found.push_back(directive);
    }
    return found;
  }

  static bool isLineEnd(char c) { return c == '\n' || c == '\r'; }

  // The keyword does not go on, and has the letter case that it must have. Moves the value behind the blanks.
  bool isWhole(Directive& directive, const std::string& pattern) const {
    if (isKeyValue_) return text_.compare(directive.keyword, pattern.size(), pattern) == 0;
    if (directive.value < directive.valueEnd && !isBlank(text_[directive.value])) return false;
    while (directive.value < directive.valueEnd && isBlank(text_[directive.value])) ++directive.value;
    return true;
  }

  std::string joinedValue(const Directive& directive) const {
    std::string value;
    for (std::size_t at = directive.value; at < directive.valueEnd; ++at) {
      if (text_[at] == '\\' && at + 1 < directive.valueEnd && isLineEnd(text_[at + 1])) {
        while (at + 1 < directive.valueEnd && isLineEnd(text_[at + 1])) ++at;
        continue;
      }
      value += text_[at];
    }
    while (!value.empty() && isBlank(value.back())) value.pop_back();
    return value;
  }

  bool set(std::size_t block, const std::string& key, std::size_t occurrence, const std::string& value,
           std::string& fault) {
    std::vector<Directive> active = find(block, key);
    std::erase_if(active, [](const Directive& directive) { return directive.isCommented; });
    if (active.empty() && occurrence <= 1) return append(block, key, value, fault);
    const Directive* const one = pick(active, key, occurrence, fault);
    if (one == nullptr) return false;
    const bool needsSpace = !isKeyValue_ && !isBlank(text_[one->value - 1]);
    return replace(one->value, one->valueEnd, needsSpace ? " " + value : value, fault);
  }

  template <class Change>
  bool withOne(std::size_t block, const std::string& key, std::size_t occurrence, bool commented, std::string& fault,
               Change change) {
    std::vector<Directive> found = find(block, key);
    std::erase_if(found, [&](const Directive& directive) { return directive.isCommented != commented; });
    if (found.empty()) {
      fault = format("there is no %s%s", commented ? "commented " : "", key) + elsewhere(block, key);
      return false;
    }
    const Directive* const one = pick(found, key, occurrence, fault);
    return one != nullptr && change(*one) && reread(fault);
  }

  static const Directive* pick(const std::vector<Directive>& found, const std::string& key, std::size_t occurrence,
                               std::string& fault) {
    if (occurrence > found.size()) {
      fault = format("%s stands %zu time(s) there", key, found.size());
      return nullptr;
    }
    if (occurrence == 0 && found.size() > 1) {
      fault = format("%s stands %zu times there, first in lines %zu and %zu: say which, as in '%s[1]'", key,
                     found.size(), found[0].line, found[1].line, key);
      return nullptr;
    }
    return &found[occurrence == 0 ? 0 : occurrence - 1];
  }

  // Where else the directive stands, for a message.
  std::string elsewhere(std::size_t block, const std::string& key) const {
    for (std::size_t i = 0; i < sections_.blocks().size(); ++i) {
      if (i == block || find(i, key).empty()) continue;
      const ConfigBlock& other = sections_.blocks()[i];
      if (i == 0) return format(" there, but outside of blocks: leave --in away");
      return format(" there, but in the block <%s %s> of line %zu: say it with --in", other.name, other.argument,
                    other.line);
    }
    return " there";
  }

  // Behind the last line of a block, indented as that is.
  bool append(std::size_t block, const std::string& key, const std::string& value, std::string& fault) {
    return insertInto(block, isKeyValue_ ? key + "=" + value : key + " " + value, "", fault);
  }

  bool insertInto(std::size_t block, const std::string& first, const std::string& second, std::string& fault) {
    const ConfigBlock& scope = sections_.blocks()[block];
    // Behind a block that is left open, the new line would stand inside it.
    for (const ConfigBlock& other : sections_.blocks())
      if (other.start < scope.bodyEnd && !isClosed(other, fault)) return false;
    const std::string indent = block == 0 ? "" : indentOf(scope);
    const std::string lineEnd = lineEndOfText();
    std::string lines = indent + first + lineEnd;
    if (!second.empty()) lines += indent + second + lineEnd;
    // A backslash at the end of the text would join the new line to it.
    const std::string_view before = std::string_view(text_).substr(0, scope.bodyEnd);
    const bool isJoined = before.ends_with("\\\n") || before.ends_with("\\\r\n");
    if (before.ends_with('\r')) lines.insert(lines.begin(), '\n');
    if (isJoined || (!before.empty() && !isLineEnd(before.back()))) lines.insert(0, lineEnd);
    return replace(scope.bodyEnd, scope.bodyEnd, lines, fault);
  }

  static bool isClosed(const ConfigBlock& block, std::string& fault) {
    if (!block.isClosed) fault = format("the block <%s> of line %zu is not closed", block.name, block.line);
    return block.isClosed;
  }

  // As the first line ends.
  std::string lineEndOfText() const {
    const std::size_t feed = text_.find('\n');
    return feed != std::string::npos && feed > 0 && text_[feed - 1] == '\r' ? "\r\n" : "\n";
  }

  std::string indentOf(const ConfigBlock& scope) const {
    std::string indent = leadingBlanks(scope.start) + "    ";
    for (const LogicalLine& line : sections_.lines())
      if (line.start >= scope.bodyStart && line.start < scope.bodyEnd &&
          sections_.blocks()[line.block].start == scope.start && !isEmpty(line))
        indent = leadingBlanks(line.start);
    return indent;
  }
  std::string leadingBlanks(std::size_t start) const {
    const std::size_t end = std::min(text_.find_first_not_of(" \t", start), text_.size());
    return text_.substr(start, end - start);
  }
  bool isEmpty(const LogicalLine& line) const { return text_.find_first_not_of(" \t\r\n", line.start) >= line.end; }

  bool addBlock(const ConfigEdit& edit, std::string& fault) {
    const std::string opening = "<" + edit.value + ">";
    const auto tag = configTagIn(opening);
    if (isKeyValue_ || !tag || tag->name.find_first_of("</>") != std::string_view::npos || holdsControls(edit.value)) {
      fault = format("'%s' cannot be a block", edit.value);
      return false;
    }
    const auto block = sections_.blockAt(edit.blocks, fault);
    return block && insertInto(*block, opening, format("</%s>", tag->name), fault);
  }

  bool applyToBlock(const ConfigEdit& edit, std::string& fault) {
    if (edit.blocks.empty() || isKeyValue_ || edit.verb == ConfigEdit::Verb::set ||
        edit.verb == ConfigEdit::Verb::add) {
      fault = "say which KEY";
      return false;
    }
    if (edit.verb == ConfigEdit::Verb::uncomment) return uncommentBlock(edit, fault);
    const auto block = sections_.blockAt(edit.blocks, fault);
    if (!block) return false;
    const ConfigBlock& scope = sections_.blocks()[*block];
    if (!isClosed(scope, fault)) return false;
    if (edit.verb == ConfigEdit::Verb::unset) return replace(scope.start, scope.end, "", fault);
    // Also before the lines that are comments already, so that uncommenting brings back what was there.
    std::string commented;
    for (std::size_t at = scope.start; at < scope.end;) {
      const std::size_t end = std::min(text_.find('\n', at), scope.end - 1) + 1;
      if (!isLineEnd(text_[at])) commented += '#';
      commented.append(text_, at, end - at);
      at = end;
    }
    return replace(scope.start, scope.end, commented, fault);
  }

  bool uncommentBlock(const ConfigEdit& edit, std::string& fault) {
    const auto outer = sections_.blockAt({edit.blocks.begin(), edit.blocks.end() - 1}, fault);
    if (!outer) return false;
    std::size_t start = std::string::npos;
    std::string name;
    for (const LogicalLine& line : sections_.lines()) {
      const std::string_view shown = std::string_view(text_).substr(line.start, line.end - line.start);
      if (line.block != *outer || !shown.starts_with('#')) continue;
      const auto tag = configTagIn(shown.substr(1));
      if (!tag) continue;
      if (start == std::string::npos && namesBlock(edit.blocks.back(), tag->name, tag->argument)) {
        start = line.start;
        name = tag->name;
      } else if (start != std::string::npos && equalIgnoringCase(tag->name, "/" + name)) {
        std::int64_t delta = 0;
        const std::int32_t code =
            CommentOutBlockInFile(copy_.stream(), 0, offset(start), offset(line.start), nullptr, &delta);
        filling_ += static_cast<std::size_t>(-delta);
        return code == 0 || failed(code, fault);
      }
    }
    fault = format("there is no block <%s> with a '#' before each of its lines", edit.blocks.back());
    return false;
  }

  bool replace(std::size_t start, std::size_t end, const std::string& by, std::string& fault) {
    std::int64_t delta = 0;
    const std::int32_t code = InsertTextInFile(copy_.stream(), by.c_str(), offset(start), offset(end), &delta);
    if (delta < 0) filling_ += static_cast<std::size_t>(-delta);
    return code == 0 || failed(code, fault);
  }

  static bool failed(std::int32_t code, std::string& fault) {
    fault = format("the edit failed with code %d", code);
    return false;
  }

  // Takes the edited text without the line feeds that fill it up.
  bool reread(std::string& fault) {
    auto edited = copy_.text();
    if (edited && filling_ > 0) {
      edited->resize(edited->size() - filling_);
      auto fresh = EditableText::open(*edited);
      if (!fresh)
        edited.reset();
      else
        copy_ = std::move(*fresh);
    }
    filling_ = 0;
    if (!edited) {
      fault = "no memory for the edited text";
      return false;
    }
    text_ = std::move(*edited);
    sections_ = ConfigSections(text_);
    return true;
  }

  bool isKeyValue_;
  std::string text_;
  EditableText copy_;
  ConfigSections sections_;
  std::size_t filling_ = 0;  // line feeds at the end that fill up what became shorter
};

}  // namespace

std::unique_ptr<ConfigText> makeDirectiveText(ConfigFormat format, const std::string& text, std::string& fault) {
  if (text.find('\0') != std::string::npos) {
    fault = "it holds NUL bytes: that is no text file";
    return nullptr;
  }
  if (text.find('\r') != std::string::npos && text.find('\n') == std::string::npos) {
    fault = "its lines end in CR alone, and what reads such files takes that for one line";
    return nullptr;
  }
  auto copy = EditableText::open(text);
  if (!copy) {
    fault = "no memory for a copy of the file";
    return nullptr;
  }
  return std::make_unique<DirectiveText>(format == ConfigFormat::keyValue, text, std::move(*copy));
}

}  // namespace ostrel
