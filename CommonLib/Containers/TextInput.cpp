#include "Containers/Internal/TextInput.h"

#include <algorithm>
#include <utility>

#include "Containers/Utf8.h"

namespace ostrel::detail {
namespace {

constexpr bool isHighSurrogate(char32_t unit) { return unit >= 0xD800 && unit < 0xDC00; }
constexpr bool isLowSurrogate(char32_t unit) { return unit >= 0xDC00 && unit < 0xE000; }

bool startsCharacter(char byte) noexcept { return (static_cast<unsigned char>(byte) & 0xC0) != 0x80; }

/// Bytes that valid UTF-8 text takes in UTF-16. A place within a character counts the whole character.
std::size_t utf16Size(std::string_view text) noexcept {
  std::size_t units = 0;
  for (const char byte : text) {
    if (startsCharacter(byte)) units += static_cast<unsigned char>(byte) >= 0xF0 ? 2 : 1;
  }
  return units * 2;
}

}  // namespace

std::size_t appendUtf16(std::string& text, std::string_view bytes, bool bigEndian) {
  const auto unitAt = [&](std::size_t at) {
    const auto first = static_cast<unsigned char>(bytes[at]);
    const auto second = static_cast<unsigned char>(bytes[at + 1]);
    return static_cast<char32_t>(bigEndian ? first << 8 | second : second << 8 | first);
  };
  std::size_t at = 0;
  while (bytes.size() - at >= 2) {
    char32_t character = unitAt(at);
    if (isLowSurrogate(character)) return at;
    std::size_t length = 2;
    if (isHighSurrogate(character)) {
      if (bytes.size() - at < 4 || !isLowSurrogate(unitAt(at + 2))) return at;
      character = 0x10000 + ((character - 0xD800) << 10) + (unitAt(at + 2) - 0xDC00);
      length = 4;
    }
    appendUtf8(text, character);
    at += length;
  }
  return at;
}

TextInput::TextInput(std::string_view bytes) : text_(bytes) {
  if (bytes.starts_with("\xEF\xBB\xBF")) {
    markLength_ = 3;
    text_.remove_prefix(3);
  } else if (bytes.starts_with("\xFF\xFE") || bytes.starts_with("\xFE\xFF")) {
    markLength_ = 2;
    encoding_ = bytes[0] == '\xFE' ? Encoding::utf16BigEndian : Encoding::utf16LittleEndian;
    bytes.remove_prefix(2);
    valid_ = appendUtf16(converted_, bytes, encoding_ == Encoding::utf16BigEndian) == bytes.size();
    text_ = converted_;
  }
}

PlistError TextInput::error(std::string message, std::size_t textOffset) const {
  const std::string_view before = text_.substr(0, textOffset);
  std::size_t line = 1;
  std::size_t lineStart = 0;
  for (std::size_t i = 0; i < before.size(); ++i) {
    const bool ends = before[i] == '\n' || (before[i] == '\r' && (i + 1 == text_.size() || text_[i + 1] != '\n'));
    if (!ends) continue;
    ++line;
    lineStart = i + 1;
  }
  const bool wide = encoding_ != Encoding::utf8;
  const auto bytesOf = [wide](std::string_view text) { return wide ? utf16Size(text) : text.size(); };
  return {.message = std::move(message),
          .offset = markLength_ + bytesOf(before),
          .line = line,
          .column = bytesOf(before.substr(lineStart)) + 1};
}

}  // namespace ostrel::detail
