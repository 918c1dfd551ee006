// The text form of values, as "%@" prints it.
#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstdint>
#include <string>
#include <vector>

#include "Containers/CalendarDate.h"
#include "Containers/Format.h"
#include "Containers/PlistValue.h"
#include "Containers/PropertyList.h"
#include "Containers/Utf8.h"

namespace ostrel {
namespace {

/// Four spaces a level. The deepest levels go no further right: a small tree must not become a huge text of spaces.
void appendIndent(std::string& out, std::size_t depth) {
  constexpr std::size_t deepest = 16;
  out.append(std::min(depth, deepest) * 4, ' ');
}

bool isBareCharacter(char c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_' || c == '.' ||
         c == '/' || c == '$';
}

/// A log line must stay one line, whatever a client put into a string.
std::string escapeControl(char byte) {
  switch (byte) {
    case '\n':
      return "\\n";
    case '\r':
      return "\\r";
    case '\t':
      return "\\t";
    default:
      return format("\\%03o", static_cast<unsigned char>(byte));
  }
}

/// A string inside a container: bare when it is one plain word, quoted otherwise.
void appendMemberString(std::string& out, std::string_view text) {
  if (!text.empty() && std::ranges::all_of(text, isBareCharacter)) {
    out += text;
    return;
  }
  out += '"';
  while (!text.empty()) {
    const std::size_t plain = std::min(text.find_first_of("\"\\"), text.size());
    appendEscapingControls(out, text.substr(0, plain), escapeControl);
    text.remove_prefix(plain);
    if (text.empty()) break;
    out.append({'\\', text.front()});
    text.remove_prefix(1);
  }
  out += '"';
}

void appendDigits(std::string& out, auto number) {
  char digits[64];
  out.append(digits, std::to_chars(digits, digits + sizeof digits, number).ptr);
}

/// A real that equals an integer prints like it, as equal values must.
void appendReal(std::string& out, double real) {
  const double magnitude = std::fabs(real);
  if (std::isnan(real)) {
    out += "nan";
  } else if (magnitude == std::trunc(magnitude) && magnitude < 18446744073709551616.0) {
    if (real < 0) out += '-';
    appendDigits(out, static_cast<std::uint64_t>(magnitude));
  } else {
    appendDigits(out, real);
  }
}

void appendNumber(std::string& out, const PlistValue& value) {
  if (value.isReal()) return appendReal(out, value.doubleValue());
  if (value.doubleValue() < 0) return appendDigits(out, value.int64Value());
  appendDigits(out, value.uint64Value());
}

void appendDate(std::string& out, PlistDate date) {
  const auto fields = calendarDate(date);
  if (!fields) {
    out += format("%.0f seconds since 1970", date.secondsSince1970);
    return;
  }
  out += format("%04d-%02d-%02d %02d:%02d:%02d +0000", fields->year, fields->month, fields->day, fields->hour,
                fields->minute, fields->second);
}

void appendData(std::string& out, std::string_view bytes) {
  constexpr std::string_view hex = "0123456789abcdef";
  out += '<';
  for (const char c : bytes) {
    const auto byte = static_cast<unsigned char>(c);
    out += hex[byte >> 4];
    out += hex[byte & 15];
  }
  out += '>';
}

void appendMember(std::string& out, const PlistValue& value, std::size_t depth);

void appendDictionary(std::string& out, const PlistValue& value, std::size_t depth) {
  std::vector<const PlistEntry*> sorted;
  for (const PlistEntry& entry : value.entries()) sorted.push_back(&entry);
  std::ranges::sort(sorted, {}, [](const PlistEntry* entry) { return entry->keyText(); });
  out += "{\n";
  for (const PlistEntry* entry : sorted) {
    appendIndent(out, depth + 1);
    appendMemberString(out, entry->keyText());
    out += " = ";
    appendMember(out, entry->value, depth + 1);
    out += ";\n";
  }
  appendIndent(out, depth);
  out += '}';
}

void appendArray(std::string& out, const PlistValue& value, std::size_t depth) {
  out += "(\n";
  std::size_t left = value.count();
  for (const PlistValue& element : value.elements()) {
    appendIndent(out, depth + 1);
    appendMember(out, element, depth + 1);
    out += --left == 0 ? "\n" : ",\n";
  }
  appendIndent(out, depth);
  out += ')';
}

void appendMember(std::string& out, const PlistValue& value, std::size_t depth) {
  switch (value.kind()) {
    case PlistValue::Kind::null:
      out += "(null)";
      break;
    case PlistValue::Kind::string:
      appendMemberString(out, value.stringValue());
      break;
    case PlistValue::Kind::number:
    case PlistValue::Kind::boolean:
      appendNumber(out, value);
      break;
    case PlistValue::Kind::date:
      appendDate(out, value.dateValue());
      break;
    case PlistValue::Kind::data:
      appendData(out, value.dataBytes());
      break;
    case PlistValue::Kind::array:
      depth < maximumPlistDepth ? appendArray(out, value, depth) : void(out += "(...)");
      break;
    case PlistValue::Kind::dictionary:
      depth < maximumPlistDepth ? appendDictionary(out, value, depth) : void(out += "{...}");
      break;
  }
}

}  // namespace

std::string PlistValue::description() const {
  if (isString()) return std::string(stringValue());
  std::string out;
  appendMember(out, *this, 0);
  return out;
}

}  // namespace ostrel
