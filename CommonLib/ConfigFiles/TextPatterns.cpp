#include "ConfigFiles/TextPatterns.h"

#include "ConfigFiles/Internal/LineText.h"
#include "ConfigFiles/Internal/PatternMatch.h"

namespace ostrel {
namespace detail {
namespace {

// How many characters agree from `p` in the pattern and `t` in the text; a wildcard agrees with none.
std::size_t equalRun(std::string_view pattern, std::size_t p, std::string_view text, std::size_t t) noexcept {
  std::size_t count = 0;
  while (p + count < pattern.size() && t + count < text.size() && pattern[p + count] != anyCharacters &&
         equalIgnoringCase(pattern[p + count], text[t + count]))
    ++count;
  return count;
}

}  // namespace

PatternMatch matchPattern(std::string_view text, std::string_view pattern) noexcept {
  std::size_t p = 0;
  std::size_t start = 0;
  bool afterWildcard = false;
  for (std::size_t t = 0; t < text.size();) {
    if (p == 0) start = t;
    if (p == pattern.size()) return {start, text.size() - start};
    const std::size_t equal = equalRun(pattern, p, text, t);
    const std::size_t next = p + equal;
    if (next == pattern.size()) return {start, t + equal - start};
    if (pattern[next] != anyCharacters) {
      // Whatever agreed is passed over, not looked at again: a partial match may hide one that begins inside it.
      if (!afterWildcard) p = 0;
      t += equal == 0 ? 1 : equal;
      continue;
    }
    t += equal;
    if (t == text.size()) break;
    p = next;
    while (p < pattern.size() && pattern[p] == anyCharacters) ++p;
    ++t;
    afterWildcard = true;
  }
  return {};
}

}  // namespace detail

extern "C" {

std::int32_t MatchTextWithString(const char* text, const char* pattern, std::size_t* start, std::size_t* length) {
  detail::PatternMatch match;
  if (text != nullptr && pattern != nullptr) match = detail::matchPattern(text, pattern);
  if (start != nullptr) *start = match.start;
  if (length != nullptr) *length = match.length;
  return 0;
}

std::int32_t DoesTextContainThisString(const char* text, const char* pattern, std::int32_t* flag) {
  std::size_t length = 0;
  MatchTextWithString(text, pattern, nullptr, &length);
  if (flag != nullptr) *flag = length > 0 ? 1 : 0;
  return 0;
}

}  // extern "C"

}  // namespace ostrel
