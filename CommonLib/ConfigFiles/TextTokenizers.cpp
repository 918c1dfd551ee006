#include "ConfigFiles/TextTokenizers.h"

#include <cstring>

#include "ConfigFiles/Internal/LineText.h"

namespace ostrel {
namespace {

std::int32_t answer(std::size_t* out, std::size_t count) {
  if (out != nullptr) *out = count;
  return 0;
}

const char* orEmpty(const char* text) { return text == nullptr ? "" : text; }

}  // namespace

extern "C" {

std::int32_t ParseTextUntilNoSpace(const char* text, std::size_t* length) {
  return answer(length, std::strspn(orEmpty(text), " \t"));
}

std::int32_t ParseTextUntilSpace(const char* text, std::size_t* length) {
  return answer(length, std::strcspn(orEmpty(text), " \t"));
}

std::int32_t ParseTextUntilSpaceOrColon(const char* text, std::size_t* length) {
  return answer(length, std::strcspn(orEmpty(text), " \t:"));
}

std::int32_t ParseTextUntilNumber(const char* text, std::size_t* length) {
  return answer(length, std::strcspn(orEmpty(text), "0123456789"));
}

std::int32_t ParseNextWord(const char* text, std::size_t* skip, std::size_t* length) {
  text = orEmpty(text);
  const std::size_t blanks = std::strspn(text, " \t\r\n");
  answer(skip, blanks);
  return answer(length, std::strcspn(text + blanks, " \t\r\n"));
}

std::int32_t ParseTextUntilEOL(const char* text, std::size_t maximum, std::size_t* length) {
  text = orEmpty(text);
  std::size_t count = 0;
  while (count < maximum && text[count] != '\0' && !detail::isLineEnd(text[count])) ++count;
  return answer(length, count);
}

std::int32_t ParsePathName(const char* text, std::size_t* length) {
  text = orEmpty(text);
  const bool isQuoted = *text == '"' || *text == '\'' || *text == '`';
  if (!isQuoted) return answer(length, std::strcspn(text, " \t>\r\n"));
  const char* const closing = std::strchr(text + 1, *text);
  return answer(length, closing == nullptr ? std::strlen(text) : static_cast<std::size_t>(closing + 1 - text));
}

std::int32_t ParseTextUntilMismatch(const char* text, const char* pattern, std::size_t* length) {
  text = orEmpty(text);
  pattern = orEmpty(pattern);
  if (*pattern == '\0') return answer(length, std::strlen(text));
  std::size_t count = 0;
  while (pattern[count] != '\0' && text[count] != '\0' && detail::equalIgnoringCase(text[count], pattern[count]))
    ++count;
  return answer(length, count);
}

char ToLowerCase(char character) { return detail::lowerCase(character); }

const char* ExtractFileName(const char* path) {
  if (path == nullptr || *path == '\0') return path;
  const char* name = path + 1;
  for (const char* at = path; *at != '\0'; ++at)
    if (*at == '/' || *at == ':') name = at + 1;
  return name;
}

}  // extern "C"

}  // namespace ostrel
