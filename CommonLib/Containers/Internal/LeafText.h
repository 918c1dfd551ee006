// Numbers and dates as the text that XML property lists hold. Independent of the locale. Not installed.
#pragma once

#include <optional>
#include <string_view>

#include "Containers/PlistValue.h"

namespace ostrel::detail {

/// Each gives null when the text is not exactly one such value; white space around it is allowed.
/// Integer: an optional sign and decimal digits, from -2^63 to 2^64 - 1.
PlistValue parseInteger(std::string_view text) noexcept;
/// Real: decimal digits with an optional sign, point and exponent, within the range of a double; or "nan", "inf" or
/// "infinity" in any case, the latter two with an optional sign.
PlistValue parseReal(std::string_view text) noexcept;
/// Date: "YYYY-MM-DDThh:mm:ssZ", with an optional fraction of a second before the "Z".
PlistValue parseDate(std::string_view text);

/// Room enough for what the writers below write.
inline constexpr std::size_t leafTextCapacity = 512;

/// Each writes at `out`, which has room for `leafTextCapacity` characters, and returns the end.
char* writeInteger(char* out, const PlistValue& integer) noexcept;
/// The shortest digits that read back as the same double; "nan", "+infinity", "-infinity".
char* writeReal(char* out, double real) noexcept;
/// Nothing (nullptr) for a moment that is not in the years 1 to 9999. A fraction reads back as the same double.
char* writeDate(char* out, PlistDate date) noexcept;

}  // namespace ostrel::detail
