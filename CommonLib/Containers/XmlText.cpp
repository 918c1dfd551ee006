#include "Containers/XmlText.h"

#include <algorithm>
#include <string>
#include <string_view>

#include "Containers/PropertyList.h"
#include "Containers/Utf8.h"

namespace ostrel {
namespace {

constexpr std::string_view replacement = "\xEF\xBF\xBD";  // U+FFFD

PlistValue replaced(const PlistValue& string) {
  const std::string_view text = string.stringValue();
  std::string out;
  bool changed = false;
  for (std::size_t at = 0; at < text.size();) {
    std::uint32_t character = 0;
    const std::size_t length = decodeCharacter(text.substr(at), character);
    const bool carried = length != 0 && isXmlCharacter(character);
    out += carried ? text.substr(at, length) : replacement;
    changed = changed || !carried;
    at += std::max<std::size_t>(length, 1);
  }
  return changed ? PlistValue(out) : string;
}

PlistValue replaced(const PlistValue& value, std::size_t depth) {
  if (value.isString()) return replaced(value);
  if (depth == maximumPlistDepth) return value;
  bool changed = false;
  const auto member = [&](const PlistValue& old) {
    PlistValue made = replaced(old, depth + 1);
    changed = changed || !made.isIdentical(old);
    return made;
  };
  PlistValue copy;
  if (value.isDictionary()) {
    copy = PlistValue::mutableDictionary();
    for (const PlistEntry& entry : value.entries()) copy.set(entry.keyText(), member(entry.value));
  } else if (value.isArray()) {
    copy = PlistValue::mutableArray();
    for (const PlistValue& element : value.elements()) copy.append(member(element));
  }
  return changed ? copy.immutableCopy() : value;
}

}  // namespace

bool isXmlCharacter(std::uint32_t character) noexcept {
  if (character < 0x20) return character == '\t' || character == '\n' || character == '\r';
  return character < 0xD800 || (character > 0xDFFF && character < 0xFFFE) ||
         (character > 0xFFFF && character <= 0x10FFFF);
}

PlistValue withXmlText(const PlistValue& value) { return replaced(value, 0); }

}  // namespace ostrel
