#include "Containers/LeadingInteger.h"

#include <algorithm>
#include <charconv>
#include <limits>
#include <system_error>

namespace ostrel {

std::optional<std::int64_t> leadingInteger(std::string_view text) noexcept {
  using Limits = std::numeric_limits<std::int64_t>;
  text.remove_prefix(std::min(text.find_first_not_of(" \t\n\v\f\r"), text.size()));
  // std::from_chars knows no plus sign, and would take the minus of "+-5".
  if (text.starts_with("+-")) return std::nullopt;
  if (text.starts_with('+')) text.remove_prefix(1);
  std::int64_t number = 0;
  const std::errc fault = std::from_chars(text.data(), text.data() + text.size(), number).ec;
  if (fault == std::errc::result_out_of_range) return text.starts_with('-') ? Limits::min() : Limits::max();
  return fault == std::errc() ? std::optional(number) : std::nullopt;
}

int leadingInt(std::string_view text) noexcept {
  using Limits = std::numeric_limits<int>;
  return static_cast<int>(std::clamp<std::int64_t>(leadingInteger(text).value_or(0), Limits::min(), Limits::max()));
}

}  // namespace ostrel
