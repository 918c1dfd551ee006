#include "ConfigFiles/PascalStrings.h"

#include <algorithm>
#include <cstring>
#include <string_view>

#include "ConfigFiles/Internal/LineText.h"

namespace ostrel {
namespace {

constexpr std::size_t longest = 255;

std::string_view textOf(const unsigned char* source) {
  if (source == nullptr) return {};
  return {reinterpret_cast<const char*>(source) + 1, *source};
}

void store(unsigned char* destination, std::string_view text, std::size_t size) {
  if (destination == nullptr || size == 0) return;
  text = text.substr(0, std::min(size - 1, longest));
  if (!text.empty()) std::memmove(destination + 1, text.data(), text.size());
  *destination = static_cast<unsigned char>(text.size());
}

}  // namespace

extern "C" {

std::int32_t MyEqualPascalStrings(const unsigned char* a, const unsigned char* b) {
  return textOf(a) == textOf(b) ? 1 : 0;
}

std::int32_t MyEqualCasePascalStrings(const unsigned char* a, const unsigned char* b) {
  return textOf(a).size() == textOf(b).size() && detail::beginsWith(textOf(a), textOf(b)) ? 1 : 0;
}

void MyCopyPascalStrings(unsigned char* destination, const unsigned char* source, std::size_t size) {
  store(destination, textOf(source), size);
}

void MyConcatPascalStrings(const unsigned char* source, unsigned char* destination, std::size_t size) {
  if (source == nullptr || destination == nullptr || size == 0) return;
  const std::size_t length = *destination;
  const std::size_t room = std::min(size - 1, longest);
  if (length >= room) return;
  const std::size_t count = std::min<std::size_t>(*source, room - length);
  std::memmove(destination + 1 + length, source, count);
  *destination = static_cast<unsigned char>(length + count);
}

void MyCopyCStringToPascal(const char* source, unsigned char* destination, std::size_t size) {
  store(destination, source == nullptr ? "" : source, size);
}

void MyCopyCStringToPascalWithoutDQ(const char* source, unsigned char* destination, std::size_t size) {
  std::string_view text = source == nullptr ? "" : source;
  if (text.starts_with('"')) {
    text.remove_prefix(1);
    if (text.ends_with('"')) text.remove_suffix(1);
  }
  store(destination, text, size);
}

void MyCopyPascalToCString(const unsigned char* source, char* destination, std::size_t size) {
  if (destination == nullptr || size == 0) return;
  const std::string_view text = textOf(source).substr(0, size - 1);
  if (!text.empty()) std::memmove(destination, text.data(), text.size());
  destination[text.size()] = '\0';
}

void MyCopyPascalToCStringWithDQ(const unsigned char* source, char* destination, std::size_t size) {
  if (destination == nullptr || size == 0) return;
  *destination = '\0';
  if (size < 3) return;
  const std::string_view text = textOf(source).substr(0, size - 3);
  destination[0] = '"';
  if (!text.empty()) std::memmove(destination + 1, text.data(), text.size());
  destination[text.size() + 1] = '"';
  destination[text.size() + 2] = '\0';
}

}  // extern "C"

}  // namespace ostrel
