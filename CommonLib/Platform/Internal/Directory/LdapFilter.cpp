#include "Platform/Internal/Directory/LdapFilter.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cstdint>
#include <limits>

#include "Platform/DirectoryTypes.h"

namespace ostrel::detail {
namespace {

// Servers take filters of some size and depth only.
constexpr std::size_t mostConditions = 100;
constexpr std::size_t longestFilter = 16384;
// What a longer pattern begins with is enough to find the candidates.
constexpr std::size_t longestPart = 256;

// How servers compare an attribute (RFC 4519, RFC 2307, RFC 4524).
enum class Rule {
  unknown,      ///< may be anything: only its presence is asked for
  ignoresCase,  ///< with parts
  exact,        ///< case matters
  exactParts,   ///< the same, with parts
  integer,      ///< with an order
  uuid,
};

Rule ruleOf(const LdapAttribute& attribute) {
  if (attribute.meaning == LdapMeaning::identifier) return Rule::uuid;
  struct Known {
    std::string_view name;
    Rule rule;
  };
  constexpr std::array<Known, 15> known = {{{"uid", Rule::ignoresCase},
                                            {"cn", Rule::ignoresCase},
                                            {"sn", Rule::ignoresCase},
                                            {"givenName", Rule::ignoresCase},
                                            {"displayName", Rule::ignoresCase},
                                            {"description", Rule::ignoresCase},
                                            {"title", Rule::ignoresCase},
                                            {"mail", Rule::ignoresCase},
                                            {"gecos", Rule::ignoresCase},
                                            {"employeeNumber", Rule::ignoresCase},
                                            {"uidNumber", Rule::integer},
                                            {"gidNumber", Rule::integer},
                                            {"homeDirectory", Rule::exact},
                                            {"loginShell", Rule::exact},
                                            {"memberUid", Rule::exactParts}}};
  for (const Known& entry : known)
    if (sameLdapName(entry.name, attribute.ldapName)) return entry.rule;
  return Rule::unknown;
}

bool isPlain(char c) { return c > ' ' && c <= '~'; }

// Appended: g++ 12 takes text + text here for an overlapping copy.
std::string compared(std::string_view ldapName, std::string_view how, std::string_view value) {
  return std::string("(").append(ldapName).append(how).append(value) += ')';
}

std::string presence(std::string_view ldapName) { return compared(ldapName, "=", "*"); }

// The pattern with a wildcard for everything that a server may compare in its own way: spaces, which it squeezes, and
// all that is not ASCII.
std::string parts(std::string_view pattern) {
  std::string text;
  std::size_t taken = 0;
  while (!pattern.empty()) {
    const auto size = static_cast<std::size_t>(std::ranges::find_if_not(pattern, isPlain) - pattern.begin());
    if (size == 0) {
      if (!text.ends_with('*')) text += '*';
      pattern.remove_prefix(1);
      continue;
    }
    const std::size_t part = std::min(size, longestPart - taken);
    text += escapedForFilter(pattern.substr(0, part));
    taken += part;
    if (taken == longestPart) return part == pattern.size() ? text : text + '*';
    pattern.remove_prefix(part);
  }
  return text;
}

std::string textFilter(std::string_view ldapName, std::uint32_t match, std::string_view pattern, bool hasParts) {
  using namespace directoryMatch;
  std::string text = parts(pattern);
  if (match != exact && match != exactIgnoringCase && match != startsWithIgnoringCase && !text.starts_with('*'))
    text.insert(0, 1, '*');
  if (match != exact && match != exactIgnoringCase && match != endsWithIgnoringCase && !text.ends_with('*'))
    text += '*';
  const bool isWhole = text.find('*') == std::string::npos;
  if (text.empty() || text == "*" || (!hasParts && !isWhole)) return presence(ldapName);
  return compared(ldapName, "=", text);
}

std::optional<std::int64_t> canonicalNumber(std::string_view text) {
  std::int64_t number = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
  if (error != std::errc() || end != text.data() + text.size()) return std::nullopt;
  return number;
}

// Empty: nothing can match.
std::string numberFilter(std::string_view ldapName, std::uint32_t match, std::string_view pattern) {
  using namespace directoryMatch;
  const auto number = canonicalNumber(pattern);
  switch (match) {
    case exact:
    case exactIgnoringCase:
      return number && std::to_string(*number) == pattern ? compared(ldapName, "=", pattern) : "";
    case lessThan:
      if (!number || *number == std::numeric_limits<std::int64_t>::min()) return "";
      return compared(ldapName, "<=", std::to_string(*number - 1));
    case greaterThan:
      if (!number || *number == std::numeric_limits<std::int64_t>::max()) return "";
      return compared(ldapName, ">=", std::to_string(*number + 1));
    default:
      return presence(ldapName);
  }
}

std::string identifierFilter(std::string_view ldapName, std::uint32_t match, std::string_view pattern) {
  using namespace directoryMatch;
  if (match == lessThan || match == greaterThan) return "";
  if (match != exact && match != exactIgnoringCase) return presence(ldapName);
  return isUuid(pattern) ? equalityFilter(ldapName, pattern) : "";
}

bool ignoresCase(std::uint32_t match) { return match >= directoryMatch::exactIgnoringCase; }

std::string conditionFor(const LdapAttribute& attribute, std::uint32_t match, std::string_view pattern) {
  if (attribute.meaning == LdapMeaning::memberIdentifiers) return presence(attribute.ldapName);
  const bool comparesNumbers = match == directoryMatch::lessThan || match == directoryMatch::greaterThan;
  const Rule rule = ruleOf(attribute);
  switch (rule) {
    case Rule::integer:
      return numberFilter(attribute.ldapName, match, pattern);
    case Rule::uuid:
      return identifierFilter(attribute.ldapName, match, pattern);
    case Rule::ignoresCase:
      return comparesNumbers ? presence(attribute.ldapName) : textFilter(attribute.ldapName, match, pattern, true);
    case Rule::exact:
    case Rule::exactParts:
      if (comparesNumbers || ignoresCase(match)) return presence(attribute.ldapName);
      return textFilter(attribute.ldapName, match, pattern, rule == Rule::exactParts);
    case Rule::unknown:
      break;
  }
  return presence(attribute.ldapName);
}

}  // namespace

std::string escapedForFilter(std::string_view value) {
  constexpr std::string_view digits = "0123456789abcdef";
  std::string escaped;
  for (const char c : value) {
    if (isPlain(c) && c != '*' && c != '(' && c != ')' && c != '\\') {
      escaped += c;
      continue;
    }
    const auto byte = static_cast<unsigned char>(c);
    escaped += {'\\', digits[byte >> 4U], digits[byte & 15U]};
  }
  return escaped;
}

std::string equalityFilter(std::string_view ldapName, std::string_view value) {
  return compared(ldapName, "=", escapedForFilter(value));
}

std::string filterFor(const LdapRecordType& type) { return equalityFilter("objectClass", type.objectClass()); }

std::string filterFor(const LdapRecordType& type, const std::string& condition) {
  return "(&" + filterFor(type) + condition + ")";
}

std::vector<std::string> joinedFilters(const LdapRecordType& type, std::span<const std::string> conditions) {
  std::vector<std::string> filters;
  for (std::size_t at = 0; at < conditions.size();) {
    std::string joined;
    std::size_t count = 0;
    while (at < conditions.size() && count < mostConditions && (count == 0 || joined.size() < longestFilter)) {
      joined += conditions[at++];
      ++count;
    }
    filters.push_back(filterFor(type, count == 1 ? joined : "(|" + joined + ")"));
  }
  return filters;
}

std::vector<std::string> filtersFor(const LdapRecordType& type, const LdapAttribute& attribute, std::uint32_t match,
                                    std::span<const std::string> patterns) {
  if (attribute.meaning == LdapMeaning::password) return {};
  std::vector<std::string> conditions;
  for (const std::string& pattern : patterns) {
    std::string condition = conditionFor(attribute, match, pattern);
    if (condition.ends_with("=*)") && condition == presence(attribute.ldapName)) return {filterFor(type, condition)};
    if (!condition.empty()) conditions.push_back(std::move(condition));
  }
  std::ranges::sort(conditions);
  conditions.erase(std::unique(conditions.begin(), conditions.end()), conditions.end());
  return joinedFilters(type, conditions);
}

bool isUuid(std::string_view text) {
  constexpr std::size_t length = 36;
  if (text.size() != length) return false;
  for (std::size_t at = 0; at < length; ++at) {
    const bool isDash = at == 8 || at == 13 || at == 18 || at == 23;
    const char c = text[at];
    const bool isDigit = (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F');
    if (isDash ? c != '-' : !isDigit) return false;
  }
  return true;
}

}  // namespace ostrel::detail
