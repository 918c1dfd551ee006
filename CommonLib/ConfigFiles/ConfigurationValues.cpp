// Settings' values from and to the text in which people write them.
#include <algorithm>
#include <charconv>
#include <cstdint>
#include <limits>
#include <string>
#include <vector>

#include "ConfigFiles/ConfigurationParser.h"
#include "ConfigFiles/Internal/TextLines.h"
#include "Containers/LeadingInteger.h"

namespace ostrel {
namespace {

// A type's description, split at every single space.
struct SettingType {
  explicit SettingType(std::string_view text) : whole(text), words(detail::splitAt(text, " ")) {}
  bool isArray() const { return words.size() > 1 && words[0] == "Array"; }
  bool isBoolean() const { return words[0] == "Boolean" && (words.size() == 1 || words.size() == 3); }
  bool hasOwnWords() const { return words.size() == 3; }
  std::string_view separator() const { return words.size() == 3 ? words[2] : " "; }

  std::string_view whole;
  std::vector<std::string_view> words;
};

std::size_t countOfDigits(std::string_view text) { return std::min(text.find_first_not_of("0123456789"), text.size()); }

// The floating-point number that a text begins with, in two parts: what is multiplied by a power of ten, and that.
struct Decimal {
  explicit Decimal(std::string_view text) {
    text.remove_prefix(std::min(text.find_first_not_of(" \t\n\v\f\r"), text.size()));
    isNegative = text.starts_with('-');
    if (isNegative || text.starts_with('+')) text.remove_prefix(1);
    std::size_t end = countOfDigits(text);
    integerDigits = end;
    if (end < text.size() && text[end] == '.') end += 1 + countOfDigits(text.substr(end + 1));
    hasDigits = text.substr(0, end).find_first_not_of('.') != std::string_view::npos;
    const std::string_view power = text.substr(end);
    mantissa = text.substr(0, end);
    whole = mantissa;
    if (!power.starts_with('e') && !power.starts_with('E')) return;
    const std::size_t sign = power.size() > 1 && (power[1] == '-' || power[1] == '+') ? 1 : 0;
    const std::size_t digits = countOfDigits(power.substr(1 + sign));
    if (digits == 0) return;
    exponent = *leadingInteger(power.substr(1, sign + digits));
    whole = text.substr(0, end + 1 + sign + digits);
  }
  // Of a number that no double holds: whether it is too large rather than too small.
  bool isLarge() const {
    const std::size_t first = mantissa.find_first_of("123456789");
    const auto distance = static_cast<std::int64_t>(integerDigits) - static_cast<std::int64_t>(first);
    return exponent > -distance;
  }
  double value() const {
    if (!hasDigits) return 0;
    double number = 0;
    if (std::from_chars(whole.data(), whole.data() + whole.size(), number).ec == std::errc::result_out_of_range)
      number = isLarge() ? std::numeric_limits<double>::max() : 0;
    return isNegative ? -number : number;
  }

  bool isNegative = false;
  bool hasDigits = false;
  std::size_t integerDigits = 0;
  std::string_view mantissa;
  std::int64_t exponent = 0;
  std::string_view whole;  // without its sign
};

// The integer that a text begins with, over the whole range of a value: signed, or unsigned where that is too small.
PlistValue integerFromText(std::string_view text) {
  const std::int64_t number = leadingInteger(text).value_or(0);
  if (number < std::numeric_limits<std::int64_t>::max()) return number;
  text.remove_prefix(text.find_first_of("0123456789"));
  std::uint64_t large = std::numeric_limits<std::uint64_t>::max();  // left alone when there are too many digits
  std::from_chars(text.data(), text.data() + text.size(), large);
  return large;
}

PlistValue arrayFromText(const SettingType& type, std::string_view text) {
  PlistValue array = PlistValue::mutableArray();
  // Meant: neighbouring separators make empty elements.
  for (const std::string_view piece : detail::splitAt(text, type.separator()))
    array.append(ConfigurationParser::objectForType(type.words[1], detail::trimBlanks(piece)));
  return array;
}

bool booleanFromText(const SettingType& type, std::string_view text) {
  if (type.hasOwnWords()) return detail::equalsIgnoringCase(text, type.words[1]);
  return detail::equalsIgnoringCase(text, "YES") || detail::equalsIgnoringCase(text, "TRUE") || text == "1";
}

std::string textFromArray(const SettingType& type, const PlistValue& array) {
  std::string text;
  bool isFirst = true;
  for (const PlistValue& element : array.elements()) {
    if (!isFirst) text += type.separator();
    text += element.description();
    isFirst = false;
  }
  return text;
}

}  // namespace

PlistValue ConfigurationParser::objectForKey(const PlistValue& name, const PlistValue& text) const {
  if (!text.isString()) return {};
  const PlistValue description = name.isString() ? fTypesDictionary.get(name.stringValue()) : PlistValue();
  PlistValue trimmed(detail::trimBlanks(text.stringValue()));
  if (!description.isString()) return trimmed;
  const SettingType type(description.stringValue());
  if (type.isArray()) return arrayFromText(type, trimmed.stringValue());
  if (type.isBoolean()) return booleanFromText(type, trimmed.stringValue());
  return objectForType(description, trimmed);
}

PlistValue ConfigurationParser::objectForType(const PlistValue& type, const PlistValue& text) {
  if (!text.isString()) return {};
  if (type.stringValue() == "Integer") return integerFromText(text.stringValue());
  if (type.stringValue() == "Real") return Decimal(text.stringValue()).value();
  return text;
}

PlistValue ConfigurationParser::stringForKey(const PlistValue& name, const PlistValue& value) const {
  const PlistValue description = name.isString() ? fTypesDictionary.get(name.stringValue()) : PlistValue();
  if (!description.isString()) return value;
  const SettingType type(description.stringValue());
  if (type.whole == "Integer" || type.whole == "Real") return value.isNumber() ? value.description() : value;
  if (type.isArray() && value.isArray()) return textFromArray(type, value);
  if (type.isBoolean() && value.isNumber()) {
    if (type.hasOwnWords()) return type.words[value.boolValue() ? 1 : 2];
    return value.boolValue() ? "yes" : "no";
  }
  return value;
}

}  // namespace ostrel
