#include "ConfigFiles/TextBlocks.h"

#include <limits>
#include <new>
#include <string>

#include "ConfigFiles/Internal/LineText.h"
#include "ConfigFiles/Internal/PatternMatch.h"
#include "ConfigFiles/Internal/TextFileLines.h"

namespace ostrel {
namespace {

using detail::Place;
using detail::TextLine;

struct Block {
  std::int64_t start = -1;
  std::int64_t end = -1;
  std::int32_t lines = 0;
  bool isCommented = false;
};

// What stands between the name and the end of the opening line.
bool argumentFits(std::string_view rest, const char* argument) {
  rest = detail::withoutLeadingBlanks(rest);
  if (argument == nullptr) return rest.find('>') != std::string_view::npos;
  const std::string_view wanted = argument;
  if (!detail::beginsWith(rest, wanted)) return false;
  rest.remove_prefix(wanted.size());
  return (wanted.empty() ? rest : detail::withoutLeadingBlanks(rest)).starts_with('>');
}

bool isOpening(std::string_view text, const std::string& tag, const char* argument, bool& isCommented) {
  const detail::PatternMatch match = detail::matchPattern(text, tag);
  if (!match) return false;
  const Place place = detail::placeOf(text, match.start);
  if (place == Place::inside) return false;
  if (place == Place::behindCommentMark) isCommented = true;
  return argumentFits(text.substr(match.end()), argument);
}

bool isClosing(std::string_view text, const std::string& tag) {
  const detail::PatternMatch match = detail::matchPattern(text, tag);
  return match && detail::placeOf(text, match.start) != Place::inside;
}

std::int32_t find(std::FILE* stream, const char* name, const char* argument, Block& block) {
  const std::string opening = std::string("<") + name;
  const std::string closing = std::string("</") + name + ">";
  detail::TextLineReader reader(stream, 0);
  std::int64_t start = -1;
  while (reader.next()) {
    const TextLine& line = reader.line();
    if (start < 0) {
      if (!isOpening(line.text(), opening, argument, block.isCommented)) continue;
      start = line.offset;
      block.lines = 1;
      continue;
    }
    if (block.lines < std::numeric_limits<std::int32_t>::max()) ++block.lines;
    if (!isClosing(line.text(), closing)) continue;
    block.start = start;
    block.end = line.end();
    return 0;
  }
  return reader.failure() != 0 ? reader.failure() : kBlockNotFoundErr;
}

class CommentMarks final : public detail::LineEditor {
 public:
  CommentMarks(bool comment, bool firstOnly, const char* const* skipPatterns)
      : comment_(comment), firstOnly_(firstOnly), skipPatterns_(skipPatterns) {}

  detail::LineEdit edit(const TextLine& line) override {
    if (line.isEmpty() || isSkipped(line)) return {};
    const bool isCommented = line.bytes.front() == '#';
    detail::LineEdit edit;
    edit.changes = comment_ != isCommented;
    edit.isLast = firstOnly_;
    if (comment_)
      edit.text = "#";
    else
      edit.length = 1;
    return edit;
  }

 private:
  bool isSkipped(const TextLine& line) const {
    if (skipPatterns_ == nullptr) return false;
    for (const char* const* pattern = skipPatterns_; *pattern != nullptr; ++pattern)
      if (detail::matchPattern(line.text(), *pattern)) return true;
    return false;
  }

  bool comment_;
  bool firstOnly_;
  const char* const* skipPatterns_;
};

}  // namespace

extern "C" {

std::int32_t MatchBlockInFile(std::FILE* stream, const char* name, const char* argument, std::int64_t* start,
                              std::int64_t* end, std::int32_t* commented, std::int32_t* lineCount) {
  Block block;
  std::int32_t code = kBlockNotFoundErr;
  try {
    if (name != nullptr) code = find(stream, name, argument, block);
  } catch (const std::bad_alloc&) {
    code = kTextFileNoMemoryErr;
  }
  if (start != nullptr) *start = block.start;
  if (end != nullptr) *end = block.end;
  if (commented != nullptr) *commented = block.isCommented ? 1 : 0;
  if (lineCount != nullptr) *lineCount = block.lines;
  return code;
}

std::int32_t CommentOutBlockInFile(std::FILE* stream, std::int32_t comment, std::int64_t start, std::int64_t end,
                                   const char* const* skipPatterns, std::int64_t* totalDelta) {
  CommentMarks editor(comment == 1, end == -1, skipPatterns);
  std::int64_t delta = 0;
  const std::int32_t code = detail::editLines(stream, start, end, editor, delta);
  if (totalDelta != nullptr) *totalDelta = delta;
  return code;
}

}  // extern "C"

}  // namespace ostrel
