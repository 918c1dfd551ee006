// Directives and blocks edited in text that anybody may have written, with patterns and positions of all kinds.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>

#include "ConfigFiles/TextBlocks.h"
#include "ConfigFiles/TextDirectives.h"
#include "ConfigFiles/TextFileChange.h"
#include "ConfigFiles/TextFileEditing.h"

namespace {

using ostrel::EditableText;

void require(bool holds) {
  if (!holds) std::abort();
}

std::string takeLine(std::string_view& input) {
  const std::string_view line = input.substr(0, input.find('\n'));
  input.remove_prefix(std::min(line.size() + 1, input.size()));
  return std::string(line);
}

EditableText opened(std::string_view text) {
  auto made = EditableText::open(text);
  require(made.has_value());
  return std::move(*made);
}

std::string textOf(const EditableText& edited) {
  const auto text = edited.text();
  require(text.has_value());
  return *text;
}

// What an edit leaves: the file is never shorter than before.
std::string after(std::string_view text, const auto& edit) {
  const EditableText edited = opened(text);
  edit(edited.stream());
  std::string result = textOf(edited);
  require(result.size() >= text.size());
  return result;
}

void findAndChange(std::string_view text, const char* pattern, const char* value, std::int64_t from,
                   std::int64_t limit) {
  const EditableText file = opened(text);
  std::int64_t start = 0;
  std::int64_t end = 0;
  std::int64_t offset = 0;
  std::int32_t commented = 0;
  for (const int space : {0, 1}) {
    const int code =
        ostrel::MatchDirectiveInFile(file.stream(), pattern, &start, &end, &commented, &offset, from, limit, space);
    const auto size = static_cast<std::int64_t>(text.size());
    require(code == 0 ? start >= 0 && start <= end && end < size && start + offset <= size : start == -1);
    char keyword[512] = "";
    char read[512] = "";
    std::strncpy(keyword, pattern, sizeof keyword - 1);
    ostrel::ReadDirectiveInFileAlt(file.stream(), keyword, &start, read, &commented, from, limit, space);
    require(std::memchr(read, 0, sizeof read) != nullptr && std::strpbrk(read, "\r\n") == nullptr);
  }
  require(textOf(file) == text);
  after(text, [&](std::FILE* stream) {
    std::int64_t moved = limit;
    ostrel::UpdateDirectiveInFileAlt(stream, pattern, nullptr, value, from, &moved, 0);
    require(limit < 1 || moved >= 1);
    ostrel::UpdateDirectiveInFile(stream, pattern, pattern, value, from, &moved);
  });
  const auto deleted =
      after(text, [&](std::FILE* stream) { ostrel::DeleteDirectiveInFile(stream, pattern, from, limit); });
  require(deleted.size() == text.size());
  after(text, [&](std::FILE* stream) { ostrel::ReplaceTextInFile(stream, pattern, value, from, limit); });
  after(text, [&](std::FILE* stream) { ostrel::InsertTextInFile(stream, value, from, limit, nullptr); });
}

void findBlock(std::string_view text, const char* name, const char* argument, std::int64_t from, std::int64_t limit) {
  const EditableText file = opened(text);
  std::int64_t start = 0;
  std::int64_t end = 0;
  std::int32_t lines = 0;
  const int code = ostrel::MatchBlockInFile(file.stream(), name, argument, &start, &end, nullptr, &lines);
  require(code == 0 ? 0 <= start && start < end && lines >= 2 : start == -1 && end == -1);
  const char* skip[] = {argument, nullptr};
  std::int64_t delta = 0;
  const std::string commented =
      after(text, [&](std::FILE* stream) { ostrel::CommentOutBlockInFile(stream, 1, from, limit, skip, &delta); });
  require(commented.size() == text.size() + static_cast<std::size_t>(delta));
  after(text, [&](std::FILE* stream) { ostrel::CommentOutBlockInFile(stream, 0, from, limit, nullptr, &delta); });
}

// No run of blank lines is left, and a second time changes nothing.
void compact(std::string_view text) {
  const auto once = opened(text).compactText();
  require(once.has_value() && once->size() <= text.size());
  require(opened(*once).compactText() == once);
}

}  // namespace

// The first three lines are a pattern, a value and two numbers; the rest is the file.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
  std::string_view input(reinterpret_cast<const char*>(bytes), size);
  const std::string pattern = takeLine(input);
  const std::string value = takeLine(input);
  const std::string numbers = takeLine(input);
  char* rest = nullptr;
  const std::int64_t from = std::strtoll(numbers.c_str(), &rest, 10);
  const std::int64_t limit = std::strtoll(rest, nullptr, 10);
  findAndChange(input, pattern.c_str(), value.c_str(), from, limit);
  findBlock(input, pattern.c_str(), value.c_str(), from, limit);
  compact(input);
  return 0;
}
