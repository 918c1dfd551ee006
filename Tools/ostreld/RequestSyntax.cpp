#include "ostreld/RequestSyntax.h"

#include <algorithm>

#include "Containers/Utf8.h"

namespace ostrel {
namespace {

constexpr std::string_view commandsPrefix = "/commands/";
constexpr std::size_t longestModuleName = 255;

/// -1 for anything but a hexadecimal digit. The C locale's own functions would take other letters in other locales.
int hexadecimalDigit(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  return -1;
}

char lowerCase(char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; }

bool equalIgnoringCase(std::string_view left, std::string_view right) {
  return std::ranges::equal(left, right, {}, lowerCase, lowerCase);
}

/// RFC 9110, section 5.6.2.
bool isToken(std::string_view text) {
  static constexpr std::string_view others = "!#$%&'*+-.^_`|~";
  return !text.empty() && std::ranges::all_of(text, [](char c) {
    const char lower = lowerCase(c);
    return (lower >= 'a' && lower <= 'z') || (c >= '0' && c <= '9') || others.find(c) != std::string_view::npos;
  });
}

bool isFieldValue(std::string_view text) {
  return std::ranges::none_of(text, [](char c) {
    const auto byte = static_cast<unsigned char>(c);
    return (byte < 0x20 && c != '\t') || byte == 0x7F;
  });
}

bool namesAModule(const std::string& name) {
  return !name.empty() && name.size() <= longestModuleName && isValidUtf8(name) &&
         name.find_first_of(std::string_view("/\0", 2)) == std::string::npos;
}

}  // namespace

std::optional<std::string> percentDecode(std::string_view text, bool plusIsSpace) {
  std::string decoded;
  decoded.reserve(text.size());
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (text[i] != '%') {
      decoded += plusIsSpace && text[i] == '+' ? ' ' : text[i];
      continue;
    }
    if (text.size() - i < 3) return std::nullopt;
    const int high = hexadecimalDigit(text[i + 1]);
    const int low = hexadecimalDigit(text[i + 2]);
    if (high < 0 || low < 0) return std::nullopt;
    decoded += static_cast<char>(high * 16 + low);
    i += 2;
  }
  return decoded;
}

RequestFault judgeHeaders(std::span<const HeaderField> headers) {
  const auto count = [headers](std::string_view name) {
    return std::ranges::count_if(headers,
                                 [name](const HeaderField& field) { return equalIgnoringCase(field.name, name); });
  };
  const bool allSound = std::ranges::all_of(headers, [](const HeaderField& field) {
    return isToken(field.name) && isFieldValue(field.value) &&
           (!equalIgnoringCase(field.name, "Transfer-Encoding") || equalIgnoringCase(field.value, "chunked"));
  });
  const bool oneBody = count("Content-Length") + count("Transfer-Encoding") <= 1;
  const bool oneCaller = count("OstrelSessionID") <= 1 && count("Authorization") <= 1;
  return allSound && oneBody && oneCaller ? RequestFault::none : RequestFault::badHeader;
}

CommandPath readCommandPath(std::string_view path) {
  if (!path.starts_with(commandsPrefix)) return {RequestFault::wrongPath, {}};
  auto module = percentDecode(path.substr(commandsPrefix.size()));
  if (!module) return {RequestFault::badEscape, {}};
  if (!namesAModule(*module)) return {RequestFault::wrongPath, {}};
  return {RequestFault::none, std::move(*module)};
}

FormBody readFormBody(std::string_view body) {
  std::optional<std::string> input;
  while (!body.empty()) {
    const std::string_view field = body.substr(0, body.find('&'));
    body.remove_prefix(std::min(field.size() + 1, body.size()));
    const std::size_t equals = field.find('=');
    const auto name = percentDecode(field.substr(0, equals), true);
    auto value = percentDecode(equals == std::string_view::npos ? "" : field.substr(equals + 1), true);
    if (!name || !value) return {RequestFault::badEscape, {}};
    if (*name != "input" || equals == std::string_view::npos) continue;
    if (input) return {RequestFault::repeatedInput, {}};
    input = std::move(*value);
  }
  if (!input) return {RequestFault::noInput, {}};
  return {RequestFault::none, std::move(*input)};
}

}  // namespace ostrel
