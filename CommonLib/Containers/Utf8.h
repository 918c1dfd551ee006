// Checks of UTF-8 text (RFC 3629).
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "Containers/Export.h"

namespace ostrel {

/// Number of leading bytes of `bytes` that are whole, valid UTF-8 characters: no overlong forms, no surrogates,
/// nothing above U+10FFFF. Equal to the size when all of it is valid.
OSTREL_EXPORT std::size_t validUtf8Prefix(std::string_view bytes) noexcept;

/// Number of bytes of the first character of `bytes`, or 0 when they do not begin with a whole, valid one.
OSTREL_EXPORT std::size_t leadingCharacterLength(std::string_view bytes) noexcept;

/// The same, and the character.
OSTREL_EXPORT std::size_t decodeCharacter(std::string_view bytes, std::uint32_t& character) noexcept;

inline bool isValidUtf8(std::string_view bytes) noexcept { return validUtf8Prefix(bytes) == bytes.size(); }

/// Appends `text`; of its control characters, which end lines and steer terminals (U+0000 to U+001F, U+007F to U+009F),
/// what `escape` makes of each of their bytes.
OSTREL_EXPORT void appendEscapingControls(std::string& out, std::string_view text, std::string (*escape)(char byte));

/// Appends one character. Requires: a Unicode scalar value (not a surrogate, at most U+10FFFF).
OSTREL_EXPORT void appendUtf8(std::string& text, char32_t character);

}  // namespace ostrel
