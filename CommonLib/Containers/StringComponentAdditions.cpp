// Operations of strings: components, escapes, white space.
#include <cstdint>
#include <string>

#include "Containers/Internal/ComponentScanner.h"
#include "Containers/PlistValue.h"
#include "Containers/Utf8.h"

namespace ostrel {
namespace {

bool isAscii(char character) noexcept { return static_cast<unsigned char>(character) < 0x80; }

void appendEscaped(std::string& to, std::string_view text, char character) {
  for (const char c : text) {
    if (c == '\\' || (isAscii(c) && c == character)) to += '\\';
    to += c;
  }
}

/// White space and line ends: Unicode's separators (categories Zs, Zl, Zp), tab to carriage return, and next line.
bool isWhiteSpace(std::uint32_t character) noexcept {
  if (character < 0x80) return character == ' ' || (character >= '\t' && character <= '\r');
  switch (character) {
    case 0x85:
    case 0xA0:
    case 0x1680:
    case 0x2028:
    case 0x2029:
    case 0x202F:
    case 0x205F:
    case 0x3000:
      return true;
    default:
      return character >= 0x2000 && character <= 0x200A;
  }
}

}  // namespace

PlistValue PlistValue::componentsSeparatedByCharacter(char separator) const {
  detail::ComponentScanner scanner(stringView(), separator);
  PlistValue components = mutableArray();
  for (std::string_view component; scanner.next(component);) components.append(component);
  return components.count() == 0 ? PlistValue() : components.immutableCopy();
}

std::string PlistValue::componentsJoinedByCharacter(char separator) const {
  std::string joined;
  for (const PlistValue& component : elements()) {
    if (!joined.empty() && isAscii(separator)) joined += separator;
    if (component.isString()) {
      appendEscaped(joined, component.stringView(), separator);
    } else {
      appendEscaped(joined, component.description(), separator);
    }
  }
  return joined;
}

std::string PlistValue::escapedStringForCharacter(char character, bool* hasSpaces) const {
  if (hasSpaces != nullptr) *hasSpaces = stringView().find(' ') != std::string_view::npos;
  std::string escaped;
  appendEscaped(escaped, stringView(), character);
  return escaped;
}

std::string PlistValue::unescapedString() const {
  std::string unescaped;
  const std::string_view text = stringView();
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (text[i] == '\\' && ++i == text.size()) break;
    unescaped += text[i];
  }
  return unescaped;
}

std::string PlistValue::stringWithCompactedAndTrimmedWhiteSpace() const {
  std::string compacted;
  std::string_view left = stringView();
  left = left.substr(0, left.find('\0'));
  for (bool inGap = false; !left.empty();) {
    std::uint32_t character = 0;
    std::size_t length = decodeCharacter(left, character);
    if (length == 0) length = 1;  // a byte that is no text stays as it is
    if (isWhiteSpace(character)) {
      inGap = !compacted.empty();
    } else {
      if (inGap) compacted += ' ';
      inGap = false;
      compacted += left.substr(0, length);
    }
    left.remove_prefix(length);
  }
  return compacted;
}

}  // namespace ostrel
