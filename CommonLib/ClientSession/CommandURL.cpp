#include "ClientSession/CommandURL.h"

#include <algorithm>
#include <array>
#include <climits>

namespace ostrel {
namespace {

bool isLetter(char c) { return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z'); }
bool isDigit(char c) { return c >= '0' && c <= '9'; }
bool isHexDigit(char c) { return isDigit(c) || (c >= 'A' && c <= 'F') || (c >= 'a' && c <= 'f'); }

constexpr std::array<bool, 256> makeUrlCharacters() {
  constexpr std::string_view all =
      "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-_.!~*'();/?:@&=+$,#%[]";
  std::array<bool, 256> table{};
  for (const char character : all) table[static_cast<unsigned char>(character)] = true;
  return table;
}
constexpr std::array<bool, 256> isUrlCharacter = makeUrlCharacters();

bool isUrlText(std::string_view text) {
  if (!std::ranges::all_of(text, [](unsigned char c) { return isUrlCharacter[c]; })) return false;
  for (std::size_t i = text.find('%'); i != std::string_view::npos; i = text.find('%', i + 1)) {
    if (i + 2 >= text.size() || !isHexDigit(text[i + 1]) || !isHexDigit(text[i + 2])) return false;
  }
  return true;
}

bool isScheme(std::string_view scheme) {
  return !scheme.empty() && isLetter(scheme.front()) && std::ranges::all_of(scheme, [](char c) {
    return isLetter(c) || isDigit(c) || c == '+' || c == '-' || c == '.';
  });
}

struct Authority {
  std::string_view host;
  std::string_view port;
};

std::optional<Authority> parseAuthority(std::string_view text) {
  if (const std::size_t at = text.rfind('@'); at != std::string_view::npos) text.remove_prefix(at + 1);
  Authority authority;
  if (text.starts_with('[')) {
    const std::size_t bracket = text.find(']');
    if (bracket == std::string_view::npos) return std::nullopt;
    authority.host = text.substr(1, bracket - 1);
    text.remove_prefix(bracket + 1);
    if (!text.empty() && !text.starts_with(':')) return std::nullopt;
  } else {
    authority.host = text.substr(0, text.find(':'));
    text.remove_prefix(authority.host.size());
  }
  if (!text.empty()) authority.port = text.substr(1);
  if (authority.host.find_first_of("[]") != std::string_view::npos) return std::nullopt;
  if (!std::ranges::all_of(authority.port, isDigit)) return std::nullopt;
  return authority;
}

}  // namespace

std::optional<CommandURL> CommandURL::parse(std::string_view text) {
  if (!isUrlText(text)) return std::nullopt;
  const std::size_t schemeEnd = text.find("://");
  if (schemeEnd == std::string_view::npos || !isScheme(text.substr(0, schemeEnd))) return std::nullopt;
  std::string_view rest = text.substr(schemeEnd + 3);
  rest = rest.substr(0, std::min(rest.find('?'), rest.find('#')));
  const std::size_t slash = std::min(rest.find('/'), rest.size());
  const auto authority = parseAuthority(rest.substr(0, slash));
  if (!authority) return std::nullopt;

  CommandURL url;
  url.text_ = text;
  url.host_ = authority->host;
  url.port_ = authority->port;
  url.path_ = slash < rest.size() ? rest.substr(slash) : "/";
  return url;
}

std::string CommandURL::hostForHeader() const {
  return host_.find(':') == std::string::npos ? host_ : "[" + host_ + "]";
}

std::int32_t CommandURL::portNumber() const {
  std::int64_t number = 0;
  for (const char digit : port_) number = std::min<std::int64_t>(number * 10 + (digit - '0'), INT32_MAX);
  return static_cast<std::int32_t>(number);
}

}  // namespace ostrel
