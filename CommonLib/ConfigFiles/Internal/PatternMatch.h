// The pattern matching of TextPatterns.h over bytes of known length.
#pragma once

#include <cstddef>
#include <string_view>

namespace ostrel::detail {

/// The wildcard.
constexpr char anyCharacters = '\x1f';

struct PatternMatch {
  std::size_t start = 0;
  std::size_t length = 0;  ///< 0: no match

  explicit operator bool() const noexcept { return length > 0; }
  std::size_t end() const noexcept { return start + length; }
};

/// The first match of `pattern` in `text`.
PatternMatch matchPattern(std::string_view text, std::string_view pattern) noexcept;

}  // namespace ostrel::detail
