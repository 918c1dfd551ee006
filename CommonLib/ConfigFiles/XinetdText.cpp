#include "ConfigFiles/Internal/XinetdText.h"
#include "ConfigFiles/Internal/TextLines.h"
#include "Containers/Format.h"
#include "Containers/Utf8.h"

namespace ostrel::detail {
namespace {

// Which of the four lines that matter a line is, as far as that can be told without its place.
struct Line {
  explicit Line(std::string_view whole) : text(whole), rest(whole) {
    first = takeWord(rest);
    std::string_view afterSecond = rest;
    second = takeWord(afterSecond);
    value = trimBlanks(afterSecond);
  }
  bool isIgnored() const { return first.empty() || first.starts_with('#'); }
  bool isHeader() const { return first == "service"; }
  bool opensBlock() const { return first.starts_with('{'); }
  bool closesBlock() const { return first == "}"; }

  std::string_view text;
  std::string_view rest;    // behind the first word
  std::string_view first;   // the key of an entry
  std::string_view second;  // its operator, the name in a header
  std::string_view value;   // what follows, trimmed
};

// Where the walk over the lines is.
class Place {
 public:
  explicit Place(std::string_view service) : service_(service) {}

  /// Takes a line outside the service's own blocks into account.
  void pass(const Line& line) {
    // Meant: while a brace is awaited a header is a line like any other, and the next brace is the first header's.
    if (state_ == State::outside && line.isHeader())
      state_ = line.second == service_ ? State::ownHeader : State::otherHeader;
    else if (state_ == State::ownHeader && line.opensBlock())
      state_ = State::ownBlock;
    else if (state_ == State::otherHeader && line.opensBlock())
      state_ = State::otherBlock;
    else if (state_ == State::otherBlock && line.closesBlock())
      state_ = State::outside;
  }
  /// The same where a brace may stand at the end of the header's line.
  void passWithBrace(const Line& line) {
    const bool brace = state_ == State::outside && line.isHeader() && line.value.starts_with('{');
    pass(line);
    if (brace) state_ = state_ == State::ownHeader ? State::ownBlock : State::otherBlock;
  }
  bool isInOwnBlock() const { return state_ == State::ownBlock; }
  void leaveBlock() { state_ = State::outside; }

 private:
  enum class State { outside, otherHeader, ownHeader, otherBlock, ownBlock };
  std::string_view service_;
  State state_ = State::outside;
};

// Lines of one character are read, and so written, with two spaces behind it.
std::string paddedLine(std::string_view line) {
  constexpr std::size_t longestOneUnitCharacter = 3;
  const bool isOneCharacter =
      !line.empty() && line.size() <= longestOneUnitCharacter && leadingCharacterLength(line) == line.size();
  return std::string(line) + (isOneCharacter ? "  " : "");
}

// Copies the lines into an edit's text; `change` appends what stands for a line of the service's own blocks, and tells
// whether to go on.
template <class Change>
XinetdEdit rewrite(std::string_view text, std::string_view service, Change change) {
  XinetdEdit edit;
  edit.text.reserve(text.size() + 64);
  Place place(service);
  for (const std::string_view line : linesOf(text)) {
    const std::string padded = paddedLine(line);
    const Line parsed(padded);
    if (parsed.isIgnored()) {
      edit.text += padded + '\n';
    } else if (place.isInOwnBlock()) {
      if (!change(edit, place, parsed)) return edit;
    } else {
      place.pass(parsed);
      edit.text += padded + '\n';
    }
  }
  if (!edit.text.empty()) edit.text.pop_back();
  return edit;
}

}  // namespace

std::optional<std::string_view> xinetdValue(std::string_view text, std::string_view service, std::string_view key) {
  Place place(service);
  for (const std::string_view line : linesOf(text)) {
    const Line parsed(line);
    if (parsed.isIgnored()) continue;
    if (!place.isInOwnBlock())
      place.passWithBrace(parsed);
    else if (parsed.closesBlock())
      place.leaveBlock();
    else if (parsed.first == key)
      return parsed.value;
  }
  return std::nullopt;
}

XinetdEdit xinetdWithEntry(std::string_view text, std::string_view service, std::string_view key,
                           std::string_view value) {
  bool replaced = false;
  return rewrite(text, service, [&](XinetdEdit& edit, Place& place, const Line& line) {
    if (line.closesBlock() && !replaced) {
      // Meant: the block is not left and the entry does not count, so that later braces and entries belong to it, too.
      edit.text += format("\t%@\t= %@\n}\n", key, value);
    } else if (line.closesBlock() || line.first != key || replaced) {
      if (line.closesBlock()) place.leaveBlock();
      edit.text.append(line.text) += '\n';
    } else if (line.value == value) {
      edit.hasEntryAlready = true;
      return false;
    } else {
      // The operator is kept whatever it is; a line without one gets one, or the value would be taken for it.
      edit.text += format("\t%@\t%@ %@\n", key, line.second.empty() ? "=" : line.second, value);
      replaced = true;
    }
    return true;
  });
}

XinetdEdit xinetdWithoutEntry(std::string_view text, std::string_view service, std::string_view key) {
  return rewrite(text, service, [&](XinetdEdit& edit, Place& place, const Line& line) {
    if (!line.closesBlock() && line.first == key) {
      ++edit.deletedEntries;
      return true;
    }
    // Meant: a block in which nothing was deleted is not left.
    if (line.closesBlock() && edit.deletedEntries > 0) place.leaveBlock();
    edit.text.append(line.text) += '\n';
    return true;
  });
}

}  // namespace ostrel::detail
