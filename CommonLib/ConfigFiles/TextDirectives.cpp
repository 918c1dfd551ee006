#include "ConfigFiles/TextDirectives.h"

#include <algorithm>
#include <cstring>
#include <new>
#include <string>

#include "ConfigFiles/Internal/LineText.h"
#include "ConfigFiles/Internal/PatternMatch.h"
#include "ConfigFiles/Internal/StreamBytes.h"
#include "ConfigFiles/Internal/TextFileLines.h"
#include "ConfigFiles/Internal/VirtualHostSkip.h"
#include "ConfigFiles/TextFileEditing.h"
#include "Containers/Format.h"

namespace ostrel {
namespace {

using detail::PatternMatch;
using detail::Place;
using detail::SingleLine;
using detail::TextLine;

constexpr std::size_t bufferSize = 512;

struct Found {
  std::int64_t lineStart = -1;
  std::int64_t lineEnd = -1;
  std::int64_t valueOffset = 0;
  bool isCommented = false;
  bool hasLineEnd = false;
};

// Where the value begins in a line that holds the directive; 0 when it does not.
std::size_t valueOffsetIn(std::string_view text, std::string_view directive, bool spaceRequired, bool& isCommented) {
  const PatternMatch match = detail::matchPattern(text, directive);
  if (!match) return 0;
  std::size_t value = match.end();
  if (spaceRequired && (value == text.size() || !detail::isBlank(text[value++]))) return 0;
  const Place place = detail::placeOf(text, match.start);
  isCommented = place == Place::behindCommentMark;
  return place == Place::inside ? 0 : value;
}

std::int32_t find(std::FILE* stream, const char* directive, std::int64_t start, std::int64_t limit, bool spaceRequired,
                  Found& found) {
  if (directive == nullptr) return kDirectiveNotFoundErr;
  const bool skipsVirtualHosts = start == detail::searchOutsideVirtualHosts;
  detail::TextLineReader reader(stream, skipsVirtualHosts ? 0 : start);
  detail::VirtualHostSkip skip(skipsVirtualHosts);
  const std::string_view pattern = directive;
  bool hasReadLines = false;
  while (reader.next()) {
    hasReadLines = true;
    const TextLine& line = reader.line();
    if (limit >= 1 && line.offset > limit) return kDirectiveNotFoundErr;
    if (skip.passesOver(line)) continue;
    const std::size_t value = valueOffsetIn(line.text(), pattern, spaceRequired, found.isCommented);
    if (value == 0) continue;
    found.lineStart = line.offset;
    found.lineEnd = line.end();
    found.valueOffset = static_cast<std::int64_t>(value);
    found.hasLineEnd = detail::isLineEnd(line.bytes.back());
    return 0;
  }
  return hasReadLines && reader.failure() != 0 ? reader.failure() : kDirectiveNotFoundErr;
}

template <class Value>
void store(Value* out, Value value) {
  if (out != nullptr) *out = value;
}

// Into a buffer of 512 bytes.
void storeText(char* out, std::string_view text) {
  if (out == nullptr) return;
  text = text.substr(0, bufferSize - 1);
  std::memcpy(out, text.data(), text.size());
  out[text.size()] = '\0';
}

void storeValue(char* out, std::string_view text) {
  if (out == nullptr) return;
  std::size_t length = 0;
  for (const char c : detail::withoutLeadingBlanks(text))
    if (!detail::isLineEnd(c) && length < bufferSize - 1) out[length++] = c;
  out[length] = '\0';
}

// Everything from the value on. A last line without a line end has none to keep.
std::int32_t replaceValue(std::FILE* stream, const Found& found, const char* value, std::int64_t& delta) {
  std::int64_t end = found.lineEnd;
  if (!found.hasLineEnd) {
    std::int64_t size = 0;
    const std::int32_t code = detail::streamSize(stream, size);
    if (code != 0) return code;
    if (end + 1 == size) end = size;
  }
  return InsertTextInFile(stream, value, found.lineStart + found.valueOffset, end, &delta);
}

std::int32_t replaceOldValue(std::FILE* stream, const Found& found, const char* oldValue, const char* value,
                             std::int64_t& delta) {
  PatternMatch match;
  {
    const SingleLine line(stream, found.lineStart);
    if (!line) return kTextFileReadErr;
    match = detail::matchPattern(line->text(), oldValue);
  }
  if (!match) return 0;
  const std::int64_t start = found.lineStart + static_cast<std::int64_t>(match.start);
  return InsertTextInFile(stream, value, start, start + static_cast<std::int64_t>(match.length), &delta);
}

}  // namespace

extern "C" {

std::int32_t MatchDirectiveInFile(std::FILE* stream, const char* directive, std::int64_t* lineStart,
                                  std::int64_t* lineEnd, std::int32_t* commented, std::int64_t* valueOffset,
                                  std::int64_t searchStart, std::int64_t searchLimit, std::int32_t spaceRequired) {
  Found found;
  const std::int32_t code = find(stream, directive, searchStart, searchLimit, spaceRequired == 1, found);
  store(lineStart, found.lineStart);
  store(lineEnd, found.lineEnd);
  store(commented, code == 0 && found.isCommented ? 1 : 0);
  store(valueOffset, found.valueOffset);
  return code;
}

std::int32_t ReadDirectiveInFileAlt(std::FILE* stream, char* directive, std::int64_t* lineStart, char* value,
                                    std::int32_t* commented, std::int64_t searchStart, std::int64_t searchLimit,
                                    std::int32_t spaceRequired) {
  Found found;
  const std::int32_t code = find(stream, directive, searchStart, searchLimit, spaceRequired == 1, found);
  store(lineStart, found.lineStart);
  store(commented, code == 0 && found.isCommented ? 1 : 0);
  if (code != 0) return code;
  const SingleLine line(stream, found.lineStart);
  if (!line) return kDirectiveNotFoundErr;
  const PatternMatch match = detail::matchPattern(line->text(), directive);
  if (!match) return kDirectiveNotFoundErr;
  storeValue(value, line->text().substr(match.end()));
  std::string_view keyword = line->text().substr(match.start, match.length);
  if (detail::isLineEnd(keyword.back())) keyword.remove_suffix(1);
  if (match.length < bufferSize) storeText(directive, keyword);
  return 0;
}

std::int32_t ReadDirectiveInFile(std::FILE* stream, char* directive, std::int64_t* lineStart, char* value,
                                 std::int32_t* commented, std::int64_t searchStart, std::int64_t searchLimit) {
  return ReadDirectiveInFileAlt(stream, directive, lineStart, value, commented, searchStart, searchLimit, 1);
}

std::int32_t UpdateDirectiveInFileAlt(std::FILE* stream, const char* directive, const char* oldValue,
                                      const char* newValue, std::int64_t searchStart, std::int64_t* searchLimit,
                                      std::int32_t spaceRequired) {
  if (oldValue != nullptr && newValue != nullptr && std::strcmp(oldValue, newValue) == 0) return 0;
  const std::int64_t limit = searchLimit != nullptr ? *searchLimit : 0;
  Found found;
  std::int32_t code = find(stream, directive, searchStart, limit, spaceRequired == 1, found);
  if (code != 0) return code;
  std::int64_t delta = 0;
  const bool hasOldValue = oldValue != nullptr && *oldValue != '\0';
  code = hasOldValue ? replaceOldValue(stream, found, oldValue, newValue, delta)
                     : replaceValue(stream, found, newValue, delta);
  // Never to 0 or below, which would mean no limit.
  if (code == 0 && limit >= 1) *searchLimit = std::max<std::int64_t>(1, limit + delta);
  return code;
}

std::int32_t UpdateDirectiveInFile(std::FILE* stream, const char* directive, const char* oldValue, const char* newValue,
                                   std::int64_t searchStart, std::int64_t* searchLimit) {
  return UpdateDirectiveInFileAlt(stream, directive, oldValue, newValue, searchStart, searchLimit, 1);
}

std::int32_t DeleteDirectiveInFile(std::FILE* stream, const char* directive, std::int64_t searchStart,
                                   std::int64_t searchLimit) {
  Found found;
  const std::int32_t code = find(stream, directive, searchStart, searchLimit, true, found);
  return code != 0 ? code : DeleteSelectionInFile(stream, found.lineStart, found.lineEnd);
}

std::int32_t CreateDirectiveInFile(std::FILE* stream, const char* directive, const char* value, std::int32_t withSpace,
                                   std::int32_t commented, std::int32_t trailingNewline) {
  constexpr char feed = 10;
  constexpr char mark = 35;
  constexpr char space = 32;
  if (directive == nullptr) directive = "";
  if (value == nullptr) value = "";
  try {
    std::string line;
    if (withSpace == 1)
      line = commented == 1 ? format("%c%c%s%c%s", feed, mark, directive, space, value)
                            : format("%c%s%c%s", feed, directive, space, value);
    else
      line =
          commented == 1 ? format("%c%c%s%s", feed, mark, directive, value) : format("%c%s%s", feed, directive, value);
    if (trailingNewline == 1) line += feed;
    std::int64_t size = 0;
    const std::int32_t code = detail::streamSize(stream, size);
    return code != 0 ? code : detail::writeStream(stream, size, {line}, size);
  } catch (const std::bad_alloc&) {
    return kTextFileNoMemoryErr;
  }
}

}  // extern "C"

}  // namespace ostrel
