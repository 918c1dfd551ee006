#include "ConfigFiles/CStrings.h"

#include <cstdlib>
#include <cstring>
#include <functional>
#include <string_view>

#include "ConfigFiles/Internal/LineText.h"

namespace ostrel {
namespace {

std::string_view orEmpty(const char* text) { return text == nullptr ? "" : text; }

void copyCut(char* destination, std::string_view text, std::size_t size) {
  if (destination == nullptr || size == 0) return;
  text = text.substr(0, size - 1);
  std::memmove(destination, text.data(), text.size());
  destination[text.size()] = '\0';
}

bool isQuoted(std::string_view text) { return text.size() >= 2 && text.front() == '"' && text.back() == '"'; }

// How many characters a destination holds: `size` when it is not terminated.
std::size_t lengthWithin(const char* destination, std::size_t size) {
  return destination == nullptr ? size : strnlen(destination, size);
}

std::string_view withoutTrailingSlash(std::string_view path) {
  if (path.ends_with('/')) path.remove_suffix(1);
  return path;
}

bool isWithin(const char* pointer, std::string_view text) {
  const std::less<> before;
  return !before(pointer, text.data()) && !before(text.data() + text.size(), pointer);
}

}  // namespace

extern "C" {

void MyCopyCStrings(char* destination, const char* source, std::size_t size) {
  copyCut(destination, orEmpty(source), size);
}

void MyConcatCStrings(char* destination, const char* source, std::size_t size) {
  const std::size_t length = lengthWithin(destination, size);
  if (length >= size) return;
  copyCut(destination + length, orEmpty(source), size - length);
}

void MyConcatCPaths(char* destination, const char* component, std::size_t size) {
  std::size_t length = lengthWithin(destination, size);
  if (length == 0 || length >= size) return;
  while (length > 1 && destination[length - 1] == '/' && destination[length - 2] == '/') destination[--length] = '\0';
  std::string_view rest = orEmpty(component);
  rest.remove_prefix(std::min(rest.find_first_not_of('/'), rest.size()));
  if (destination[length - 1] != '/') {
    copyCut(destination + length, "/", size - length);
    length = strnlen(destination, size);
  }
  copyCut(destination + length, rest, size - length);
}

std::int32_t MyCompareCPaths(const char* a, const char* b, std::int32_t* isAncestor) {
  if (isAncestor != nullptr) *isAncestor = 0;
  std::string_view above = orEmpty(a);
  std::string_view below = orEmpty(b);
  if (above.empty() || below.empty()) return 0;
  above = withoutTrailingSlash(above);
  below = withoutTrailingSlash(below);
  if (!below.starts_with(above)) return 0;
  if (below.size() == above.size()) return 1;
  if (below[above.size()] != '/') return 0;
  if (isAncestor != nullptr) *isAncestor = 1;
  return 1;
}

void MyCopyCStringsWithDQ(const char* source, char* destination, std::size_t size) {
  const std::string_view text = orEmpty(source);
  if (isQuoted(text) || size < 3 || text.size() > size - 3 || destination == nullptr) {
    copyCut(destination, text, size);
    return;
  }
  const std::size_t length = text.size();
  std::memmove(destination + 1, text.data(), length);
  destination[0] = '"';
  destination[length + 1] = '"';
  destination[length + 2] = '\0';
}

void MyCopyCStringsWithoutDQ(const char* source, char* destination, std::size_t size) {
  std::string_view text = orEmpty(source);
  if (isQuoted(text)) text = text.substr(1, text.size() - 2);
  copyCut(destination, text, size);
}

std::int32_t MyEqualCStrings(const char* a, const char* b) { return orEmpty(a) == orEmpty(b) ? 1 : 0; }

std::int32_t MyEqualCaseCStrings(const char* a, const char* b) {
  const std::string_view first = orEmpty(a);
  return first.size() == orEmpty(b).size() && detail::beginsWith(first, orEmpty(b)) ? 1 : 0;
}

char* MyNewCStringByConcat(const char* a, const char* b) {
  const std::string_view first = orEmpty(a);
  const std::string_view second = orEmpty(b);
  char* const made = static_cast<char*>(std::malloc(first.size() + second.size() + 1));
  if (made == nullptr) return nullptr;
  std::memcpy(made, first.data(), first.size());
  std::memcpy(made + first.size(), second.data(), second.size());
  made[first.size() + second.size()] = '\0';
  return made;
}

char* MyReallocCStringByConcat(char* a, const char* b) {
  if (a == nullptr) return MyNewCStringByConcat(nullptr, b);
  const std::string_view first = a;
  const std::string_view second = orEmpty(b);
  const bool isInside = isWithin(second.data(), first);
  const auto offset = isInside ? second.data() - first.data() : 0;
  const std::size_t length = first.size();
  char* const grown = static_cast<char*>(std::realloc(a, length + second.size() + 1));
  if (grown == nullptr) return nullptr;
  std::memmove(grown + length, isInside ? grown + offset : second.data(), second.size());
  grown[length + second.size()] = '\0';
  return grown;
}

}  // extern "C"

}  // namespace ostrel
