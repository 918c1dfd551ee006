// What the editing functions ask of the characters of a line.
#pragma once

#include <algorithm>
#include <cstddef>
#include <string_view>

namespace ostrel::detail {

inline bool isBlank(char c) { return c == ' ' || c == '\t'; }
inline bool isLineEnd(char c) { return c == '\r' || c == '\n'; }
inline char lowerCase(char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c + ('a' - 'A')) : c; }
inline bool equalIgnoringCase(char a, char b) { return lowerCase(a) == lowerCase(b); }

/// The text behind its leading spaces and tabs.
inline std::string_view withoutLeadingBlanks(std::string_view text) {
  text.remove_prefix(std::min(text.find_first_not_of(" \t"), text.size()));
  return text;
}

/// Whether `text` begins with `prefix`, A-Z and a-z being the same.
inline bool beginsWith(std::string_view text, std::string_view prefix) {
  if (text.size() < prefix.size()) return false;
  for (std::size_t i = 0; i < prefix.size(); ++i)
    if (!equalIgnoringCase(text[i], prefix[i])) return false;
  return true;
}

/// Where in its line a keyword or a tag stands.
enum class Place { inside, atStart, behindCommentMark };

/// `atStart`: in the first column or behind spaces and tabs only. `behindCommentMark`: directly behind a "#" that
/// follows spaces and tabs only.
inline Place placeOf(std::string_view line, std::size_t column) {
  const std::size_t text = std::min(line.find_first_not_of(" \t"), line.size());
  if (column <= text) return Place::atStart;
  return column == text + 1 && line[text] == '#' ? Place::behindCommentMark : Place::inside;
}

}  // namespace ostrel::detail
