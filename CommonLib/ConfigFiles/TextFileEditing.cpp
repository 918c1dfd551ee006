#include "ConfigFiles/TextFileEditing.h"

#include <limits>
#include <new>
#include <string>

#include "ConfigFiles/Internal/PatternMatch.h"
#include "ConfigFiles/Internal/StreamBytes.h"
#include "ConfigFiles/Internal/TextFileLines.h"
#include "ConfigFiles/Internal/VirtualHostSkip.h"

namespace ostrel {
namespace {

std::int32_t insertText(std::FILE* stream, std::string_view text, std::int64_t start, std::int64_t end,
                        std::int64_t& delta) {
  std::int64_t size = 0;
  std::int32_t code = detail::streamSize(stream, size);
  if (code != 0) return code;
  if (start < 0 || start > end || end > size) return kTextFileSeekErr;
  const std::int64_t change = static_cast<std::int64_t>(text.size()) - (end - start);
  std::string tail;
  if (change != 0) code = detail::readStream(stream, end, size, tail);
  if (code != 0) return code;
  const std::string filling(static_cast<std::size_t>(change < 0 ? -change : 0), '\n');
  code = detail::writeStream(stream, start, {text, tail, filling}, size);
  if (code == 0) delta = change;
  return code;
}

class FirstMatchReplacement final : public detail::LineEditor {
 public:
  FirstMatchReplacement(std::string_view pattern, std::string_view replacement, bool skipsVirtualHosts)
      : pattern_(pattern), replacement_(replacement), skip_(skipsVirtualHosts) {}

  detail::LineEdit edit(const detail::TextLine& line) override {
    if (skip_.passesOver(line)) return {};
    const detail::PatternMatch match = detail::matchPattern(line.text(), pattern_);
    if (!match) return {};
    return {.start = match.start, .length = match.length, .text = replacement_, .changes = true};
  }

 private:
  std::string_view pattern_;
  std::string_view replacement_;
  detail::VirtualHostSkip skip_;
};

std::string_view orEmpty(const char* text) { return text == nullptr ? "" : text; }

}  // namespace

extern "C" {

std::int32_t GetSizeOfFile(std::FILE* stream, std::int64_t* size) {
  std::int64_t found = 0;
  const std::int32_t code = detail::streamSize(stream, found);
  if (size != nullptr) *size = found;
  return code;
}

std::int32_t InsertTextInFile(std::FILE* stream, const char* text, std::int64_t start, std::int64_t end,
                              std::int64_t* delta) {
  std::int64_t change = 0;
  std::int32_t code = 0;
  try {
    code = insertText(stream, orEmpty(text), start, end, change);
  } catch (const std::bad_alloc&) {
    code = kTextFileNoMemoryErr;
  }
  if (code != 0 && stream != nullptr) std::fflush(stream);
  if (delta != nullptr) *delta = change;
  return code;
}

std::int32_t DeleteSelectionInFile(std::FILE* stream, std::int64_t start, std::int64_t end) {
  if (end < 0) {
    const std::int32_t code = detail::streamSize(stream, end);
    return code != 0 ? code : InsertTextInFile(stream, nullptr, start, end, nullptr);
  }
  if (end == std::numeric_limits<std::int64_t>::max()) return kTextFileSeekErr;
  return InsertTextInFile(stream, nullptr, start, end + 1, nullptr);
}

std::int32_t ReplaceTextInFile(std::FILE* stream, const char* pattern, const char* replacement,
                               std::int64_t searchStart, std::int64_t searchLimit) {
  if (pattern == nullptr) return 0;
  const bool skipsVirtualHosts = searchStart == detail::searchOutsideVirtualHosts;
  FirstMatchReplacement editor(pattern, orEmpty(replacement), skipsVirtualHosts);
  std::int64_t delta = 0;
  return detail::editLines(stream, skipsVirtualHosts ? 0 : searchStart, searchLimit, editor, delta);
}

}  // extern "C"

}  // namespace ostrel
