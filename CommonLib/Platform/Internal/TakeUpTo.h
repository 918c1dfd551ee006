// Taking a text apart from its front.
#pragma once

#include <string_view>

namespace ostrel::detail {

/// Takes what stands before the next `separator` off the front of `text`, and the separator; all of it when there is
/// none.
inline std::string_view takeUpTo(std::string_view& text, std::string_view separator) {
  const std::size_t end = text.find(separator);
  const std::string_view taken = text.substr(0, end);
  text.remove_prefix(end == std::string_view::npos ? text.size() : end + separator.size());
  return taken;
}

}  // namespace ostrel::detail
